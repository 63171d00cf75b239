// The effect's front door through the built module in the stand-in host:
// command dispatch and its log lines, global set-up and set-down, the about
// picture and text, parameter registration and the facts hosts ask for.
#include <gtest/gtest.h>

#include <Windows.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "ModuleHostTest.h"
#include "TremorDistiller.h"
#include "TremorDistiller_Resources.h"

namespace {

using aehost::AeHost;

aehost::HostOptions Premiere() {
  aehost::HostOptions options;
  options.applId = aehost::kApplIdPremiere;
  options.versionMinor = 4;
  return options;
}

class EffectFront : public ModuleHostTest {};

// ---- Dispatch ----

TEST_F(EffectFront, CommandsWithoutWorkAnswerZeroSilently) {
  AeHost& host = NewHost();
  ASSERT_EQ(host.GlobalSetup(), PF_Err_NONE);
  const std::string before = Log();
  host.ClearCallLog();
  for (PF_Cmd cmd : std::vector<PF_Cmd>{PF_Cmd_SEQUENCE_SETUP, PF_Cmd_FRAME_SETUP, PF_Cmd_USER_CHANGED_PARAM,
                                        PF_Cmd_UPDATE_PARAMS_UI, PF_Cmd_GET_FLATTENED_SEQUENCE_DATA, PF_Cmd_NUM_CMDS,
                                        PF_Cmd_EVENT, 1000}) {
    EXPECT_EQ(host.SendCommand(cmd), PF_Err_NONE) << cmd;
    const auto record = host.LastCommand(cmd);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->out_flags, 0) << cmd;
    EXPECT_EQ(record->return_msg, "") << cmd;
  }
  for (const auto& call : host.CallLog()) EXPECT_EQ(call.kind, aehost::CallRecord::Kind::Command) << call.op;
  EXPECT_EQ(Log(), before);
}

TEST_F(EffectFront, FailedCommandsLeaveOneLineAndTheirCode) {
  // A returned code: the command and the code by name.
  NewHost().NullOperation("host_new_handle", 1);
  EXPECT_EQ(host_->GlobalSetup(), PF_Err_INTERNAL_STRUCT_DAMAGED);
  EXPECT_EQ(LogCount(":GlobalSetup] :: Global Data Handle memory allocation failed\n"), 1u);
  EXPECT_EQ(LogCount(":EffectMain] :: "), 1u) << Log();
  EXPECT_EQ(LogCount("HLL :: ERROR [TremorDistiller.cpp:"), 2u);
  EXPECT_EQ(LogCount(":EffectMain] :: PF_Cmd_GLOBAL_SETUP. Code: PF_Err_INTERNAL_STRUCT_DAMAGED (512)\n"), 1u);

  NewHost().NullOperation("host_lock_handle", 1);
  EXPECT_EQ(host_->GlobalSetup(), PF_Err_INTERNAL_STRUCT_DAMAGED);
  EXPECT_EQ(LogCount(":GlobalSetup] :: Global Data memory allocation failed\n"), 1u);

  // A thrown host code passes through unchanged.
  ASSERT_EQ(NewHost().GlobalSetup(), PF_Err_NONE);
  host_->RemoveSuite(kPFHandleSuite);
  EXPECT_EQ(host_->ParamsSetup(), PF_Err_BAD_CALLBACK_PARAM);
  EXPECT_TRUE(host_->Params().empty());
  EXPECT_EQ(LogCount(":EffectMain] :: Try Catch Exception code at event PF_Cmd_PARAMS_SETUP is "
                     "PF_Err_BAD_CALLBACK_PARAM (516)\n"),
            1u)
      << Log();
  host_->ClearInjections();

  // Anything else thrown becomes 512, and the suites still go back.
  host_->ClearCallLog();
  host_->Options().beforeCommand = [](PF_Cmd, PF_InData& in, PF_OutData&) {
    in.inter.add_param = [](PF_ProgPtr, PF_ParamIndex, PF_ParamDefPtr) -> PF_Err {
      throw std::runtime_error("Parameter with given Disk ID not found");
    };
  };
  EXPECT_EQ(host_->ParamsSetup(), PF_Err_INTERNAL_STRUCT_DAMAGED);
  EXPECT_EQ(LogCount(":EffectMain] :: Try Catch Exception at event PF_Cmd_PARAMS_SETUP. Error is "
                     "Parameter with given Disk ID not found\n"),
            1u);
  host_->Options().beforeCommand = [](PF_Cmd, PF_InData& in, PF_OutData&) {
    in.inter.register_ui = [](PF_ProgPtr, PF_CustomUIInfo*) -> PF_Err { throw 3.5; };
  };
  EXPECT_EQ(host_->ParamsSetup(), PF_Err_INTERNAL_STRUCT_DAMAGED);
  EXPECT_EQ(LogCount(":EffectMain] :: Try Catch Uknown Exception at event PF_Cmd_PARAMS_SETUP\n"), 1u);
  int held = 0;
  for (const auto& call : host_->CallLog()) {
    if (call.op == "AcquireSuite" && call.result == 0) ++held;
    if (call.op == "ReleaseSuite") --held;
  }
  EXPECT_EQ(held, 0);
  host_->Options().beforeCommand = nullptr;
}

// ---- Global lifecycle ----

TEST_F(EffectFront, GlobalSetupKeepsTheHostsFlagsAndDeclaresFormatsOnPremiereOnly) {
  AeHost& host = NewHost();
  host.Options().beforeCommand = [](PF_Cmd, PF_InData&, PF_OutData& out) {
    out.out_flags = PF_OutFlag_WIDE_TIME_INPUT;  // the host's own bit stays
    out.out_flags2 = 0x7;                        // replaced, not or-ed
  };
  ASSERT_EQ(host.GlobalSetup(), PF_Err_NONE);
  EXPECT_EQ(host.LastCommand(PF_Cmd_GLOBAL_SETUP)->out_flags, PF_OutFlag_WIDE_TIME_INPUT | 0x06008404);
  EXPECT_EQ(host.LastCommand(PF_Cmd_GLOBAL_SETUP)->out_flags2, 0x0B001408);
  EXPECT_TRUE(host.SupportedPixelFormats().empty());

  ASSERT_EQ(NewHost(Premiere()).GlobalSetup(), PF_Err_NONE);
  EXPECT_EQ(LogCount("HLL :: Tremor Distiller, v1.0.0 in Premiere13.4\n"), 1u) << Log();
  EXPECT_EQ(host_->SupportedPixelFormats(), std::vector<PF_PixelFormat>{0x62675241});  // "ARgb"
}

TEST_F(EffectFront, AboutPictureIsDecodedToBGRAAndFreedAtSetdown) {
  AeHost& host = NewHost();
  ASSERT_EQ(host.GlobalSetup(), PF_Err_NONE);
  const AboutImage* about = static_cast<const GlobalData*>(*host.GlobalData())->aboutImage;
  ASSERT_NE(about, nullptr);
  EXPECT_EQ(about->width, 250);
  EXPECT_EQ(about->height, 70);
  EXPECT_EQ(about->channels, 4);
  EXPECT_EQ(about->pixelLayout, 3);
  const auto* bytes = static_cast<const unsigned char*>(*about->pixels);
  auto pixel = [&](int x, int y) { return std::vector<int>(bytes + (y * 250 + x) * 4, bytes + (y * 250 + x) * 4 + 4); };
  // Colours drawn by scripts/make_about_png.py: background RGB (28, 32, 48)
  // at the top left, title white (245, 245, 240) from (30, 12). Blue first.
  EXPECT_EQ(pixel(0, 0), (std::vector<int>{48, 32, 28, 255}));
  EXPECT_EQ(pixel(30, 12), (std::vector<int>{240, 245, 245, 255}));
  for (size_t i = 3; i < 250u * 70u * 4u; i += 4) ASSERT_EQ(bytes[i], 255) << i;

  EXPECT_EQ(host.GlobalSetdown(), PF_Err_NONE);
  EXPECT_EQ(host.LiveHandleCount(), 0u);  // pixels and global data both gone
  EXPECT_EQ(LogCount("HLL :: Clean data\n"), 1u);
}

TEST_F(EffectFront, MissingPictureIsToldButDoesNotFailSetup) {
  AeHost& host = NewHost();
  host.NullOperation("host_new_handle", 2);  // the picture's pixels
  ASSERT_EQ(host.GlobalSetup(), PF_Err_NONE);
  const auto setup = host.LastCommand(PF_Cmd_GLOBAL_SETUP);
  EXPECT_EQ(setup->return_msg, "Cannot Load Image");
  EXPECT_TRUE(setup->out_flags & PF_OutFlag_DISPLAY_ERROR_MESSAGE);
  EXPECT_EQ(static_cast<const GlobalData*>(*host.GlobalData())->aboutImage, nullptr);
  EXPECT_EQ(LogCount(":LoadAboutImage] :: Cannot allocate 'about' image memory.\n"), 1u) << Log();
  EXPECT_EQ(LogCount(":GlobalSetup] :: Error loading about image\n"), 1u);
  EXPECT_EQ(host.LiveHandleCount(), 1u);  // the global data only

  // The about control keeps its size without the picture.
  ASSERT_EQ(host.ParamsSetup(), PF_Err_NONE);
  EXPECT_EQ(host.Params()[0].def.ui_width, 250);
  EXPECT_EQ(host.Params()[0].def.ui_height, 90);
  EXPECT_EQ(host.GlobalSetdown(), PF_Err_NONE);
  EXPECT_EQ(host.LiveHandleCount(), 0u);
}

TEST_F(EffectFront, AboutTextOnAfterEffectsOnly) {
  EXPECT_EQ(NewHost().About(), PF_Err_NONE);
  EXPECT_EQ(host_->LastCommand(PF_Cmd_ABOUT)->return_msg, "Tremor Distiller, v1.0\rTremor Distiller");
  EXPECT_EQ(NewHost(Premiere()).About(), PF_Err_NONE);
  EXPECT_EQ(host_->LastCommand(PF_Cmd_ABOUT)->return_msg, "");
}

// ---- Parameter registration ----

TEST_F(EffectFront, ParamsSetupAddsTheTableInOrder) {
  AeHost& host = NewHost();
  ASSERT_EQ(host.GlobalSetup(), PF_Err_NONE);
  ASSERT_EQ(host.ParamsSetup(), PF_Err_NONE);
  EXPECT_EQ(host.LastCommand(PF_Cmd_PARAMS_SETUP)->num_params, 11);
  ASSERT_TRUE(host.CustomUI());
  EXPECT_EQ(host.CustomUI()->events, 7);
  EXPECT_EQ(host.CustomUI()->comp_ui_width, 0);

  const std::vector<aehost::ParamInfo> params = host.Params();
  std::vector<A_long> ids;
  for (const auto& p : params) {
    ids.push_back(p.def.uu.id);
    EXPECT_EQ(p.requestedIndex, -1);
  }
  ASSERT_EQ(ids, (std::vector<A_long>{1, 5, 6, 12, 19, 20, 22, 21, 24, 23}));

  const PF_ParamDef& about = params[0].def;
  EXPECT_EQ(about.param_type, PF_Param_NO_DATA);
  EXPECT_STREQ(about.name, "About");
  EXPECT_EQ(about.ui_flags, PF_PUI_CONTROL | PF_PUI_DONT_ERASE_CONTROL);
  EXPECT_EQ(about.ui_width, 250);
  EXPECT_EQ(about.ui_height, 90);

  const PF_FloatSliderDef& f = params[1].def.u.fs_d;
  EXPECT_EQ(params[1].def.param_type, PF_Param_FLOAT_SLIDER);
  EXPECT_EQ(params[1].def.ui_flags | f.display_flags | f.precision, 0);
  EXPECT_EQ((std::vector<double>{f.value, f.dephault, f.valid_min, f.slider_min, f.valid_max, f.slider_max}),
            (std::vector<double>{10, 10, 3, 3, 50, 50}));
  EXPECT_EQ(f.curve_tolerance, 0.05f);

  const PF_ParamDef& fade = params[3].def;
  EXPECT_STREQ(fade.name, "Frames Fade");
  EXPECT_EQ(fade.ui_flags, 0);  // the row's 1 is display_flags, not ui_flags
  EXPECT_EQ(fade.u.fs_d.display_flags, PF_ValueDisplayFlag_PERCENT);
  EXPECT_EQ(fade.u.fs_d.precision, 2);

  EXPECT_EQ(params[9].def.param_type, PF_Param_POPUP);
  EXPECT_EQ(*params[9].names, "Motion|Source|Luma");
  const PF_PopupDef& output = params[9].def.u.pd;
  EXPECT_EQ((std::vector<A_long>{output.num_choices, output.value, output.dephault}), (std::vector<A_long>{3, 1, 1}));
  EXPECT_EQ(*params[4].names, "Add|Screen");
  EXPECT_EQ(params[5].def.u.pd.num_choices, 2);

  EXPECT_EQ(params[6].def.param_type, PF_Param_CHECKBOX);
  EXPECT_STREQ(params[6].def.name, "Motion Amplification");
  EXPECT_EQ(*params[6].names + std::to_string(params[6].def.u.bd.value), "0");  // no text, off
}

TEST_F(EffectFront, RegistrationFailures) {
  // A refused custom UI is reported at the end; the rows still go in.
  NewHost().FailOperation("register_ui", PF_Err_INVALID_CALLBACK);
  ASSERT_EQ(host_->GlobalSetup(), PF_Err_NONE);
  EXPECT_EQ(host_->ParamsSetup(), PF_Err_INVALID_CALLBACK);
  EXPECT_EQ(host_->Params().size(), 10u);
  EXPECT_EQ(host_->LastCommand(PF_Cmd_PARAMS_SETUP)->num_params, 11);

  // A refused parameter stops registration at once.
  NewHost().FailOperation("add_param", PF_Err_OUT_OF_MEMORY, 3);
  ASSERT_EQ(host_->GlobalSetup(), PF_Err_NONE);
  EXPECT_EQ(host_->ParamsSetup(), PF_Err_OUT_OF_MEMORY);
  EXPECT_EQ(host_->Params().size(), 2u);
  EXPECT_EQ(host_->LastCommand(PF_Cmd_PARAMS_SETUP)->num_params, 0);
  EXPECT_EQ(LogCount(":EffectMain] :: PF_Cmd_PARAMS_SETUP. Code: PF_Err_OUT_OF_MEMORY (4)\n"), 1u) << Log();
}

// ---- Facts for hosts that ask by call ----

TEST_F(EffectFront, PluginDataEntryNamesTheEffectInOneCall) {
  const aehost::PluginData& data = NewHost().PluginDataRecord();
  EXPECT_EQ(data.calls, 1);
  EXPECT_EQ(data.name, "Tremor Distiller");
  EXPECT_EQ(data.matchName, "HLTRDI");
  EXPECT_EQ(data.category, "Harbour Lantern Lab");
  EXPECT_EQ(data.entryPoint, "EffectMain");
  EXPECT_EQ(data.kind, 0x65464B54);
  EXPECT_EQ(data.apiMajor, 13);
  EXPECT_EQ(data.apiMinor, 28);
  EXPECT_EQ(data.reserved, 8);
}

TEST(ModuleResources, FoundOnlyInTheModuleThatHoldsThem) {
  HMODULE module = nullptr;
  ASSERT_TRUE(GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, reinterpret_cast<LPCSTR>(kAboutImagePng),
                                 &module));
  const HRSRC found = FindResourceA(module, MAKEINTRESOURCEA(254), MAKEINTRESOURCEA(255));
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(SizeofResource(module, found), kAboutImagePng_size);
  EXPECT_EQ(LockResource(LoadResource(module, found)), static_cast<const void*>(kAboutImagePng));
  EXPECT_EQ(FindResourceA(module, MAKEINTRESOURCEA(255), MAKEINTRESOURCEA(254)), nullptr);  // name, type swapped

  // Another loaded object (the C library, which holds stderr) does not have it.
  HMODULE libc = nullptr;
  ASSERT_TRUE(GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, reinterpret_cast<LPCSTR>(stderr),
                                 &libc));
  EXPECT_NE(libc, module);
  EXPECT_EQ(FindResourceA(libc, MAKEINTRESOURCEA(254), MAKEINTRESOURCEA(255)), nullptr);
  EXPECT_FALSE(GetModuleHandleExA(0, nullptr, &module));
  EXPECT_EQ(module, nullptr);
}

}  // namespace
