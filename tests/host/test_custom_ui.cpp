// The effect's custom UI drawn by the stand-in host's Drawbot: what each panel
// shows in each GPU state, call by call and pixel by pixel, the events it
// leaves alone, and how its failures end. Most cases send the events to the
// effect's objects linked in here, whose GPU status a test can set; the built
// module answers the same commands.

#include <d3d9.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "GpuTestSupport.h"
#include "ModuleHostTest.h"
#include "TremorDistiller.h"
#include "TremorDistiller_GPURecords.h"

extern "C" PF_Err EffectMain(PF_Cmd cmd, PF_InData* in_data, PF_OutData* out_data, PF_ParamDef* params[],
                             PF_LayerDef* output, void* extra);

namespace {

using aehost::AeHost;
using aehost::DrawCall;
using aehost::UIEvent;

constexpr DRAWBOT_ColorRGBA kBackground{0.11f, 0.11f, 0.11f, 1.0f};
constexpr DRAWBOT_ColorRGBA kLabel{1.0f, 1.0f, 1.0f, 0.9f};
constexpr DRAWBOT_ColorRGBA kName{0.17f, 0.70f, 0.46f, 1.0f};
constexpr DRAWBOT_ColorRGBA kNotice{1.0f, 0.15f, 0.05f, 0.9f};
constexpr DRAWBOT_ColorRGBA kRed{1.0f, 0.0f, 0.0f, 1.0f};
constexpr char kNoticeText[] = "Tremor Distiller cannot render using CPU only.";
constexpr char kNoticeText2[] = "Go in File > Project Settings";

// "op text @x,y wxh size rgba" with what matters of each kind.
std::string Describe(const DrawCall& c) {
  char s[200];
  std::snprintf(s, sizeof s, "%s '%s' @%g,%g %gx%g size=%g rgba=%g,%g,%g,%g alpha=%g", c.op.c_str(), c.text.c_str(),
                c.x, c.y, c.width, c.height, c.fontSize, c.color.red, c.color.green, c.color.blue, c.color.alpha,
                c.alpha);
  return s;
}
DrawCall Call(const char* op, const char* text, float x, float y, float w, float h, DRAWBOT_ColorRGBA color,
              float size = 0, float alpha = 0) {
  return DrawCall{op, text, x, y, w, h, color, size, alpha};
}
std::vector<std::string> Describe(const std::vector<DrawCall>& calls) {
  std::vector<std::string> out;
  for (const auto& c : calls) out.push_back(Describe(c));
  return out;
}

// The brightest value of channel `c` in a region of the canvas.
float Brightest(const aehost::Image& im, int x0, int y0, int x1, int y1, int c) {
  float m = 0;
  for (int y = y0; y < y1; ++y)
    for (int x = x0; x < x1; ++x) m = std::max(m, im.At(x, y)[c]);
  return m;
}

void SetStatus(const std::string& name, const std::string& framework, const std::string& notice1,
               const std::string& notice2 = kNoticeText2) {
  EditGPUStatusText([&](GPUStatusText& t) {
    t.gpuName = name;
    t.frameworkName = framework;
    t.noticeLine1 = notice1;
    t.noticeLine2 = notice1.empty() ? notice2 : kNoticeText2;
  });
}

size_t SuitesHeld(const AeHost& host) {
  long held = 0;
  for (const auto& call : host.CallLog())
    held += (call.op == "AcquireSuite" && !call.result) - (call.op == "ReleaseSuite");
  return static_cast<size_t>(held);
}

class CustomUI : public ModuleHostTest {
 protected:
  // Set up, with commands going to the linked effect or to the built module.
  AeHost& Host(bool linked = true) {
    aehost::HostOptions options;
    if (linked) options.effectMain = &EffectMain;
    AeHost& host = NewHost(options);
    EXPECT_EQ(host.SetUp(), PF_Err_NONE);
    host.ClearCallLog();
    return host;
  }
  // The control where the panel has it: 10 from the left, 100 from the top.
  static UIEvent Control() {
    UIEvent e;
    e.frame = PF_LRect{10, 100, 260, 190};
    e.width = 300;
    e.height = 200;
    return e;
  }
};

TEST_F(CustomUI, ControlShowsThePictureAndTheGPUOrTheNotice) {
  AeHost& host = Host();
  const DrawCall background = Call("FillPath", "", 10, 100, 250, 90, kBackground);
  const DrawCall picture = Call("DrawImage", "", 10, 100, 250, 70, {}, 0, 1.0f);
  const struct {
    const char *name, *framework, *notice;
    std::vector<DrawCall> texts;  // after the background and the picture
  } states[] = {
      {"RTX 3080",
       "OpenCL",
       "",
       {Call("DrawString", "GPU:", 15, 184, 0, 0, kLabel, 11),
        Call("DrawString", "RTX 3080 OpenCL", 42, 184, 0, 0, kName, 11)}},
      {"RTX 3080",
       "",
       "",
       {Call("DrawString", "GPU:", 15, 184, 0, 0, kLabel, 11),
        Call("DrawString", "RTX 3080", 42, 184, 0, 0, kName, 11)}},
      {"RTX 3080", "CUDA", kNoticeText, {Call("DrawString", kNoticeText, 15, 184, 0, 0, kNotice, 11)}},
      {"", "", "", {}},
  };
  for (const auto& s : states) {
    SCOPED_TRACE(std::string(s.name) + "/" + s.framework + "/" + s.notice);
    SetStatus(s.name, s.framework, s.notice);
    const aehost::UIEventResult r = host.SendEvent(Control());
    EXPECT_EQ(r.result, PF_Err_NONE);
    EXPECT_EQ(r.outFlags, PF_EO_HANDLED_EVENT);
    EXPECT_EQ(r.objectsLeft, 0);
    EXPECT_EQ(SuitesHeld(host), 0u);
    std::vector<DrawCall> expected{background, picture};
    expected.insert(expected.end(), s.texts.begin(), s.texts.end());
    EXPECT_EQ(Describe(r.calls), Describe(expected));

    // The picture's own pixels (scripts/make_about_png.py): its background and the title's white.
    const aehost::Image& im = r.canvas;
    EXPECT_NEAR(im.At(10, 100)[0], 28 / 255.0f, 1e-6);
    EXPECT_NEAR(im.At(10, 100)[2], 48 / 255.0f, 1e-6);
    EXPECT_NEAR(im.At(40, 112)[1], 245 / 255.0f, 1e-6);
    // The strip under the picture is as wide as the picture; the panel goes on beside it.
    EXPECT_NEAR(im.At(255, 188)[0], 0.11f, 1e-6);
    EXPECT_NEAR(im.At(270, 188)[0], 0.16f, 1e-6);
    // The text stands on its baseline at 184, in its colours.
    const float labelRed = Brightest(im, 15, 174, 40, 184, 0);
    const float nameGreen = Brightest(im, 45, 174, 200, 184, 1), nameRed = Brightest(im, 45, 174, 200, 184, 0);
    if (s.texts.size() == 2) {
      EXPECT_GT(labelRed, 0.8f);
      EXPECT_GT(nameGreen, 0.6f);
      EXPECT_LT(nameRed, 0.3f);
    } else if (s.texts.size() == 1) {
      EXPECT_GT(labelRed, 0.8f);
      EXPECT_LT(Brightest(im, 15, 174, 250, 184, 1), 0.3f);
    } else {
      EXPECT_LT(labelRed, 0.12f);
    }
  }
}

// The control names the GPU from the device's first GPU frame on. Set-up
// names nothing, so a device refused there never shows, and neither does an
// accepted one before it has rendered.
TEST_F(CustomUI, TheGPUIsNamedFromItsFirstFrameAndARefusedOneNever) {
  struct SteeredAdapter {
    SteeredAdapter() {
      D3DADAPTER_IDENTIFIER9 id = {};
      std::strcpy(id.Description, "NVIDIA GeForce RTX 3080 Ti");
      SetAdapterIdentifierOverride(&id);
    }
    ~SteeredAdapter() { SetAdapterIdentifierOverride(nullptr); }
  } adapter;
  SetStatus("", "", "");
  AeHost& host = Host();
  for (int k = 0; k < 12; ++k) host.AddFrame(host.FrameTime(k), aehost::Image(24, 8, 0.05f * static_cast<float>(k)));
  const DrawCall background = Call("FillPath", "", 10, 100, 250, 90, kBackground);
  const DrawCall picture = Call("DrawImage", "", 10, 100, 250, 70, {}, 0, 1.0f);
  const std::vector<std::string> unnamed = Describe(std::vector<DrawCall>{background, picture});
  {
    ScopedGPUCalls restore;
    GetOpenCLCalls().buildProgram = [](cl_program, cl_uint, const cl_device_id*, const char*,
                                       void(CL_CALLBACK*)(cl_program, void*),
                                       void*) -> cl_int { return CL_BUILD_PROGRAM_FAILURE; };
    EXPECT_EQ(host.SetupDevice(), PF_Err_INTERNAL_STRUCT_DAMAGED);
  }
  EXPECT_EQ(Describe(host.SendEvent(Control()).calls), unnamed);
  EXPECT_EQ(host.SetdownDevice(), PF_Err_NONE);

  ASSERT_EQ(host.SetupDevice(), PF_Err_NONE);
  EXPECT_EQ(Describe(host.SendEvent(Control()).calls), unnamed);
  ASSERT_EQ(host.Render(host.FrameTime(11), aehost::RenderPath::SmartGPU).result, PF_Err_NONE);
  EXPECT_EQ(Describe(host.SendEvent(Control()).calls),
            Describe(std::vector<DrawCall>{background, picture, Call("DrawString", "GPU:", 15, 184, 0, 0, kLabel, 11),
                                           Call("DrawString", "RTX 3080 OpenCL", 42, 184, 0, 0, kName, 11)}));
}

TEST_F(CustomUI, WithoutThePictureOnlyTheTextIsDrawn) {
  aehost::HostOptions options;
  options.effectMain = &EffectMain;
  AeHost& host = NewHost(options);
  host.NullOperation("host_new_handle", 2);  // the picture's pixels
  ASSERT_EQ(host.SetUp(), PF_Err_NONE);
  SetStatus("RTX 3080", "OpenCL", "");
  const aehost::UIEventResult r = host.SendEvent(Control());
  EXPECT_EQ(r.result, PF_Err_NONE);
  EXPECT_EQ(r.outFlags, PF_EO_HANDLED_EVENT);
  ASSERT_EQ(r.calls.size(), 2u);
  EXPECT_EQ(Describe(r.calls[0]), Describe(Call("DrawString", "GPU:", 15, 184, 0, 0, kLabel, 11)));
  EXPECT_NEAR(r.canvas.At(12, 102)[0], 0.16f, 1e-6);  // no background strip
}

// The title row, events other than drawing, and the composition and layer
// panels: nothing is acquired or drawn that should not be.
TEST_F(CustomUI, OtherAreasEventsAndPanels) {
  for (const bool linked : {true, false}) {
    SCOPED_TRACE(linked ? "linked effect" : "built module");
    AeHost& host = Host(linked);
    UIEvent title = Control();
    title.area = PF_EA_PARAM_TITLE;
    title.outFlags = PF_EO_ALWAYS_UPDATE;
    aehost::UIEventResult r = host.SendEvent(title);
    EXPECT_EQ(r.result, PF_Err_NONE);
    EXPECT_EQ(r.outFlags, PF_EO_ALWAYS_UPDATE);
    for (PF_EventType type = PF_Event_NEW_CONTEXT; type < PF_Event_NUM_EVENTS; ++type) {
      if (type == PF_Event_DRAW) continue;
      for (const PF_WindowType window : {PF_Window_COMP, PF_Window_LAYER, PF_Window_EFFECT}) {
        UIEvent e = Control();
        e.type = type;
        e.window = window;
        e.outFlags = PF_EO_NEVER_UPDATE;
        r = host.SendEvent(e);
        EXPECT_EQ(r.result, PF_Err_NONE) << type;
        EXPECT_EQ(r.outFlags, PF_EO_NEVER_UPDATE) << type;
      }
    }
    for (const auto& call : host.CallLog()) EXPECT_NE(call.op, "AcquireSuite") << call.args;
  }

  AeHost& host = Host();
  for (const PF_WindowType window : {PF_Window_COMP, PF_Window_LAYER}) {
    UIEvent e;
    e.window = window;
    e.frame = PF_LRect{0, 0, 640, 60};
    e.background = DRAWBOT_ColorRGBA{0, 0, 0, 1};
    SetStatus("RTX 3080", "OpenCL", "", "a second line alone is not shown");
    aehost::UIEventResult r = host.SendEvent(e);
    EXPECT_EQ(r.result, PF_Err_NONE);
    EXPECT_TRUE(r.calls.empty());
    SetStatus("", "", kNoticeText);
    r = host.SendEvent(e);
    EXPECT_EQ(r.result, PF_Err_NONE);
    EXPECT_EQ(r.outFlags, PF_EO_NONE);  // the host goes on drawing its panel
    EXPECT_EQ(r.objectsLeft, 0);
    EXPECT_EQ(Describe(r.calls),
              Describe(std::vector<DrawCall>{Call("DrawString", kNoticeText, 10, 30, 0, 0, kRed, 20),
                                             Call("DrawString", kNoticeText2, 10, 44, 0, 0, kRed, 14)}));
    EXPECT_GT(Brightest(r.canvas, 10, 14, 300, 30, 0), 0.9f);
    EXPECT_LT(Brightest(r.canvas, 10, 14, 300, 30, 1), 0.1f);
  }
  EXPECT_EQ(SuitesHeld(host), 0u);
}

TEST_F(CustomUI, FailuresEndTheEventWithTheirCodes) {
  // No extra at all: one line of the handler's, and the code, also in the built module.
  for (const bool linked : {true, false}) {
    AeHost& host = Host(linked);
    UIEvent e = Control();
    e.nullExtra = true;
    EXPECT_EQ(host.SendEvent(e).result, PF_Err_INVALID_INDEX);
    EXPECT_EQ(LogCount(":HandleEvent] :: Something wrong. Extra is MULL\n"), 1u) << Log();
    EXPECT_EQ(LogCount(":EffectMain] :: PF_Cmd_EVENT. Code: PF_Err_INVALID_INDEX (513)\n"), 1u);
  }

  AeHost& host = Host();
  SetStatus("RTX 3080", "OpenCL", "");
  // A missing Drawbot suite: the user is told, later suites are not tried.
  host.RemoveSuite(kDRAWBOT_SupplierSuite);
  aehost::UIEventResult r = host.SendEvent(Control());
  EXPECT_EQ(r.result, PF_Err_BAD_CALLBACK_PARAM);
  EXPECT_EQ(r.command.return_msg, "Not able to acquire AEFX Suite.");
  EXPECT_TRUE(r.command.out_flags & PF_OutFlag_DISPLAY_ERROR_MESSAGE);
  EXPECT_EQ(r.outFlags, PF_EO_NONE);
  EXPECT_TRUE(r.calls.empty());
  std::vector<std::string> acquired;
  for (const auto& call : host.CallLog())
    if (call.op == "AcquireSuite") acquired.push_back(call.args);
  EXPECT_EQ(acquired,
            (std::vector<std::string>{"name=DRAWBOT Draw Suite version=1", "name=DRAWBOT Supplier Suite version=1",
                                      "name=PF Effect Custom UI Suite version=1"}));
  EXPECT_EQ(SuitesHeld(host), 0u);
  host.ClearInjections();

  // No drawing reference: a line naming the draw, nothing drawn, not handled.
  host.NullOperation("PF_GetDrawingReference");
  for (const PF_WindowType window : {PF_Window_EFFECT, PF_Window_COMP}) {
    UIEvent e = Control();
    e.window = window;
    r = host.SendEvent(e);
    EXPECT_EQ(r.result, PF_Err_NONE);
    EXPECT_EQ(r.outFlags, PF_EO_NONE);
    EXPECT_TRUE(r.calls.empty());
  }
  EXPECT_EQ(LogCount(":DrawEvent] :: Cannot acquire Drawing Reference\n"), 1u) << Log();
  EXPECT_EQ(LogCount(":DrawCompUIEvent] :: Cannot acquire Drawing Reference\n"), 1u);
  EXPECT_EQ(SuitesHeld(host), 0u);
  host.ClearInjections();

  // A refused drawing step: its code stays, the text is passed over, all goes back.
  host.FailOperation("DrawImage", PF_Err_OUT_OF_MEMORY);
  r = host.SendEvent(Control());
  EXPECT_EQ(r.result, PF_Err_OUT_OF_MEMORY);
  EXPECT_EQ(r.outFlags, PF_EO_NONE);
  ASSERT_EQ(r.calls.size(), 1u);
  EXPECT_EQ(r.calls[0].op, "FillPath");
  EXPECT_EQ(r.objectsLeft, 0);
  EXPECT_EQ(SuitesHeld(host), 0u);
  host.ClearInjections();

  // A status text that is no UTF-8 ends the event in the dispatcher, cleaned up.
  SetStatus("RTX \xff", "OpenCL", "");
  r = host.SendEvent(Control());
  EXPECT_EQ(r.result, PF_Err_INTERNAL_STRUCT_DAMAGED);
  EXPECT_EQ(LogCount(":EffectMain] :: Try Catch Exception at event PF_Cmd_EVENT. Error is "), 1u) << Log();
  EXPECT_EQ(r.objectsLeft, 0);
  EXPECT_EQ(SuitesHeld(host), 0u);
}

// The host's Drawbot takes images by layout and row bytes: an effect of the
// test's own draws one 2x2 image (red, green / blue, white at alpha 128) at (1, 1).
struct ImageBytes {
  DRAWBOT_PixelLayout layout;
  int rowBytes;
  std::vector<uint8_t> bytes;
} gImage;

PF_Err DrawOneImage(PF_Cmd cmd, PF_InData* in_data, PF_OutData*, PF_ParamDef*[], PF_LayerDef*, void* extra) {
  if (cmd != PF_Cmd_EVENT) return PF_Err_NONE;
  const void *ui = nullptr, *draw = nullptr, *supplier = nullptr, *surface = nullptr;
  in_data->pica_basicP->AcquireSuite(kPFEffectCustomUISuite, 1, &ui);
  in_data->pica_basicP->AcquireSuite(kDRAWBOT_DrawSuite, 1, &draw);
  in_data->pica_basicP->AcquireSuite(kDRAWBOT_SupplierSuite, 1, &supplier);
  in_data->pica_basicP->AcquireSuite(kDRAWBOT_SurfaceSuite, 2, &surface);
  DRAWBOT_DrawRef ref = nullptr;
  DRAWBOT_SupplierRef sup = nullptr;
  DRAWBOT_SurfaceRef surf = nullptr;
  DRAWBOT_ImageRef image = nullptr;
  static_cast<const PF_EffectCustomUISuite1*>(ui)->PF_GetDrawingReference(static_cast<PF_EventExtra*>(extra)->contextH,
                                                                          &ref);
  static_cast<const DRAWBOT_DrawbotSuite1*>(draw)->GetSupplier(ref, &sup);
  static_cast<const DRAWBOT_DrawbotSuite1*>(draw)->GetSurface(ref, &surf);
  const auto* s = static_cast<const DRAWBOT_SupplierSuite1*>(supplier);
  PF_Err err = s->NewImageFromBuffer(sup, 2, 2, gImage.rowBytes, gImage.layout, gImage.bytes.data(), &image);
  const DRAWBOT_PointF32 at{1, 1};
  if (!err) err = static_cast<const DRAWBOT_SurfaceSuite2*>(surface)->DrawImage(surf, image, &at, 1.0f);
  if (image) s->ReleaseObject(image);
  return err;
}

TEST_F(CustomUI, HostDrawsImagesByLayoutAndRowBytes) {
  aehost::HostOptions options;
  options.effectMain = &DrawOneImage;
  AeHost& host = NewHost(options);
  const float white = 128 / 255.0f + 0.16f * (1 - 128 / 255.0f);  // straight white at half over the panel
  const struct {
    ImageBytes image;
    float corner;  // the white pixel's red
  } cases[] = {
      {{kDRAWBOT_PixelLayout_32BGR, 12, {0, 0, 255, 9, 0, 255, 0, 9, 7, 7, 7, 7, 255, 0, 0, 9, 255, 255, 255, 128}}, 1},
      {{kDRAWBOT_PixelLayout_24RGB, 8, {255, 0, 0, 0, 255, 0, 7, 7, 0, 0, 255, 255, 255, 255}}, 1},
      {{kDRAWBOT_PixelLayout_32ARGB_Straight, 8, {255, 255, 0, 0, 255, 0, 255, 0, 255, 0, 0, 255, 128, 255, 255, 255}},
       white},
      {{kDRAWBOT_PixelLayout_32BGRA_Premul, 8, {0, 0, 255, 255, 0, 255, 0, 255, 255, 0, 0, 255, 128, 128, 128, 128}},
       white},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.image.layout);
    gImage = c.image;
    UIEvent e;
    e.frame = PF_LRect{0, 0, 4, 4};
    const aehost::UIEventResult r = host.SendEvent(e);
    ASSERT_EQ(r.result, PF_Err_NONE);
    EXPECT_EQ(r.objectsLeft, 0);
    auto rgb = [&](int x, int y) { return std::vector<float>(r.canvas.At(x, y), r.canvas.At(x, y) + 3); };
    EXPECT_EQ(rgb(1, 1), (std::vector<float>{1, 0, 0}));
    EXPECT_EQ(rgb(2, 1), (std::vector<float>{0, 1, 0}));
    EXPECT_EQ(rgb(1, 2), (std::vector<float>{0, 0, 1}));
    EXPECT_NEAR(rgb(2, 2)[0], c.corner, 1e-3);
    EXPECT_NEAR(rgb(3, 3)[0], 0.16f, 1e-6);  // outside the image
  }
  gImage.bytes.assign(4, 0);  // rows shorter than the layout's pixels
  gImage.rowBytes = 4;
  EXPECT_EQ(host.SendEvent(UIEvent{}).result, PF_Err_BAD_CALLBACK_PARAM);
}

}  // namespace
