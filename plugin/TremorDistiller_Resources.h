// The module's own resources: where the about picture is found, and the bytes
// that the build compiles in from Resources/About.png.
#ifndef TREMORDISTILLER_RESOURCES_H
#define TREMORDISTILLER_RESOURCES_H

#include <cstddef>

// Numeric type and name of the about picture, as Windows builds carry it.
inline constexpr int kAboutResourceType = 255;
inline constexpr int kAboutResourceName = 254;

// Generated at build time from Resources/About.png.
extern const unsigned char kAboutImagePng[];
extern const size_t kAboutImagePng_size;

#endif
