// The effect's front door, driven through EffectMain with a minimal fake host:
// command dispatch and its log lines, global set-up and set-down, the about
// picture, parameter registration and the entry that hosts call for facts.
#include <gtest/gtest.h>

#include <Windows.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "TremorDistiller.h"
#include "TremorDistiller_Parameters.h"
#include "TremorDistiller_PiPL.h"
#include "TremorDistiller_Resources.h"

extern "C" PF_Err EffectMain(PF_Cmd, PF_InData*, PF_OutData*, PF_ParamDef*[], PF_LayerDef*, void*);
extern "C" PF_Err PluginDataEntryFunction(PF_PluginDataPtr, PF_PluginDataCB, SPBasicSuite*, const char*,
                                          const char*);
extern "C" int NvOptimusEnablementCuda;

namespace {

// ---- The fake host: just the calls these commands make ----

struct AddedParam {
  PF_ParamDef def;
  std::string names;  // the popup buffer lives on the effect's stack
  std::string checkboxText;
};

struct FakeHost {
  std::set<std::string> missingSuites;
  bool failNewHandle = false;
  bool failLock = false;
  std::map<PF_Handle, std::vector<char>> handles;  // live ones
  int acquired = 0, released = 0;

  PF_Err registerResult = PF_Err_NONE;
  std::vector<PF_CustomUIInfo> registered;
  std::vector<AddedParam> added;
  int failAddAt = -1;  // index of the add that fails
  PF_Err addFailure = PF_Err_NONE;
  bool addThrows = false;
  bool registerThrowsOddly = false;
  std::vector<std::string> formatCalls;

  std::vector<std::string> debugLines;
};
FakeHost* gHost = nullptr;

PF_Handle NewHandle(A_u_longlong size) {
  if (gHost->failNewHandle) return nullptr;
  auto* handle = new void*;
  auto& bytes = gHost->handles[handle];
  bytes.assign(size, '\x5A');  // not zeroed, as a host's memory needn't be
  *handle = bytes.data();
  return handle;
}
void* LockHandle(PF_Handle h) { return gHost->failLock ? nullptr : *h; }
void UnlockHandle(PF_Handle) {}
void DisposeHandle(PF_Handle h) {
  gHost->handles.erase(h);
  delete h;
}
A_u_longlong HandleSize(PF_Handle h) { return gHost->handles[h].size(); }

A_long HostSprintf(char* buffer, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int n = std::vsnprintf(buffer, PF_MAX_EFFECT_MSG_LEN + 1, format, args);
  va_end(args);
  return n;
}
char* HostStrcpy(char* dest, const char* src) { return std::strcpy(dest, src); }

PF_Err ClearFormats(PF_ProgPtr) {
  gHost->formatCalls.push_back("clear");
  return PF_Err_NONE;
}
PF_Err AddFormat(PF_ProgPtr, PF_PixelFormat format) {
  gHost->formatCalls.push_back("add " + std::to_string(format));
  return PF_Err_NONE;
}

const PF_HandleSuite2 kHandleSuite = {NewHandle, LockHandle, UnlockHandle, DisposeHandle, HandleSize};
const PF_PixelFormatSuite1 kFormatSuite = {ClearFormats, AddFormat, nullptr};
const PF_ANSICallbacksSuite1 kAnsiSuite = {HostSprintf};

SPErr AcquireSuite(const char* name, int32_t, const void** suite) {
  if (gHost->missingSuites.count(name)) return 1;
  const std::string n = name;
  if (n == kPFHandleSuite) *suite = &kHandleSuite;
  else if (n == kPFPixelFormatSuite) *suite = &kFormatSuite;
  else if (n == kPFANSISuite) *suite = &kAnsiSuite;
  else return 1;
  ++gHost->acquired;
  return kSPNoError;
}
SPErr ReleaseSuite(const char*, int32_t) {
  ++gHost->released;
  return kSPNoError;
}

PF_Err RegisterUI(PF_ProgPtr, PF_CustomUIInfo* info) {
  if (gHost->registerThrowsOddly) throw 3.5;
  gHost->registered.push_back(*info);
  return gHost->registerResult;
}
PF_Err AddParam(PF_ProgPtr, PF_ParamIndex index, PF_ParamDefPtr def) {
  EXPECT_EQ(index, -1);
  if (gHost->addThrows) throw std::runtime_error("Parameter with given Disk ID not found");
  AddedParam copy{*def, "", ""};
  if (def->param_type == PF_Param_POPUP) copy.names = def->u.pd.u.namesptr;
  if (def->param_type == PF_Param_CHECKBOX) copy.checkboxText = def->u.bd.u.nameptr;
  gHost->added.push_back(copy);
  return static_cast<int>(gHost->added.size()) - 1 == gHost->failAddAt ? gHost->addFailure : PF_Err_NONE;
}

void CollectDebug(const char* text, void* user) { static_cast<FakeHost*>(user)->debugLines.push_back(text); }

class EffectFront : public ::testing::Test {
 protected:
  void SetUp() override {
    gHost = &host;
    const std::filesystem::path tmp = std::filesystem::path(TD_TEST_TMP_DIR) / "effect_front";
    std::filesystem::create_directories(tmp);
    setenv("TMPDIR", tmp.c_str(), 1);
    SetDebugOutputSink(CollectDebug, &host);

    basic = SPBasicSuite{AcquireSuite, ReleaseSuite};
    utils.ansi = PF_ANSICallbacks{HostSprintf, HostStrcpy};
    in = PF_InData{};
    in.inter.add_param = AddParam;
    in.inter.register_ui = RegisterUI;
    in.utils = &utils;
    in.effect_ref = this;
    in.version = PF_SpecVersion{13, 28};
    in.appl_id = PF_FourCharCode("FXTC");  // After Effects
    in.pica_basicP = &basic;
    out = PF_OutData{};
  }
  void TearDown() override {
    SetDebugOutputSink(nullptr, nullptr);
    // Tests that take the picture away put it back for the next one.
    RegisterModuleResource(kAboutResourceType, kAboutResourceName, kAboutImagePng, kAboutImagePng_size);
    for (auto& entry : host.handles) delete entry.first;
    gHost = nullptr;
  }

  PF_Err Send(PF_Cmd cmd, PF_ParamDef** params = nullptr) { return EffectMain(cmd, &in, &out, params, nullptr, nullptr); }

  // Global set-up as the host does it: the handle comes back in in_data.
  PF_Err SetUpGlobals() {
    const PF_Err err = Send(PF_Cmd_GLOBAL_SETUP);
    in.global_data = out.global_data;
    return err;
  }
  const GlobalData* Globals() const { return static_cast<const GlobalData*>(*in.global_data); }

  // Debug-channel records (each ends in a line feed) holding `text`.
  std::vector<std::string> LinesWith(const std::string& text) const {
    std::vector<std::string> lines;
    for (const std::string& line : host.debugLines)
      if (line.find(text) != std::string::npos) lines.push_back(line);
    return lines;
  }
  std::vector<std::string> DispatcherLines() const { return LinesWith(":EffectMain] :: "); }

  FakeHost host;
  SPBasicSuite basic{};
  PF_UtilCallbacks utils{};
  PF_InData in{};
  PF_OutData out{};
};

// ---- Dispatch ----

TEST_F(EffectFront, CommandsWithoutWorkAnswerZeroSilently) {
  for (PF_Cmd cmd : std::vector<PF_Cmd>{PF_Cmd_SEQUENCE_SETUP, PF_Cmd_FRAME_SETUP, PF_Cmd_USER_CHANGED_PARAM, PF_Cmd_UPDATE_PARAMS_UI,
                     PF_Cmd_GET_FLATTENED_SEQUENCE_DATA, PF_Cmd_NUM_CMDS, 1000, -1, PF_Cmd_EVENT}) {
    EXPECT_EQ(Send(cmd), PF_Err_NONE) << cmd;
  }
  EXPECT_TRUE(host.debugLines.empty());
  EXPECT_EQ(host.acquired, 0);
  EXPECT_EQ(out.out_flags, 0);
  EXPECT_EQ(out.return_msg[0], '\0');
}

TEST_F(EffectFront, ReturnedErrorGivesOneLineAndReachesTheHost) {
  host.failNewHandle = true;
  EXPECT_EQ(Send(PF_Cmd_GLOBAL_SETUP), PF_Err_INTERNAL_STRUCT_DAMAGED);
  EXPECT_EQ(LinesWith(":GlobalSetup] :: Global Data Handle memory allocation failed").size(), 1u);
  const auto lines = DispatcherLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].rfind("HLL :: ERROR [TremorDistiller.cpp:", 0), 0u) << lines[0];
  EXPECT_NE(lines[0].find("] :: PF_Cmd_GLOBAL_SETUP. Code: PF_Err_INTERNAL_STRUCT_DAMAGED (512)\n"),
            std::string::npos)
      << lines[0];
}

TEST_F(EffectFront, ThrownHostCodesPassThroughUnchanged) {
  host.missingSuites = {kPFHandleSuite};
  EXPECT_EQ(Send(PF_Cmd_PARAMS_SETUP), PF_Err_BAD_CALLBACK_PARAM);
  auto lines = DispatcherLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("] :: Try Catch Exception code at event PF_Cmd_PARAMS_SETUP is "
                          "PF_Err_BAD_CALLBACK_PARAM (516)\n"),
            std::string::npos)
      << lines[0];
  EXPECT_TRUE(host.added.empty());

  // A scoped suite tells the user and throws 13, which has no name.
  host.debugLines.clear();
  host.missingSuites = {kPFPixelFormatSuite};
  in.appl_id = PF_APPL_ID_PREMIERE;
  EXPECT_EQ(SetUpGlobals(), 13);
  lines = DispatcherLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("Try Catch Exception code at event PF_Cmd_GLOBAL_SETUP is PF_Err?UNKNOWN (13)\n"),
            std::string::npos)
      << lines[0];
  EXPECT_STREQ(out.return_msg, "Not able to acquire AEFX Suite.");
  EXPECT_TRUE(out.out_flags & PF_OutFlag_DISPLAY_ERROR_MESSAGE);
  EXPECT_EQ(Send(PF_Cmd_GLOBAL_SETDOWN), PF_Err_NONE);
  EXPECT_TRUE(host.handles.empty());
}

TEST_F(EffectFront, OtherExceptionsBecomeStructDamaged) {
  ASSERT_EQ(SetUpGlobals(), PF_Err_NONE);
  host.debugLines.clear();
  host.addThrows = true;
  EXPECT_EQ(Send(PF_Cmd_PARAMS_SETUP), PF_Err_INTERNAL_STRUCT_DAMAGED);
  auto lines = DispatcherLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("] :: Try Catch Exception at event PF_Cmd_PARAMS_SETUP. Error is "
                          "Parameter with given Disk ID not found\n"),
            std::string::npos)
      << lines[0];

  host.debugLines.clear();
  host.registerThrowsOddly = true;
  EXPECT_EQ(Send(PF_Cmd_PARAMS_SETUP), PF_Err_INTERNAL_STRUCT_DAMAGED);
  lines = DispatcherLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("] :: Try Catch Uknown Exception at event PF_Cmd_PARAMS_SETUP\n"), std::string::npos)
      << lines[0];
  EXPECT_EQ(host.acquired, host.released);  // suites go back on the way out of a throw
}

// ---- Global lifecycle ----

TEST_F(EffectFront, GlobalSetupDeclaresTheEffect) {
  out.out_flags = PF_OutFlag_WIDE_TIME_INPUT;  // the host's own bit stays
  out.out_flags2 = 0x7;                        // replaced, not or-ed
  ASSERT_EQ(SetUpGlobals(), PF_Err_NONE);
  EXPECT_EQ(out.my_version, 0x00080001u);
  EXPECT_EQ(out.out_flags, PF_OutFlag_WIDE_TIME_INPUT | 0x06008404);
  EXPECT_EQ(out.out_flags2, 0x0B001408);
  EXPECT_TRUE(host.formatCalls.empty());  // After Effects: no pixel formats
  EXPECT_EQ(out.return_msg[0], '\0');

  // The property list the host reads before loading says the same.
  const std::vector<uint8_t> pipl = BuildPiPL();
  auto at = [&](size_t i) { return pipl[i] | pipl[i + 1] << 8 | pipl[i + 2] << 16 | pipl[i + 3] << 24; };
  EXPECT_EQ(static_cast<A_u_long>(at(186)), out.my_version);   // eVER
  EXPECT_EQ(at(226), out.out_flags & ~PF_OutFlag_WIDE_TIME_INPUT);  // eGLO
  EXPECT_EQ(at(246), out.out_flags2);                            // eGL2

  EXPECT_EQ(LinesWith("HLL :: Welcome!\n").size(), 1u);
  EXPECT_EQ(LinesWith("HLL :: Tremor Distiller, v1.0.0 in AE13.28\n").size(), 1u);
  EXPECT_TRUE(DispatcherLines().empty());
  EXPECT_EQ(Send(PF_Cmd_GLOBAL_SETDOWN), PF_Err_NONE);
}

TEST_F(EffectFront, PremiereGetsItsVersionLineAndOneFloatFormat) {
  in.appl_id = PF_APPL_ID_PREMIERE;
  in.version = PF_SpecVersion{13, 4};
  ASSERT_EQ(SetUpGlobals(), PF_Err_NONE);
  EXPECT_EQ(LinesWith("Tremor Distiller, v1.0.0 in Premiere13.4\n").size(), 1u);
  EXPECT_EQ(host.formatCalls, (std::vector<std::string>{"clear", "add " + std::to_string(0x62675241)}));
  EXPECT_EQ(host.acquired, host.released);
  EXPECT_EQ(Send(PF_Cmd_GLOBAL_SETDOWN), PF_Err_NONE);
}

TEST_F(EffectFront, AboutPictureIsDecodedToBGRA) {
  ASSERT_EQ(SetUpGlobals(), PF_Err_NONE);
  const AboutImage* about = Globals()->aboutImage;
  ASSERT_NE(about, nullptr);
  EXPECT_EQ(about->width, 250);
  EXPECT_EQ(about->height, 70);
  EXPECT_EQ(about->channels, 4);
  EXPECT_EQ(about->pixelLayout, 3);
  ASSERT_TRUE(host.handles.count(about->pixels));
  const std::vector<char>& bytes = host.handles[about->pixels];
  ASSERT_EQ(bytes.size(), 250u * 70u * 4u);
  auto pixel = [&](int x, int y) {
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data()) + (y * 250 + x) * 4;
    return std::vector<int>{p[0], p[1], p[2], p[3]};
  };
  // Colours drawn by scripts/make_about_png.py: background RGB (28, 32, 48)
  // at the top left, title white (245, 245, 240) from (30, 12). Blue first.
  EXPECT_EQ(pixel(0, 0), (std::vector<int>{48, 32, 28, 255}));
  EXPECT_EQ(pixel(30, 12), (std::vector<int>{240, 245, 245, 255}));
  for (size_t i = 3; i < bytes.size(); i += 4) ASSERT_EQ(static_cast<unsigned char>(bytes[i]), 255) << i;

  EXPECT_EQ(Send(PF_Cmd_GLOBAL_SETDOWN), PF_Err_NONE);
  EXPECT_TRUE(host.handles.empty());  // pixels and global data both gone
  EXPECT_EQ(LinesWith("HLL :: Clean data\n").size(), 1u);
}

TEST_F(EffectFront, MissingPictureIsToldButDoesNotFailSetup) {
  UnregisterModuleResource(kAboutResourceType, kAboutResourceName);
  ASSERT_EQ(SetUpGlobals(), PF_Err_NONE);
  EXPECT_STREQ(out.return_msg, "Cannot Load Image");
  EXPECT_TRUE(out.out_flags & PF_OutFlag_DISPLAY_ERROR_MESSAGE);
  EXPECT_EQ(Globals()->aboutImage, nullptr);
  EXPECT_EQ(LinesWith(":LoadAboutImage] :: Cannot find 'about' resource.\n").size(), 1u);
  EXPECT_EQ(LinesWith(":GlobalSetup] :: Error loading about image\n").size(), 1u);
  EXPECT_EQ(host.handles.size(), 1u);  // the global data only
  EXPECT_EQ(Send(PF_Cmd_GLOBAL_SETDOWN), PF_Err_NONE);
  EXPECT_TRUE(host.handles.empty());
}

TEST_F(EffectFront, UndecodablePictureIsRefused) {
  static const unsigned char junk[] = {0x89, 'P', 'N', 'G', 1, 2, 3, 4};
  RegisterModuleResource(kAboutResourceType, kAboutResourceName, junk, sizeof(junk));
  ASSERT_EQ(SetUpGlobals(), PF_Err_NONE);
  EXPECT_EQ(Globals()->aboutImage, nullptr);
  EXPECT_EQ(LinesWith(":LoadAboutImage] :: Cannot load 'about' image.\n").size(), 1u);
  EXPECT_EQ(Send(PF_Cmd_GLOBAL_SETDOWN), PF_Err_NONE);
  EXPECT_TRUE(host.handles.empty());
}

TEST_F(EffectFront, GlobalDataThatCannotBeLockedFails) {
  host.failLock = true;
  EXPECT_EQ(Send(PF_Cmd_GLOBAL_SETUP), PF_Err_INTERNAL_STRUCT_DAMAGED);
  EXPECT_EQ(LinesWith(":GlobalSetup] :: Global Data memory allocation failed\n").size(), 1u);
  EXPECT_NE(out.global_data, nullptr);  // left for set-down to dispose
}

TEST_F(EffectFront, SetdownWithoutGlobalsOnlyLogs) {
  EXPECT_EQ(Send(PF_Cmd_GLOBAL_SETDOWN), PF_Err_NONE);
  EXPECT_EQ(LinesWith("HLL :: Clean data\n").size(), 1u);
  EXPECT_EQ(host.acquired, 0);
}

TEST_F(EffectFront, AboutTextOnAfterEffectsOnly) {
  EXPECT_EQ(Send(PF_Cmd_ABOUT), PF_Err_NONE);
  EXPECT_STREQ(out.return_msg, "Tremor Distiller, v1.0\rTremor Distiller");

  std::strcpy(out.return_msg, "kept");
  in.appl_id = PF_APPL_ID_PREMIERE;
  EXPECT_EQ(Send(PF_Cmd_ABOUT), PF_Err_NONE);
  EXPECT_STREQ(out.return_msg, "kept");
}

// ---- Parameter registration ----

TEST_F(EffectFront, ParamsSetupRegistersTheTableInOrder) {
  ASSERT_EQ(SetUpGlobals(), PF_Err_NONE);
  ASSERT_EQ(Send(PF_Cmd_PARAMS_SETUP), PF_Err_NONE);
  EXPECT_EQ(out.num_params, 11);
  ASSERT_EQ(host.registered.size(), 1u);
  EXPECT_EQ(host.registered[0].events, 7);
  EXPECT_EQ(host.registered[0].comp_ui_width, 0);

  std::vector<A_long> ids;
  for (const AddedParam& p : host.added) ids.push_back(p.def.uu.id);
  EXPECT_EQ(ids, (std::vector<A_long>{1, 5, 6, 12, 19, 20, 22, 21, 24, 23}));
  ASSERT_EQ(host.added.size(), 10u);

  const PF_ParamDef& about = host.added[0].def;
  EXPECT_EQ(about.param_type, PF_Param_NO_DATA);
  EXPECT_STREQ(about.name, "About");
  EXPECT_EQ(about.ui_flags, PF_PUI_CONTROL | PF_PUI_DONT_ERASE_CONTROL);
  EXPECT_EQ(about.ui_width, 250);
  EXPECT_EQ(about.ui_height, 90);

  const PF_ParamDef& frames = host.added[1].def;
  EXPECT_EQ(frames.param_type, PF_Param_FLOAT_SLIDER);
  EXPECT_EQ(frames.ui_flags, 0);
  EXPECT_EQ(frames.u.fs_d.display_flags, 0);
  EXPECT_EQ(frames.u.fs_d.value, 10.0);
  EXPECT_EQ(frames.u.fs_d.dephault, 10.0f);
  EXPECT_EQ(frames.u.fs_d.valid_min, 3.0f);
  EXPECT_EQ(frames.u.fs_d.slider_min, 3.0f);
  EXPECT_EQ(frames.u.fs_d.valid_max, 50.0f);
  EXPECT_EQ(frames.u.fs_d.slider_max, 50.0f);
  EXPECT_EQ(frames.u.fs_d.precision, 0);
  EXPECT_EQ(frames.u.fs_d.curve_tolerance, 0.05f);

  const PF_ParamDef& fade = host.added[3].def;
  EXPECT_STREQ(fade.name, "Frames Fade");
  EXPECT_EQ(fade.ui_flags, 0);  // the row's 1 is display_flags, not ui_flags
  EXPECT_EQ(fade.u.fs_d.display_flags, PF_ValueDisplayFlag_PERCENT);
  EXPECT_EQ(fade.u.fs_d.precision, 2);

  const AddedParam& output = host.added[9];
  EXPECT_EQ(output.def.param_type, PF_Param_POPUP);
  EXPECT_EQ(output.names, "Motion|Source|Luma");
  EXPECT_EQ(output.def.u.pd.num_choices, 3);
  EXPECT_EQ(output.def.u.pd.value, 1);
  EXPECT_EQ(output.def.u.pd.dephault, 1);
  EXPECT_EQ(host.added[4].names, "Add|Screen");
  EXPECT_EQ(host.added[5].def.u.pd.num_choices, 2);

  const AddedParam& motion = host.added[6];
  EXPECT_EQ(motion.def.param_type, PF_Param_CHECKBOX);
  EXPECT_STREQ(motion.def.name, "Motion Amplification");
  EXPECT_EQ(motion.checkboxText, "");
  EXPECT_EQ(motion.def.u.bd.value, 0);
  EXPECT_EQ(host.acquired, host.released);
  EXPECT_EQ(Send(PF_Cmd_GLOBAL_SETDOWN), PF_Err_NONE);
}

TEST_F(EffectFront, AboutControlKeepsItsSizeWithoutThePicture) {
  UnregisterModuleResource(kAboutResourceType, kAboutResourceName);
  ASSERT_EQ(SetUpGlobals(), PF_Err_NONE);
  ASSERT_EQ(Send(PF_Cmd_PARAMS_SETUP), PF_Err_NONE);
  ASSERT_FALSE(host.added.empty());
  EXPECT_EQ(host.added[0].def.ui_width, 250);
  EXPECT_EQ(host.added[0].def.ui_height, 90);
  EXPECT_EQ(Send(PF_Cmd_GLOBAL_SETDOWN), PF_Err_NONE);
}

TEST_F(EffectFront, RegistrationFailures) {
  ASSERT_EQ(SetUpGlobals(), PF_Err_NONE);
  // A refused custom UI is reported at the end; the rows still go in.
  host.registerResult = PF_Err_INVALID_CALLBACK;
  EXPECT_EQ(Send(PF_Cmd_PARAMS_SETUP), PF_Err_INVALID_CALLBACK);
  EXPECT_EQ(host.added.size(), 10u);
  EXPECT_EQ(out.num_params, 11);

  // A refused parameter stops registration at once.
  host.registerResult = PF_Err_NONE;
  host.added.clear();
  out.num_params = 0;
  host.failAddAt = 2;
  host.addFailure = PF_Err_OUT_OF_MEMORY;
  EXPECT_EQ(Send(PF_Cmd_PARAMS_SETUP), PF_Err_OUT_OF_MEMORY);
  EXPECT_EQ(host.added.size(), 3u);
  EXPECT_EQ(out.num_params, 0);
  EXPECT_EQ(DispatcherLines().size(), 2u);
  EXPECT_EQ(Send(PF_Cmd_GLOBAL_SETDOWN), PF_Err_NONE);
}

TEST_F(EffectFront, RegistrationOfOtherTables) {
  ASSERT_EQ(SetUpGlobals(), PF_Err_NONE);

  const ParamTableRows inputsOnly = {ParamRecord{0, ParamKind::InputLayer}, ParamRecord{3, ParamKind::InputLayer}};
  EXPECT_EQ(ParamsSetup(&in, &out, inputsOnly), PF_Err_NONE);
  EXPECT_TRUE(host.added.empty());
  EXPECT_EQ(out.num_params, 2);

  ParamRecord longName{40, ParamKind::Checkbox, std::string(40, 'x')};
  longName.defaultValue = true;
  ParamRecord angle{41, ParamKind::Angle, "Angle"};
  angle.defaultValue = 90.5f;
  const ParamTableRows mixed = {ParamRecord{42, ParamKind::IntSlider, "Steps"},
                                longName,
                                angle,
                                ParamRecord{43, ParamKind::GroupStart, "Group"},
                                ParamRecord{44, ParamKind::GroupEnd}};
  EXPECT_EQ(ParamsSetup(&in, &out, mixed), PF_Err_INVALID_INDEX);
  const auto unimplemented = LinesWith(":ParamsSetup] :: Unimplemented parameter: 6, name: Steps, id: 42\n");
  EXPECT_EQ(unimplemented.size(), 1u);
  ASSERT_EQ(host.added.size(), 4u);  // the row without a path is passed over, the rest go in
  EXPECT_EQ(std::string(host.added[0].def.name), std::string(31, 'x'));
  EXPECT_EQ(host.added[0].def.u.bd.value, 1);
  EXPECT_EQ(host.added[0].def.u.bd.dephault, 1);
  EXPECT_EQ(host.added[1].def.param_type, PF_Param_ANGLE);
  EXPECT_EQ(host.added[1].def.u.ad.value, 90 * 65536 + 32768);
  EXPECT_EQ(host.added[2].def.param_type, PF_Param_GROUP_START);
  EXPECT_EQ(host.added[3].def.param_type, PF_Param_GROUP_END);
  EXPECT_EQ(out.num_params, 5);
  EXPECT_EQ(Send(PF_Cmd_GLOBAL_SETDOWN), PF_Err_NONE);
}

// ---- Facts for hosts that ask by call ----

struct EntryCall {
  PF_PluginDataPtr ptr;
  std::string name, matchName, category, entry;
  A_long kind, major, minor, reserved;
};
EntryCall gEntryCall;
int gEntryCalls = 0;

PF_Err RecordEntry(PF_PluginDataPtr ptr, const A_u_char* name, const A_u_char* match, const A_u_char* category,
                   const A_u_char* entry, A_long kind, A_long major, A_long minor, A_long reserved) {
  auto text = [](const A_u_char* s) { return std::string(reinterpret_cast<const char*>(s)); };
  gEntryCall = EntryCall{ptr, text(name), text(match), text(category), text(entry), kind, major, minor, reserved};
  ++gEntryCalls;
  return 77;
}

TEST(EffectEntry, PluginDataEntryMakesOneCallAndReturnsItsResult) {
  int token = 0;
  gEntryCalls = 0;
  EXPECT_EQ(PluginDataEntryFunction(&token, RecordEntry, nullptr, "host", "1"), 77);
  EXPECT_EQ(gEntryCalls, 1);
  EXPECT_EQ(gEntryCall.ptr, &token);
  EXPECT_EQ(gEntryCall.name, "Tremor Distiller");
  EXPECT_EQ(gEntryCall.matchName, "HLTRDI");
  EXPECT_EQ(gEntryCall.category, "Harbour Lantern Lab");
  EXPECT_EQ(gEntryCall.entry, "EffectMain");
  EXPECT_EQ(gEntryCall.kind, 0x65464B54);
  EXPECT_EQ(gEntryCall.major, 13);
  EXPECT_EQ(gEntryCall.minor, 28);
  EXPECT_EQ(gEntryCall.reserved, 8);
  EXPECT_EQ(NvOptimusEnablementCuda, 1);
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
