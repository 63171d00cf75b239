// The stand-in host's Drawbot: the four suites an effect draws its custom UI
// through, drawing for real into a float RGBA canvas. Paths are filled
// rectangles, images are blended by their pixel layout and row bytes, text is
// rasterised with FreeType from a DejaVu Sans of the system, its origin the
// start of the baseline. Every call is in the call log and can fail on
// demand; every successful draw is kept as a DrawCall for tests. A build
// without FreeType (the Windows one) draws no text: events fail to start.
#if defined(TD_HOST_FREETYPE)
#include <ft2build.h>
#include FT_FREETYPE_H
#endif

#include <algorithm>
#include <cmath>
#include <filesystem>

#include "AeHostInternal.h"

namespace aehost {

namespace {

constexpr uint32_t kObjectMagic = 0x44424F42;  // "DBOB"

struct DrawObject {
  enum class Kind { Brush, Font, Image, Path };
  uint32_t magic = kObjectMagic;
  Kind kind = Kind::Brush;
  DrawTarget* target = nullptr;
  DRAWBOT_ColorRGBA color{};           // brush
  float size = 0;                      // font
  Image image;                         // straight RGBA
  std::vector<DRAWBOT_RectF32> rects;  // path
};

// Supplier and surface references are the draw reference's own target.
DrawTarget* TargetOf(const void* ref) {
  auto* t = static_cast<DrawTarget*>(const_cast<void*>(ref));
  return t && t->magic == DrawTarget::kMagic ? t : nullptr;
}

DrawObject* ObjectOf(DRAWBOT_ObjectRef ref, DrawObject::Kind kind) {
  auto* o = reinterpret_cast<DrawObject*>(ref);
  return o && o->magic == kObjectMagic && o->kind == kind ? o : nullptr;
}

// Logs one call; `err` is the injected code when one fired, else what the call gave.
SPErr Finish(const char* suite, const char* op, const std::string& args, PF_Err err) {
  RecordHere(kSuite, suite, op, args, err);
  return err;
}

// ---- Rasterising ----

// Source over, straight alpha; `coverage` scales the source's alpha.
void Blend(Image& canvas, int x, int y, const float rgb[3], float alpha) {
  if (x < 0 || y < 0 || x >= canvas.width || y >= canvas.height || alpha <= 0.0f) return;
  float* d = canvas.At(x, y);
  const float a = std::min(alpha, 1.0f);
  const float outA = a + d[3] * (1.0f - a);
  for (int c = 0; c < 3; ++c) d[c] = outA > 0 ? (rgb[c] * a + d[c] * d[3] * (1.0f - a)) / outA : 0.0f;
  d[3] = outA;
}

// A pixel is inside when its centre is; overlapping rectangles fill once.
void FillRects(Image& canvas, const std::vector<DRAWBOT_RectF32>& rects, const DRAWBOT_ColorRGBA& c) {
  const float rgb[3] = {c.red, c.green, c.blue};
  for (int y = 0; y < canvas.height; ++y)
    for (int x = 0; x < canvas.width; ++x) {
      const float cx = x + 0.5f, cy = y + 0.5f;
      const bool inside = std::any_of(rects.begin(), rects.end(), [&](const DRAWBOT_RectF32& r) {
        return cx >= r.left && cx < r.left + r.width && cy >= r.top && cy < r.top + r.height;
      });
      if (inside) Blend(canvas, x, y, rgb, c.alpha);
    }
}

// Byte offsets of R, G, B and alpha (-1: opaque), pixel size, premultiplied.
struct Layout {
  int r, g, b, a, bytes;
  bool premultiplied;
};
bool LayoutOf(DRAWBOT_PixelLayout layout, Layout* out) {
  static const Layout kLayouts[] = {
      {0, 1, 2, -1, 3, false}, {2, 1, 0, -1, 3, false},  // 24RGB, 24BGR
      {0, 1, 2, -1, 4, false}, {2, 1, 0, -1, 4, false},  // 32RGB, 32BGR: the fourth byte ignored
      {1, 2, 3, 0, 4, false},  {1, 2, 3, 0, 4, true},    // 32ARGB straight, premultiplied
      {2, 1, 0, 3, 4, false},  {2, 1, 0, 3, 4, true},    // 32BGRA straight, premultiplied
  };
  if (layout < 0 || layout >= static_cast<DRAWBOT_PixelLayout>(std::size(kLayouts))) return false;
  *out = kLayouts[layout];
  return true;
}

// ---- Text ----

std::mutex gFontMutex;  // FreeType's library object is not for several threads
#if defined(TD_HOST_FREETYPE)
FT_Library gFreeType = nullptr;
FT_Face gFace = nullptr;
#endif

std::u32string FromUTF16(const DRAWBOT_UTF16Char* s) {
  std::u32string out;
  for (; s && *s; ++s) {
    char32_t c = *s;
    if (c >= 0xD800 && c < 0xDC00 && s[1] >= 0xDC00 && s[1] < 0xE000)
      c = 0x10000 + ((c - 0xD800) << 10) + (*++s - 0xDC00);
    out += c;
  }
  return out;
}

std::string ToUTF8(const std::u32string& s) {
  std::string out;
  for (const char32_t c : s) {
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      out += static_cast<char>(0xE0 | (c >> 12));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (c >> 18));
      out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

#if defined(TD_HOST_FREETYPE)
// Glyphs of `text` from the baseline start (x, y), anti-aliased by FreeType's
// coverage. False when FreeType fails.
bool RasteriseText(Image& canvas, const std::u32string& text, float size, DRAWBOT_PointF32 origin,
                   const DRAWBOT_ColorRGBA& c) {
  std::lock_guard<std::mutex> lock(gFontMutex);
  if (!gFace || FT_Set_Char_Size(gFace, 0, static_cast<FT_F26Dot6>(std::lround(size * 64.0f)), 72, 72)) return false;
  const float rgb[3] = {c.red, c.green, c.blue};
  FT_Pos pen = std::lround(origin.x * 64.0f);  // 26.6 fixed point
  const long baseline = std::lround(origin.y);
  FT_UInt previous = 0;
  for (const char32_t ch : text) {
    const FT_UInt glyph = FT_Get_Char_Index(gFace, ch);
    if (previous && FT_HAS_KERNING(gFace)) {
      FT_Vector kern{};
      FT_Get_Kerning(gFace, previous, glyph, FT_KERNING_DEFAULT, &kern);
      pen += kern.x;
    }
    if (FT_Load_Glyph(gFace, glyph, FT_LOAD_RENDER)) return false;
    const FT_GlyphSlot slot = gFace->glyph;
    const FT_Bitmap& bm = slot->bitmap;
    const long left = (pen >> 6) + slot->bitmap_left, top = baseline - slot->bitmap_top;
    for (unsigned row = 0; row < bm.rows; ++row)
      for (unsigned col = 0; col < bm.width; ++col) {
        const float coverage = bm.buffer[row * bm.pitch + col] / 255.0f;
        Blend(canvas, static_cast<int>(left + col), static_cast<int>(top + row), rgb, coverage * c.alpha);
      }
    pen += slot->advance.x;
    previous = glyph;
  }
  return true;
}
#else
bool RasteriseText(Image&, const std::u32string&, float, DRAWBOT_PointF32, const DRAWBOT_ColorRGBA&) { return false; }
#endif

// ---- DRAWBOT Draw Suite 1 ----

SPErr GetSupplier(DRAWBOT_DrawRef ref, DRAWBOT_SupplierRef* out) {
  const Trigger t = CheckHere("GetSupplier");
  DrawTarget* target = TargetOf(ref);
  const PF_Err err = t.fired ? t.code : (target && out ? 0 : PF_Err_BAD_CALLBACK_PARAM);
  if (out) *out = err ? nullptr : reinterpret_cast<DRAWBOT_SupplierRef>(target);
  return Finish(kDRAWBOT_DrawSuite, "GetSupplier", "", err);
}

SPErr GetSurface(DRAWBOT_DrawRef ref, DRAWBOT_SurfaceRef* out) {
  const Trigger t = CheckHere("GetSurface");
  DrawTarget* target = TargetOf(ref);
  const PF_Err err = t.fired ? t.code : (target && out ? 0 : PF_Err_BAD_CALLBACK_PARAM);
  if (out) *out = err ? nullptr : reinterpret_cast<DRAWBOT_SurfaceRef>(target);
  return Finish(kDRAWBOT_DrawSuite, "GetSurface", "", err);
}

// ---- DRAWBOT Supplier Suite 1 ----

// A new object of the supplier's target, or the error that stops it.
PF_Err NewObject(const char* op, DRAWBOT_SupplierRef supplier, void* out, DrawObject::Kind kind, DrawObject** made) {
  *made = nullptr;
  const Trigger t = CheckHere(op);
  DrawTarget* target = TargetOf(supplier);
  if (t.fired) return t.code;
  if (!target || !out) return PF_Err_BAD_CALLBACK_PARAM;
  *made = new DrawObject;
  (*made)->kind = kind;
  (*made)->target = target;
  ++target->liveObjects;
  return 0;
}

SPErr NewBrush(DRAWBOT_SupplierRef supplier, const DRAWBOT_ColorRGBA* color, DRAWBOT_BrushRef* out) {
  DrawObject* o = nullptr;
  const PF_Err err =
      color ? NewObject("NewBrush", supplier, out, DrawObject::Kind::Brush, &o) : PF_Err_BAD_CALLBACK_PARAM;
  if (o) o->color = *color;
  if (out) *out = reinterpret_cast<DRAWBOT_BrushRef>(o);
  return Finish(kDRAWBOT_SupplierSuite, "NewBrush",
                color ? Args("color=", color->red, ",", color->green, ",", color->blue, ",", color->alpha) : "", err);
}

SPErr NewDefaultFont(DRAWBOT_SupplierRef supplier, float size, DRAWBOT_FontRef* out) {
  DrawObject* o = nullptr;
  const PF_Err err = NewObject("NewDefaultFont", supplier, out, DrawObject::Kind::Font, &o);
  if (o) o->size = size;
  if (out) *out = reinterpret_cast<DRAWBOT_FontRef>(o);
  return Finish(kDRAWBOT_SupplierSuite, "NewDefaultFont", Args("size=", size), err);
}

SPErr NewImageFromBuffer(DRAWBOT_SupplierRef supplier, int width, int height, int rowBytes, DRAWBOT_PixelLayout pl,
                         const void* data, DRAWBOT_ImageRef* out) {
  Layout layout{};
  const bool valid = LayoutOf(pl, &layout) && data && width > 0 && height > 0 && rowBytes >= width * layout.bytes;
  DrawObject* o = nullptr;
  const PF_Err err =
      valid ? NewObject("NewImageFromBuffer", supplier, out, DrawObject::Kind::Image, &o) : PF_Err_BAD_CALLBACK_PARAM;
  if (o) {
    o->image = Image(width, height);
    for (int y = 0; y < height; ++y) {
      const auto* row = static_cast<const uint8_t*>(data) + static_cast<size_t>(y) * rowBytes;
      for (int x = 0; x < width; ++x) {
        const uint8_t* p = row + x * layout.bytes;
        float* d = o->image.At(x, y);
        d[3] = layout.a < 0 ? 1.0f : p[layout.a] / 255.0f;
        const float unmultiply = layout.premultiplied && d[3] > 0 ? 1.0f / d[3] : 1.0f;
        d[0] = p[layout.r] / 255.0f * unmultiply;
        d[1] = p[layout.g] / 255.0f * unmultiply;
        d[2] = p[layout.b] / 255.0f * unmultiply;
      }
    }
  }
  if (out) *out = reinterpret_cast<DRAWBOT_ImageRef>(o);
  return Finish(kDRAWBOT_SupplierSuite, "NewImageFromBuffer",
                Args("width=", width, " height=", height, " row_bytes=", rowBytes, " layout=", pl), err);
}

SPErr NewPath(DRAWBOT_SupplierRef supplier, DRAWBOT_PathRef* out) {
  DrawObject* o = nullptr;
  const PF_Err err = NewObject("NewPath", supplier, out, DrawObject::Kind::Path, &o);
  if (out) *out = reinterpret_cast<DRAWBOT_PathRef>(o);
  return Finish(kDRAWBOT_SupplierSuite, "NewPath", "", err);
}

SPErr ReleaseObject(DRAWBOT_ObjectRef ref) {
  auto* o = reinterpret_cast<DrawObject*>(ref);
  const bool valid = o && o->magic == kObjectMagic;
  if (valid) {
    --o->target->liveObjects;
    o->magic = 0;
    delete o;
  }
  return Finish(kDRAWBOT_SupplierSuite, "ReleaseObject", "", valid ? 0 : PF_Err_BAD_CALLBACK_PARAM);
}

// ---- DRAWBOT Surface Suite 2 ----

SPErr FillPath(DRAWBOT_SurfaceRef surface, DRAWBOT_BrushRef brushRef, DRAWBOT_PathRef pathRef, DRAWBOT_FillType fill) {
  const Trigger t = CheckHere("FillPath");
  DrawTarget* target = TargetOf(surface);
  const DrawObject* brush = ObjectOf(brushRef, DrawObject::Kind::Brush);
  const DrawObject* path = ObjectOf(pathRef, DrawObject::Kind::Path);
  PF_Err err = t.fired ? t.code : (target && brush && path ? 0 : PF_Err_BAD_CALLBACK_PARAM);
  if (!err) {
    FillRects(*target->canvas, path->rects, brush->color);
    for (const auto& r : path->rects) {
      DrawCall call{"FillPath", "", r.left, r.top, r.width, r.height, brush->color};
      target->calls.push_back(call);
    }
  }
  return Finish(kDRAWBOT_SurfaceSuite, "FillPath", Args("fill=", fill), err);
}

SPErr DrawString(DRAWBOT_SurfaceRef surface, DRAWBOT_BrushRef brushRef, DRAWBOT_FontRef fontRef,
                 const DRAWBOT_UTF16Char* text, const DRAWBOT_PointF32* origin, DRAWBOT_TextAlignment alignment,
                 DRAWBOT_TextTruncation truncation, float truncationWidth) {
  const Trigger t = CheckHere("DrawString");
  DrawTarget* target = TargetOf(surface);
  const DrawObject* brush = ObjectOf(brushRef, DrawObject::Kind::Brush);
  const DrawObject* font = ObjectOf(fontRef, DrawObject::Kind::Font);
  // Left-aligned and untruncated only: what this stand-in can draw.
  PF_Err err = t.fired ? t.code
                       : (target && brush && font && text && origin && alignment == kDRAWBOT_TextAlignment_Left &&
                                  truncation == kDRAWBOT_TextTruncation_None
                              ? 0
                              : PF_Err_BAD_CALLBACK_PARAM);
  const std::u32string codes = FromUTF16(text);
  const std::string utf8 = ToUTF8(codes);
  if (!err && !RasteriseText(*target->canvas, codes, font->size, *origin, brush->color))
    err = PF_Err_INTERNAL_STRUCT_DAMAGED;
  if (!err) target->calls.push_back(DrawCall{"DrawString", utf8, origin->x, origin->y, 0, 0, brush->color, font->size});
  return Finish(kDRAWBOT_SurfaceSuite, "DrawString",
                Args("text=", utf8, " align=", alignment, " truncation=", truncation, " width=", truncationWidth), err);
}

SPErr DrawImage(DRAWBOT_SurfaceRef surface, DRAWBOT_ImageRef imageRef, const DRAWBOT_PointF32* origin, float alpha) {
  const Trigger t = CheckHere("DrawImage");
  DrawTarget* target = TargetOf(surface);
  const DrawObject* image = ObjectOf(imageRef, DrawObject::Kind::Image);
  const PF_Err err = t.fired ? t.code : (target && image && origin ? 0 : PF_Err_BAD_CALLBACK_PARAM);
  if (!err) {
    const Image& im = image->image;
    const int left = static_cast<int>(std::lround(origin->x)), top = static_cast<int>(std::lround(origin->y));
    for (int y = 0; y < im.height; ++y)
      for (int x = 0; x < im.width; ++x) Blend(*target->canvas, left + x, top + y, im.At(x, y), im.At(x, y)[3] * alpha);
    DrawCall call{"DrawImage", "", origin->x, origin->y, static_cast<float>(im.width), static_cast<float>(im.height)};
    call.alpha = alpha;
    target->calls.push_back(call);
  }
  return Finish(kDRAWBOT_SurfaceSuite, "DrawImage", Args("alpha=", alpha), err);
}

// ---- DRAWBOT Path Suite 1 ----

SPErr AddRect(DRAWBOT_PathRef pathRef, const DRAWBOT_RectF32* rect) {
  const Trigger t = CheckHere("AddRect");
  DrawObject* path = ObjectOf(pathRef, DrawObject::Kind::Path);
  const PF_Err err = t.fired ? t.code : (path && rect ? 0 : PF_Err_BAD_CALLBACK_PARAM);
  if (!err) path->rects.push_back(*rect);
  return Finish(kDRAWBOT_PathSuite, "AddRect",
                rect ? Args("rect=", rect->left, ",", rect->top, ",", rect->width, ",", rect->height) : "", err);
}

}  // namespace

const DRAWBOT_DrawbotSuite1 kDrawbotDrawSuite = {GetSupplier, GetSurface};
const DRAWBOT_SupplierSuite1 kDrawbotSupplierSuite = {NewBrush, NewDefaultFont, NewImageFromBuffer, NewPath,
                                                      ReleaseObject};
const DRAWBOT_SurfaceSuite2 kDrawbotSurfaceSuite = {FillPath, DrawString, DrawImage};
const DRAWBOT_PathSuite1 kDrawbotPathSuite = {AddRect};

std::string DrawbotFontPath() {
  namespace fs = std::filesystem;
  constexpr char kFile[] = "DejaVuSans.ttf";
  for (const char* known : {"/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf", "/usr/share/fonts/TTF/DejaVuSans.ttf",
                            "/usr/share/fonts/dejavu/DejaVuSans.ttf"})
    if (fs::is_regular_file(known)) return known;
  // Distributions differ in where fonts go.
  for (const char* root : {"/usr/share/fonts", "/usr/local/share/fonts"}) {
    std::error_code ec;
    for (fs::recursive_directory_iterator it(root, ec), end; !ec && it != end; it.increment(ec))
      if (it->path().filename() == kFile && it->is_regular_file(ec)) return it->path().string();
  }
  throw HostError(std::string("no ") + kFile +
                  " under /usr/share/fonts for the custom UI's text (Debian: apt-get install fonts-dejavu-core)");
}

void LoadDrawbotFont() {
#if !defined(TD_HOST_FREETYPE)
  throw HostError("this build of the host has no FreeType to draw text with");
#else
  std::lock_guard<std::mutex> lock(gFontMutex);
  if (gFace) return;
  const std::string path = DrawbotFontPath();
  if (!gFreeType && FT_Init_FreeType(&gFreeType)) throw HostError("FreeType could not start");
  if (FT_New_Face(gFreeType, path.c_str(), 0, &gFace)) {
    gFace = nullptr;
    throw HostError("FreeType cannot read the font " + path);
  }
#endif
}

}  // namespace aehost
