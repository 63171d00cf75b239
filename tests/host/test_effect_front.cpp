// The effect's front door through the built module in the stand-in host:
// command dispatch and its log lines, global set-up and set-down, the about
// picture and text, parameter registration and the facts hosts ask for.

#include <stdexcept>
#include <vector>

#include "GpuTestSupport.h"
#include "ModuleHostTest.h"
#include "TremorDistiller.h"
#include "TremorDistiller_Parameters.h"
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

TEST_F(EffectFront, FailedCommandsLeaveOneLineAndTheirCode) {
  // A returned code: the command and the code by name.
  NewHost().NullOperation("host_new_handle", 1);
  EXPECT_EQ(host_->GlobalSetup(), PF_Err_INTERNAL_STRUCT_DAMAGED);
  EXPECT_EQ(LogCount(":GlobalSetup] :: Global Data Handle memory allocation failed\n"), 1u);
  EXPECT_EQ(LogCount("HLL :: ERROR [TremorDistiller.cpp:"), 2u) << Log();
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
  EXPECT_EQ(LogCount(":EffectMain] :: Try Catch Exception at event PF_Cmd_PARAMS_SETUP. Error is Parameter with given"
                     " Disk ID not found\n"),
            1u);
  host_->Options().beforeCommand = [](PF_Cmd, PF_InData& in, PF_OutData&) {
    in.inter.register_ui = [](PF_ProgPtr, PF_CustomUIInfo*) -> PF_Err { throw 3.5; };
  };
  EXPECT_EQ(host_->ParamsSetup(), PF_Err_INTERNAL_STRUCT_DAMAGED);
  EXPECT_EQ(LogCount(":EffectMain] :: Try Catch Uknown Exception at event PF_Cmd_PARAMS_SETUP\n"), 1u);
  int held = 0;
  for (const auto& call : host_->CallLog())
    held += (call.op == "AcquireSuite" && !call.result) - (call.op == "ReleaseSuite");
  EXPECT_EQ(held, 0);

  // A refused parameter stops registration at once.
  NewHost().FailOperation("add_param", PF_Err_OUT_OF_MEMORY, 3);
  ASSERT_EQ(host_->GlobalSetup(), PF_Err_NONE);
  EXPECT_EQ(host_->ParamsSetup(), PF_Err_OUT_OF_MEMORY);
  EXPECT_EQ(host_->Params().size(), 2u);
  EXPECT_EQ(host_->LastCommand(PF_Cmd_PARAMS_SETUP)->num_params, 0);
  EXPECT_EQ(LogCount(":EffectMain] :: PF_Cmd_PARAMS_SETUP. Code: PF_Err_OUT_OF_MEMORY (4)\n"), 1u) << Log();
}

TEST_F(EffectFront, GlobalSetupKeepsTheHostsFlagsAndSaysWhichHost) {
  const struct {
    aehost::HostOptions options;
    const char* line;
    std::vector<PF_PixelFormat> formats;
    const char* about;
  } hosts[] = {
      {{}, "HLL :: Tremor Distiller, v1.0.0 in AE13.28\n", {}, "Tremor Distiller, v1.0\rTremor Distiller"},
      {Premiere(), "HLL :: Tremor Distiller, v1.0.0 in Premiere13.4\n", {0x62675241}, ""},  // "ARgb"
  };
  for (const auto& h : hosts) {
    SCOPED_TRACE(h.line);
    AeHost& host = NewHost(h.options);
    host.Options().beforeCommand = [](PF_Cmd, PF_InData&, PF_OutData& out) {
      out.out_flags = PF_OutFlag_WIDE_TIME_INPUT;  // the host's own bit stays
      out.out_flags2 = 0x7;                        // replaced, not or-ed
    };
    ASSERT_EQ(host.GlobalSetup(), PF_Err_NONE);
    EXPECT_EQ(host.LastCommand(PF_Cmd_GLOBAL_SETUP)->my_version, 0x00080001u);
    EXPECT_EQ(host.LastCommand(PF_Cmd_GLOBAL_SETUP)->out_flags, PF_OutFlag_WIDE_TIME_INPUT | 0x06008404);
    EXPECT_EQ(host.LastCommand(PF_Cmd_GLOBAL_SETUP)->out_flags2, 0x0B001408);
    EXPECT_EQ(host.SupportedPixelFormats(), h.formats);
    EXPECT_EQ(LogCount("HLL :: Welcome!\n"), 1u);
    EXPECT_EQ(LogCount(h.line), 1u) << Log();
    EXPECT_EQ(host.About(), PF_Err_NONE);
    EXPECT_EQ(host.LastCommand(PF_Cmd_ABOUT)->return_msg, h.about);
  }
}

// Without the picture (its memory refused) the user is told, set-up goes on
// and the control keeps its size; either way set-down frees what set-up made.
TEST_F(EffectFront, AboutPictureIsDecodedToBGRAOrToldMissingAndFreedAtSetdown) {
  for (const bool refused : {false, true}) {
    SCOPED_TRACE(refused ? "memory refused" : "decoded");
    AeHost& host = NewHost();
    if (refused) host.NullOperation("host_new_handle", 2);  // the picture's pixels
    ASSERT_EQ(host.GlobalSetup(), PF_Err_NONE);
    const auto setup = host.LastCommand(PF_Cmd_GLOBAL_SETUP);
    EXPECT_EQ(setup->return_msg, refused ? "Cannot Load Image" : "");
    EXPECT_EQ((setup->out_flags & PF_OutFlag_DISPLAY_ERROR_MESSAGE) != 0, refused);
    EXPECT_EQ(LogCount(":GlobalSetup] :: Error loading about image\n"), refused ? 1u : 0u) << Log();
    const AboutImage* about = static_cast<const GlobalData*>(*host.GlobalData())->aboutImage;
    ASSERT_EQ(about == nullptr, refused);
    if (about) {
      EXPECT_EQ((std::vector<int>{about->width, about->height, about->channels, about->pixelLayout}),
                (std::vector<int>{250, 70, 4, 3}));
      const auto* bytes = static_cast<const unsigned char*>(*about->pixels);
      auto pixel = [&](int x, int y) {
        return std::vector<int>(bytes + (y * 250 + x) * 4, bytes + (y * 250 + x) * 4 + 4);
      };
      // Colours drawn by scripts/make_about_png.py: background RGB (28, 32, 48)
      // at the top left, title white (245, 245, 240) from (30, 12). Blue first.
      EXPECT_EQ(pixel(0, 0), (std::vector<int>{48, 32, 28, 255}));
      EXPECT_EQ(pixel(30, 12), (std::vector<int>{240, 245, 245, 255}));
    }
    ASSERT_EQ(host.ParamsSetup(), PF_Err_NONE);
    EXPECT_EQ(host.Params()[0].def.ui_width, 250);
    EXPECT_EQ(host.Params()[0].def.ui_height, 90);
    EXPECT_EQ(host.GlobalSetdown(), PF_Err_NONE);
    EXPECT_EQ(host.LiveHandleCount(), 0u);  // pixels and global data both gone
    EXPECT_EQ(LogCount("HLL :: Clean data\n"), 1u);
  }
}

// The binary's own copies, on what the module never gets: resources swapped
// under the picture's loader, where each failing step is logged and refused
// and nothing is left allocated; and a table with a row of a kind that has no
// registration, which is logged and skipped, the rest going in, for 513.
TEST_F(EffectFront, PictureStepsAndUnregistrableRowsAreLoggedAndRefused) {
  AeHost& host = NewHost();
  PF_InData in{};
  in.pica_basicP = const_cast<SPBasicSuite*>(host.BasicSuite());
  LogCapture log;
  auto refused = [&](const std::string& line) {
    AboutImage about{};
    EXPECT_EQ(LoadAboutImage(&in, &about), PF_Err_BAD_CALLBACK_PARAM) << line;
    EXPECT_EQ(log.Count(":LoadAboutImage] :: " + line + "\n"), 1u) << log.All();
  };
  const void* self = kAboutImagePng;  // in this binary, as the loader is
  const int type = kAboutResourceType, name = kAboutResourceName;
  RemoveModuleResource(self, type, name);
  refused("Cannot find 'about' resource.");
  RegisterModuleResource(self, type, name, nullptr, 0);
  refused("Cannot lock 'about' resource.");
  RegisterModuleResource(self, type, name, kAboutImagePng, 8);  // the signature alone
  refused("Cannot load 'about' image.");
  RegisterModuleResource(self, type, name, kAboutImagePng, kAboutImagePng_size);
  host.NullOperation("host_new_handle", 1);
  refused("Cannot allocate 'about' image memory.");
  EXPECT_EQ(host.LiveHandleCount(), 0u);

  static int added;
  PF_OutData out{};
  in.inter.register_ui = [](PF_ProgPtr, PF_CustomUIInfo*) -> PF_Err { return PF_Err_NONE; };
  in.inter.add_param = [](PF_ProgPtr, PF_ParamIndex, PF_ParamDefPtr) -> PF_Err { return ++added, PF_Err_NONE; };
  const ParamTableRows table = {ParamRecord{0, ParamKind::InputLayer}, ParamRecord{7, ParamKind::IntSlider, "Count"},
                                ParamRecord{9, ParamKind::Checkbox, "On", std::nullopt, false}};
  EXPECT_EQ(ParamsSetup(&in, &out, table), PF_Err_INVALID_INDEX);
  EXPECT_EQ(added, 1);
  EXPECT_EQ(out.num_params, 3);
  EXPECT_EQ(log.Count(":ParamsSetup] :: Unimplemented parameter: 6, name: Count, id: 7\n"), 1u) << log.All();
}

// A refused custom UI is reported at the end; the rows still go in.
TEST_F(EffectFront, ParamsSetupAddsTheTableInOrderAndTheHostKeepsTheNames) {
  for (const bool refuseUi : {false, true}) {
    SCOPED_TRACE(refuseUi ? "custom UI refused" : "custom UI taken");
    AeHost& host = NewHost();
    if (refuseUi) host.FailOperation("register_ui", PF_Err_INVALID_CALLBACK);
    ASSERT_EQ(host.GlobalSetup(), PF_Err_NONE);
    EXPECT_EQ(host.ParamsSetup(), refuseUi ? PF_Err_INVALID_CALLBACK : PF_Err_NONE);
    EXPECT_EQ(host.LastCommand(PF_Cmd_PARAMS_SETUP)->num_params, 11);
    EXPECT_EQ(host.CustomUI().value_or(PF_CustomUIInfo{}).events, refuseUi ? 0 : 7);  // kept only when taken
    const std::vector<aehost::ParamInfo> params = host.Params();
    std::vector<A_long> ids;
    for (const auto& p : params) {
      ids.push_back(p.def.uu.id);
      EXPECT_EQ(p.requestedIndex, -1);
    }
    // Projects store values by Disk ID and the row order is the host's index:
    // neither may move. Renders find the input layer at row 0.
    ASSERT_EQ(ids, (std::vector<A_long>{1, 5, 6, 12, 19, 20, 22, 21, 24, 23}));
    EXPECT_EQ(params[0].def.ui_flags, PF_PUI_CONTROL | PF_PUI_DONT_ERASE_CONTROL);
    const PF_ParamDef& fade = params[3].def;
    EXPECT_EQ(fade.ui_flags, 0);  // the row's 1 is display_flags, not ui_flags
    EXPECT_EQ(fade.u.fs_d.display_flags, PF_ValueDisplayFlag_PERCENT);
    EXPECT_EQ(fade.u.fs_d.precision, 2);
    // Popup and checkbox texts outlive the effect's buffers.
    EXPECT_EQ(*params[9].names, "Motion|Source|Luma");
    EXPECT_EQ(params[9].def.u.pd.num_choices, 3);
    EXPECT_EQ(*params[4].names, "Add|Screen");
    EXPECT_EQ(*params[6].names + std::to_string(params[6].def.u.bd.value), "0");  // no text, off
  }
}

}  // namespace
