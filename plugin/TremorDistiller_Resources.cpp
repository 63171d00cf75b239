// Without a resource section, the module registers its about picture with the
// resource stand-in as it loads, before the host can send PF_Cmd_GLOBAL_SETUP.
// A Windows build carries the same bytes as resource 255/254 instead.
#include "TremorDistiller_Resources.h"

#include <Windows.h>

#if !defined(_WIN32)
namespace {

[[maybe_unused]] const bool kAboutImageRegistered =
    (RegisterModuleResource(kAboutResourceType, kAboutResourceName, kAboutImagePng, kAboutImagePng_size), true);

}  // namespace
#endif
