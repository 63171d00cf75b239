// The effect's passive custom UI: the control's picture, decoded once at
// global set-up from the module's own resources, and the draw events that
// show it with the GPU at work or the notice.
#include <Windows.h>

#include <codecvt>
#include <cstring>
#include <locale>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

// Built static into this unit; most of the decoder goes unused here.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-function"
#define STB_IMAGE_IMPLEMENTATION
#include <stb_image.h>
#pragma GCC diagnostic pop

#include "LogsController.h"
#include "TremorDistiller.h"
#include "TremorDistiller_GPURecords.h"
#include "TremorDistiller_Resources.h"

namespace {

constexpr int kAboutChannels = 4;

}  // namespace

PF_Err LoadAboutImage(PF_InData* in_data, AboutImage* about) {
  // The module is the one holding this function, not the host.
  HMODULE module = nullptr;
  HRSRC resource = nullptr;
  if (GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                         reinterpret_cast<LPCSTR>(&LoadAboutImage), &module))
    resource = FindResourceA(module, MAKEINTRESOURCEA(kAboutResourceName), MAKEINTRESOURCEA(kAboutResourceType));
  if (!resource) {
    LOG_ERROR("Cannot find 'about' resource.");
    return PF_Err_BAD_CALLBACK_PARAM;
  }

  const DWORD size = SizeofResource(module, resource);
  const HGLOBAL loaded = LoadResource(module, resource);
  const void* bytes = loaded ? LockResource(loaded) : nullptr;
  if (!bytes) {
    LOG_ERROR("Cannot lock 'about' resource.");
    return PF_Err_BAD_CALLBACK_PARAM;
  }

  int width = 0, height = 0, channels = 0;
  const std::unique_ptr<stbi_uc, void (*)(void*)> decoded(
      stbi_load_from_memory(static_cast<const stbi_uc*>(bytes), static_cast<int>(size), &width, &height, &channels,
                            kAboutChannels),
      &stbi_image_free);
  // The decoder always gives 4 channels, but the handle is sized by what the
  // file holds; only an RGBA file makes the two agree, so nothing else is taken.
  if (!decoded || channels != kAboutChannels) {
    LOG_ERROR("Cannot load 'about' image.");
    return PF_Err_BAD_CALLBACK_PARAM;
  }
  about->width = width;
  about->height = height;
  about->channels = channels;
  about->pixelLayout = kDRAWBOT_PixelLayout_32BGR;

  // R, G, B, A to B, G, R, A; alpha stays straight.
  const size_t byteCount = static_cast<size_t>(width) * static_cast<size_t>(height) * kAboutChannels;
  std::vector<unsigned char> bgra(byteCount);
  const stbi_uc* rgba = decoded.get();
  for (size_t i = 0; i < byteCount; i += kAboutChannels) {
    bgra[i + 0] = rgba[i + 2];
    bgra[i + 1] = rgba[i + 1];
    bgra[i + 2] = rgba[i + 0];
    bgra[i + 3] = rgba[i + 3];
  }

  SuiteAccess<PF_HandleSuite2> handles(in_data);
  PF_Handle pixels = handles->host_new_handle(byteCount);
  void* target = pixels ? handles->host_lock_handle(pixels) : nullptr;
  if (!target) {
    if (pixels) handles->host_dispose_handle(pixels);
    LOG_ERROR("Cannot allocate 'about' image memory.");
    return PF_Err_BAD_CALLBACK_PARAM;
  }
  std::memcpy(target, bgra.data(), byteCount);
  handles->host_unlock_handle(pixels);
  about->pixels = pixels;
  return PF_Err_NONE;
}

// ---- Drawing ----

namespace {

struct TextStyle {
  float fontSize;
  DRAWBOT_ColorRGBA color;
};

constexpr DRAWBOT_ColorRGBA kBackgroundColor{0.11f, 0.11f, 0.11f, 1.0f};
constexpr TextStyle kLabelStyle{11.0f, {1.0f, 1.0f, 1.0f, 0.9f}};
constexpr TextStyle kNameStyle{11.0f, {0.17f, 0.70f, 0.46f, 1.0f}};
constexpr TextStyle kNoticeStyle{11.0f, {1.0f, 0.15f, 0.05f, 0.9f}};
constexpr TextStyle kCompNoticeStyle1{20.0f, {1.0f, 0.0f, 0.0f, 1.0f}};
constexpr TextStyle kCompNoticeStyle2{14.0f, {1.0f, 0.0f, 0.0f, 1.0f}};
static_assert(kCompNoticeStyle1.color.red == kCompNoticeStyle2.color.red, "one brush serves both notice lines");

constexpr char kGPULabel[] = "GPU:";
constexpr float kTextIndent = 5.0f;       // from the control's left
constexpr float kTextBelowImage = 14.0f;  // baseline under the picture
constexpr float kNameAfterLabel = 27.0f;  // "GPU:" and a gap
constexpr DRAWBOT_PointF32 kCompNoticeAt1{10.0f, 30.0f};
constexpr DRAWBOT_PointF32 kCompNoticeAt2{10.0f, 44.0f};

constexpr char kAcquireFailed[] = "Not able to acquire AEFX Suite.";
constexpr char kReleaseFailed[] = "Not able to release AEFX Suite.";

struct SuiteName {
  const char* name;
  int32_t version;
};
// In the order they are acquired.
constexpr SuiteName kDrawbotSuites[] = {{kDRAWBOT_DrawSuite, kDRAWBOT_DrawSuite_Version1},
                                        {kDRAWBOT_SupplierSuite, kDRAWBOT_SupplierSuite_Version1},
                                        {kDRAWBOT_SurfaceSuite, kDRAWBOT_SurfaceSuite_Version2},
                                        {kDRAWBOT_PathSuite, kDRAWBOT_PathSuite_Version1}};
constexpr size_t kDrawbotSuiteCount = sizeof kDrawbotSuites / sizeof *kDrawbotSuites;

void TellUser(PF_InData* in_data, PF_OutData* out_data, const char* text) {
  if (!out_data) return;
  out_data->out_flags |= PF_OutFlag_DISPLAY_ERROR_MESSAGE;
  in_data->utils->ansi.sprintf(out_data->return_msg, "%s", text);
}

PF_Err AcquireUISuite(PF_InData* in_data, PF_OutData* out_data, const SuiteName& suite, const void** table) {
  *table = nullptr;
  const SPBasicSuite* basic = in_data->pica_basicP;
  if (!basic || basic->AcquireSuite(suite.name, suite.version, table) != kSPNoError || !*table) {
    *table = nullptr;
    TellUser(in_data, out_data, kAcquireFailed);
    return PF_Err_BAD_CALLBACK_PARAM;
  }
  return PF_Err_NONE;
}

// `withoutBasic` is what a release gives when there is no basic suite to go through.
PF_Err ReleaseUISuite(PF_InData* in_data, PF_OutData* out_data, const SuiteName& suite, PF_Err withoutBasic) {
  if (!in_data->pica_basicP) {
    TellUser(in_data, out_data, kReleaseFailed);
    return withoutBasic;
  }
  return in_data->pica_basicP->ReleaseSuite(suite.name, suite.version);
}

// The custom UI suite is held only for the one call.
PF_Err GetDrawingReference(PF_InData* in_data, PF_OutData* out_data, PF_ContextH contextH, DRAWBOT_DrawRef* ref) {
  constexpr SuiteName kCustomUI{kPFEffectCustomUISuite, kPFEffectCustomUISuiteVersion1};
  const void* table = nullptr;
  PF_Err err = AcquireUISuite(in_data, out_data, kCustomUI, &table);
  if (err) return err;
  err = static_cast<const PF_EffectCustomUISuite1*>(table)->PF_GetDrawingReference(contextH, ref);
  const PF_Err released = ReleaseUISuite(in_data, out_data, kCustomUI, PF_Err_BAD_CALLBACK_PARAM);
  return err ? err : released;
}

// One draw: the Drawbot suites, the supplier and surface, and every object
// made, all given back by Close or, when a throw cuts the draw short, by the
// destructor. The first error stays; later drawing steps are passed over.
class DrawSession {
 public:
  DrawSession(PF_InData* in_data, PF_OutData* out_data) : in_(in_data), out_(out_data) {}
  ~DrawSession() { Close(); }
  DrawSession(const DrawSession&) = delete;
  DrawSession& operator=(const DrawSession&) = delete;

  // Suites, then the drawing reference. False when no reference came: the
  // suites are back and nothing is to be drawn; `function` names the line.
  bool Open(PF_ContextH contextH, const char* function) {
    for (size_t i = 0; i < kDrawbotSuiteCount && !err; ++i)
      err = AcquireUISuite(in_, out_, kDrawbotSuites[i], &suites_[i]);
    DRAWBOT_DrawRef ref = nullptr;
    const PF_Err refErr = GetDrawingReference(in_, out_, contextH, &ref);
    if (!err) err = refErr;
    if (!ref) {
      ReleaseSuites();
      LOG_ERROR_IN(function, "Cannot acquire Drawing Reference");
      return false;
    }
    if (!err) err = Draw()->GetSupplier(ref, &supplier_);
    if (!err) err = Draw()->GetSurface(ref, &surface_);
    return true;
  }

  DRAWBOT_BrushRef Brush(const DRAWBOT_ColorRGBA& color) {
    DRAWBOT_BrushRef brush = nullptr;
    if (!err) err = Supplier()->NewBrush(supplier_, &color, &brush);
    if (brush) brushes_.push_back(brush);
    return brush;
  }

  DRAWBOT_FontRef Font(float size) {
    DRAWBOT_FontRef font = nullptr;
    if (!err) err = Supplier()->NewDefaultFont(supplier_, size, &font);
    if (font) fonts_.push_back(font);
    return font;
  }

  void FillRect(const DRAWBOT_RectF32& rect, const DRAWBOT_ColorRGBA& color) {
    const DRAWBOT_BrushRef brush = Brush(color);
    DRAWBOT_PathRef path = nullptr;
    if (!err) err = Supplier()->NewPath(supplier_, &path);
    if (path) paths_.push_back(path);
    if (!err) err = Path()->AddRect(path, &rect);
    if (!err) err = Surface()->FillPath(surface_, brush, path, kDRAWBOT_FillType_Winding);
  }

  // The host copies the pixels: they may be unlocked once this returns.
  void MakeImage(const AboutImage& about, const void* pixels) {
    if (!err)
      err = Supplier()->NewImageFromBuffer(supplier_, about.width, about.height, about.width * about.channels,
                                           about.pixelLayout, pixels, &image_);
  }

  void DrawImage(DRAWBOT_PointF32 at) {
    if (!err) err = Surface()->DrawImage(surface_, image_, &at, 1.0f);
  }

  // GPUStatus texts are UTF-8, the host wants UTF-16; a text that does not
  // convert throws std::range_error, which ends the event in the dispatcher.
  void Text(const std::string& utf8, DRAWBOT_PointF32 at, DRAWBOT_BrushRef brush, DRAWBOT_FontRef font) {
    if (err) return;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"  // the standard's converter, kept for its range_error
    std::wstring_convert<std::codecvt_utf8_utf16<char16_t>, char16_t> converter;
    const std::u16string utf16 = converter.from_bytes(utf8);
#pragma GCC diagnostic pop
    static_assert(sizeof(char16_t) == sizeof(DRAWBOT_UTF16Char), "UTF-16 units");
    err = Surface()->DrawString(surface_, brush, font, reinterpret_cast<const DRAWBOT_UTF16Char*>(utf16.c_str()), &at,
                                kDRAWBOT_TextAlignment_Left, kDRAWBOT_TextTruncation_None, 0.0f);
  }

  void Text(const std::string& utf8, DRAWBOT_PointF32 at, const TextStyle& style) {
    Text(utf8, at, Brush(style.color), Font(style.fontSize));
  }

  // The image, then every brush, font and path; then the suites. Gives the
  // status, which a release error takes only while it is still 0.
  PF_Err Close() {
    const DRAWBOT_SupplierSuite1* supplier = Supplier();  // objects exist only where it does
    auto release = [&](DRAWBOT_ObjectRef object) {
      const PF_Err e = supplier->ReleaseObject(object);
      if (!err) err = e;
    };
    if (image_) release(image_);
    image_ = nullptr;
    for (auto* list : {&brushes_, &fonts_, &paths_}) {
      for (DRAWBOT_ObjectRef object : *list) release(object);
      list->clear();
    }
    const PF_Err released = ReleaseSuites();
    if (!err) err = released;
    return err;
  }

  PF_Err err = PF_Err_NONE;

 private:
  PF_Err ReleaseSuites() {
    PF_Err result = PF_Err_NONE;
    for (size_t i = 0; i < kDrawbotSuiteCount; ++i) {
      if (!suites_[i]) continue;
      const PF_Err e = ReleaseUISuite(in_, out_, kDrawbotSuites[i], PF_Err_NONE);
      if (!result) result = e;
      suites_[i] = nullptr;
    }
    return result;
  }
  const DRAWBOT_DrawbotSuite1* Draw() const { return static_cast<const DRAWBOT_DrawbotSuite1*>(suites_[0]); }
  const DRAWBOT_SupplierSuite1* Supplier() const { return static_cast<const DRAWBOT_SupplierSuite1*>(suites_[1]); }
  const DRAWBOT_SurfaceSuite2* Surface() const { return static_cast<const DRAWBOT_SurfaceSuite2*>(suites_[2]); }
  const DRAWBOT_PathSuite1* Path() const { return static_cast<const DRAWBOT_PathSuite1*>(suites_[3]); }

  PF_InData* in_;
  PF_OutData* out_;
  const void* suites_[kDrawbotSuiteCount] = {};
  DRAWBOT_SupplierRef supplier_ = nullptr;
  DRAWBOT_SurfaceRef surface_ = nullptr;
  DRAWBOT_ImageRef image_ = nullptr;
  std::vector<DRAWBOT_ObjectRef> brushes_, fonts_, paths_;
};

// A host handle locked for a scope; null contents when it would not lock.
class HandleLock {
 public:
  HandleLock(const SuiteAccess<PF_HandleSuite2>& handles, PF_Handle handle)
      : handles_(handles), handle_(handle), data_(handle ? handles->host_lock_handle(handle) : nullptr) {}
  ~HandleLock() {
    if (data_) handles_->host_unlock_handle(handle_);
  }
  HandleLock(const HandleLock&) = delete;
  HandleLock& operator=(const HandleLock&) = delete;
  void* Data() const { return data_; }

 private:
  const SuiteAccess<PF_HandleSuite2>& handles_;
  PF_Handle handle_;
  void* data_;
};

// The control: background and picture, and under them the GPU or the notice.
void DrawControl(PF_InData* in_data, DrawSession& draw, const PF_LRect& frame) {
  SuiteAccess<PF_HandleSuite2> handles(in_data);
  const HandleLock global(handles, in_data->global_data);
  const AboutImage* about = global.Data() ? static_cast<const GlobalData*>(global.Data())->aboutImage : nullptr;
  const auto left = static_cast<float>(frame.left), top = static_cast<float>(frame.top);
  // Without a picture there is nothing to size the background by: the text
  // alone, where it would stand under the picture.
  if (about) {
    {
      const HandleLock pixels(handles, about->pixels);
      draw.FillRect({left, top, static_cast<float>(about->width), static_cast<float>(frame.bottom - frame.top)},
                    kBackgroundColor);
      draw.MakeImage(*about, pixels.Data());
    }
    draw.DrawImage({left, top});
  }

  const GPUStatusText status = ReadGPUStatusText();
  DRAWBOT_PointF32 at{left + kTextIndent,
                      top + static_cast<float>(about ? about->height : kAboutFallbackHeight) + kTextBelowImage};
  if (!status.noticeLine1.empty()) {
    draw.Text(status.noticeLine1, at, kNoticeStyle);  // its second line only fits the composition panel
  } else if (!status.gpuName.empty()) {
    draw.Text(kGPULabel, at, kLabelStyle);
    std::string line = status.gpuName;
    if (!status.frameworkName.empty()) line += " " + status.frameworkName;
    at.x += kNameAfterLabel;
    draw.Text(line, at, kNameStyle);
  }
}

}  // namespace

PF_Err DrawEvent(PF_InData* in_data, PF_OutData* out_data, PF_ParamDef*[], PF_LayerDef*, PF_EventExtra* extra) {
  if (extra->effect_win.area != PF_EA_CONTROL) return PF_Err_NONE;  // the title row is the host's
  DrawSession draw(in_data, out_data);
  if (!draw.Open(extra->contextH, "DrawEvent")) return draw.err;
  if (!draw.err) DrawControl(in_data, draw, extra->effect_win.current_frame);
  if (draw.Close() == PF_Err_NONE) extra->evt_out_flags = PF_EO_HANDLED_EVENT;
  return draw.err;
}

PF_Err DrawCompUIEvent(PF_InData* in_data, PF_OutData* out_data, PF_ParamDef*[], PF_LayerDef*, PF_EventExtra* extra) {
  DrawSession draw(in_data, out_data);
  if (!draw.Open(extra->contextH, "DrawCompUIEvent")) return draw.err;
  const GPUStatusText status = ReadGPUStatusText();
  if (!draw.err && !status.noticeLine1.empty()) {
    const DRAWBOT_FontRef large = draw.Font(kCompNoticeStyle1.fontSize);
    const DRAWBOT_FontRef small = draw.Font(kCompNoticeStyle2.fontSize);
    const DRAWBOT_BrushRef red = draw.Brush(kCompNoticeStyle1.color);
    draw.Text(status.noticeLine1, kCompNoticeAt1, red, large);
    draw.Text(status.noticeLine2, kCompNoticeAt2, red, small);
  }
  // The host's own drawing goes on: the event is not marked handled here.
  return draw.Close();
}

// The UI is passive: it only draws.
PF_Err HandleEvent(PF_InData* in_data, PF_OutData* out_data, PF_ParamDef* params[], PF_LayerDef* output,
                   PF_EventExtra* extra) {
  if (!extra) {
    LOG_ERROR("Something wrong. Extra is MULL");
    return PF_Err_INVALID_INDEX;
  }
  if (extra->e_type != PF_Event_DRAW) return PF_Err_NONE;
  const bool effectPanel = extra->contextH && *extra->contextH && (*extra->contextH)->w_type == PF_Window_EFFECT;
  return effectPanel ? DrawEvent(in_data, out_data, params, output, extra)
                     : DrawCompUIEvent(in_data, out_data, params, output, extra);
}
