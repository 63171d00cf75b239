// Linux counterpart of the sliver of Direct3D 9 the effect uses: asking the
// system's first adapter for its driver, description and device name. Only
// for naming the GPU in the log and the UI; nothing is ever drawn through it.
#pragma once

#if defined(_WIN32)
#if defined(__GNUC__)
// Windows builds are meant to leave this folder off the include path; a GCC
// (MinGW) build that keeps it still reaches the SDK's header.
#include_next <d3d9.h>
#else
#error "Windows builds take the SDK's d3d9.h: keep platform/win32 off the include path."
#endif
#else

#include <Windows.h>

#define D3D_SDK_VERSION 32

// The runtime's HRESULTs that this stand-in can give.
#define D3D_OK static_cast<HRESULT>(0)
#define D3DERR_NOTAVAILABLE static_cast<HRESULT>(0x8876086AU)
#define D3DERR_INVALIDCALL static_cast<HRESULT>(0x8876086CU)

#define MAX_DEVICE_IDENTIFIER_STRING 512

// The three strings only; the runtime's record goes on with version numbers
// and ids that the effect never reads. All NUL-terminated.
struct D3DADAPTER_IDENTIFIER9 {
  char Driver[MAX_DEVICE_IDENTIFIER_STRING];
  char Description[MAX_DEVICE_IDENTIFIER_STRING];
  char DeviceName[32];
};

// The two methods called through the real interface, with its signatures.
struct IDirect3D9 {
  virtual HRESULT GetAdapterIdentifier(UINT Adapter, DWORD Flags, D3DADAPTER_IDENTIFIER9* pIdentifier) = 0;
  virtual ULONG Release() = 0;

 protected:
  virtual ~IDirect3D9() = default;  // objects go through Release only
};

// Null when there is no adapter to describe, or SDKVersion isn't
// D3D_SDK_VERSION. Adapters are the GPUs of the NVIDIA kernel driver
// (/proc/driver/nvidia/gpus/*), in the order of their bus locations:
// "Model" gives Description, "Bus Location" DeviceName, and the first line of
// /proc/driver/nvidia/version Driver, each cut to fit its field.
IDirect3D9* Direct3DCreate9(UINT SDKVersion);

// --- Stand-in only: Direct3D has no such calls. --------------------------------
// Tests steer what Direct3DCreate9 finds so that they don't depend on the
// machine. Each call replaces the previous steering; the default is the
// system lookup under /proc.

// Non-null: adapter 0 reports a copy of *id (the only adapter). Null: back to
// the system lookup.
void SetAdapterIdentifierOverride(const D3DADAPTER_IDENTIFIER9* id);

enum class AdapterStandIn {
  System,      // the /proc lookup
  Missing,     // Direct3DCreate9 gives null, as where Direct3D 9 is absent
  Unreadable,  // an object is given, but GetAdapterIdentifier fails
};
void SetAdapterStandIn(AdapterStandIn mode);

// Objects from Direct3DCreate9 not yet released.
unsigned Direct3D9ObjectsAlive();

#endif
