// The effect control's picture: decoded once at global set-up from the
// module's own resources.
#include <Windows.h>

#include <cstring>
#include <memory>
#include <sstream>
#include <vector>

// Built static into this unit; most of the decoder goes unused here.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-function"
#define STB_IMAGE_IMPLEMENTATION
#include <stb_image.h>
#pragma GCC diagnostic pop

#include "LogsController.h"
#include "TremorDistiller.h"
#include "TremorDistiller_Resources.h"

namespace {

constexpr int32_t kDrawbotPixelLayout32BGR = 3;  // kDRAWBOT_PixelLayout_32BGR
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
  about->pixelLayout = kDrawbotPixelLayout32BGR;

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
