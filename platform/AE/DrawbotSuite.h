// Stand-in declarations of the host's Drawbot suites: the drawing interface
// custom effect controls draw through. Only the operations the effect calls
// are declared; names and values are the host's, layouts our own.
#pragma once

#include <cstdint>

#include "SPBasic.h"

typedef struct _DRAWBOT_DrawRef* DRAWBOT_DrawRef;
typedef struct _DRAWBOT_SupplierRef* DRAWBOT_SupplierRef;
typedef struct _DRAWBOT_SurfaceRef* DRAWBOT_SurfaceRef;
// Everything the supplier makes is an object, released with ReleaseObject.
typedef struct _DRAWBOT_ObjectRef* DRAWBOT_ObjectRef;
typedef DRAWBOT_ObjectRef DRAWBOT_BrushRef;
typedef DRAWBOT_ObjectRef DRAWBOT_FontRef;
typedef DRAWBOT_ObjectRef DRAWBOT_ImageRef;
typedef DRAWBOT_ObjectRef DRAWBOT_PathRef;

typedef uint16_t DRAWBOT_UTF16Char;  // NUL-terminated strings of these

typedef struct DRAWBOT_PointF32 {
  float x, y;
} DRAWBOT_PointF32;

typedef struct DRAWBOT_RectF32 {
  float left, top, width, height;
} DRAWBOT_RectF32;

typedef struct DRAWBOT_ColorRGBA {
  float red, green, blue, alpha;  // 0..1, alpha straight
} DRAWBOT_ColorRGBA;

typedef int32_t DRAWBOT_PixelLayout;
enum {
  kDRAWBOT_PixelLayout_24RGB = 0,
  kDRAWBOT_PixelLayout_24BGR,
  kDRAWBOT_PixelLayout_32RGB,  // R, G, B and a byte the host ignores
  kDRAWBOT_PixelLayout_32BGR,  // B, G, R and a byte the host ignores
  kDRAWBOT_PixelLayout_32ARGB_Straight,
  kDRAWBOT_PixelLayout_32ARGB_Premul,
  kDRAWBOT_PixelLayout_32BGRA_Straight,
  kDRAWBOT_PixelLayout_32BGRA_Premul
};

typedef int32_t DRAWBOT_FillType;
enum { kDRAWBOT_FillType_EvenOdd = 0, kDRAWBOT_FillType_Winding = 1 };

typedef int32_t DRAWBOT_TextAlignment;
enum { kDRAWBOT_TextAlignment_Left = 0, kDRAWBOT_TextAlignment_Center, kDRAWBOT_TextAlignment_Right };

typedef int32_t DRAWBOT_TextTruncation;
enum { kDRAWBOT_TextTruncation_None = 0, kDRAWBOT_TextTruncation_EndEllipsis };

#define kDRAWBOT_DrawSuite "DRAWBOT Draw Suite"
#define kDRAWBOT_DrawSuite_Version1 1
#define kDRAWBOT_SupplierSuite "DRAWBOT Supplier Suite"
#define kDRAWBOT_SupplierSuite_Version1 1
#define kDRAWBOT_SurfaceSuite "DRAWBOT Surface Suite"
#define kDRAWBOT_SurfaceSuite_Version2 2
#define kDRAWBOT_PathSuite "DRAWBOT Path Suite"
#define kDRAWBOT_PathSuite_Version1 1

typedef struct DRAWBOT_DrawbotSuite1 {
  SPErr (*GetSupplier)(DRAWBOT_DrawRef in_drawbot_ref, DRAWBOT_SupplierRef* out_supplierP);
  SPErr (*GetSurface)(DRAWBOT_DrawRef in_drawbot_ref, DRAWBOT_SurfaceRef* out_surfaceP);
} DRAWBOT_DrawbotSuite1;

typedef struct DRAWBOT_SupplierSuite1 {
  SPErr (*NewBrush)(DRAWBOT_SupplierRef in_supplier_ref, const DRAWBOT_ColorRGBA* in_colorP,
                    DRAWBOT_BrushRef* out_brushP);
  SPErr (*NewDefaultFont)(DRAWBOT_SupplierRef in_supplier_ref, float in_font_sizeF, DRAWBOT_FontRef* out_fontP);
  // Rows of in_row_bytes, top to bottom; the pixels are copied.
  SPErr (*NewImageFromBuffer)(DRAWBOT_SupplierRef in_supplier_ref, int in_width, int in_height, int in_row_bytes,
                              DRAWBOT_PixelLayout in_pl, const void* in_dataP, DRAWBOT_ImageRef* out_imageP);
  SPErr (*NewPath)(DRAWBOT_SupplierRef in_supplier_ref, DRAWBOT_PathRef* out_pathP);
  SPErr (*ReleaseObject)(DRAWBOT_ObjectRef in_obj_ref);
} DRAWBOT_SupplierSuite1;

typedef struct DRAWBOT_SurfaceSuite2 {
  SPErr (*FillPath)(DRAWBOT_SurfaceRef in_surface_ref, DRAWBOT_BrushRef in_brush_ref, DRAWBOT_PathRef in_path_ref,
                    DRAWBOT_FillType in_fill_type);
  // in_originP is the start of the text's baseline.
  SPErr (*DrawString)(DRAWBOT_SurfaceRef in_surface_ref, DRAWBOT_BrushRef in_brush_ref, DRAWBOT_FontRef in_font_ref,
                      const DRAWBOT_UTF16Char* in_stringP, const DRAWBOT_PointF32* in_originP,
                      DRAWBOT_TextAlignment in_alignment_style, DRAWBOT_TextTruncation in_truncation_style,
                      float in_truncation_width);
  SPErr (*DrawImage)(DRAWBOT_SurfaceRef in_surface_ref, DRAWBOT_ImageRef in_image_ref,
                     const DRAWBOT_PointF32* in_originP, float in_alpha);
} DRAWBOT_SurfaceSuite2;

typedef struct DRAWBOT_PathSuite1 {
  SPErr (*AddRect)(DRAWBOT_PathRef in_path_ref, const DRAWBOT_RectF32* in_rectPR);
} DRAWBOT_PathSuite1;
