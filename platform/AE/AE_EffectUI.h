// Stand-in declarations of the After Effects custom UI: the record that comes
// with PF_Cmd_EVENT, its window, area and event numbers, and the suite that
// turns a UI context into a Drawbot drawing reference.
#pragma once

#include "AE_Effect.h"
#include "DrawbotSuite.h"

typedef A_long PF_EventType;
enum {
  PF_Event_NEW_CONTEXT = 0,
  PF_Event_ACTIVATE,
  PF_Event_DO_CLICK,
  PF_Event_DRAG,
  PF_Event_DRAW,
  PF_Event_DEACTIVATE,
  PF_Event_CLOSE_CONTEXT,
  PF_Event_IDLE,
  PF_Event_KEYDOWN_OBSOLETE,
  PF_Event_ADJUST_CURSOR,
  PF_Event_KEYDOWN,
  PF_Event_MOUSE_EXITED,
  PF_Event_NUM_EVENTS
};

typedef A_long PF_WindowType;
enum { PF_Window_NONE = -1, PF_Window_COMP = 0, PF_Window_LAYER, PF_Window_EFFECT, PF_Window_PREVIEW };

// Which part of an effect's row in the effect controls panel an event is for.
typedef A_long PF_EffectArea;
enum { PF_EA_NONE = 0, PF_EA_PARAM_TITLE, PF_EA_CONTROL };

typedef A_long PF_EventOutFlags;
enum { PF_EO_NONE = 0, PF_EO_HANDLED_EVENT = 1L << 0, PF_EO_ALWAYS_UPDATE = 1L << 1, PF_EO_NEVER_UPDATE = 1L << 2 };

// One panel the effect draws in; the host keeps it between events.
typedef struct _PF_Context {
  A_u_long magic;
  PF_WindowType w_type;
  void* reserved;
} PF_Context, *PF_ContextPtr, **PF_ContextH;

typedef struct PF_EffectWindowInfo {
  PF_ParamIndex index;
  PF_EffectArea area;
  PF_LRect current_frame;  // the control's rectangle in the panel
  PF_LRect param_title_frame;
  A_long horiz_offset;
} PF_EffectWindowInfo;

typedef struct PF_EventExtra {
  PF_ContextH contextH;
  PF_EventType e_type;
  PF_EffectWindowInfo effect_win;  // for events in the effect controls panel
  PF_EventOutFlags evt_out_flags;
} PF_EventExtra;

#define kPFEffectCustomUISuite "PF Effect Custom UI Suite"
#define kPFEffectCustomUISuiteVersion1 1

typedef struct PF_EffectCustomUISuite1 {
  PF_Err (*PF_GetDrawingReference)(const PF_ContextH effect_contextH, DRAWBOT_DrawRef* referenceP0);
} PF_EffectCustomUISuite1;
