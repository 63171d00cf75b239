// Stand-in for the host's basic suite: how an effect acquires and releases the
// host's named, versioned suites.
#pragma once

#include <cstdint>

typedef int32_t SPErr;
#define kSPNoError 0

typedef struct SPBasicSuite {
  // Fills *suite with the host's function table of that name and version;
  // non-zero when the host has no such suite.
  SPErr (*AcquireSuite)(const char* name, int32_t version, const void** suite);
  SPErr (*ReleaseSuite)(const char* name, int32_t version);
} SPBasicSuite;
