// The plug-in property list: the facts a host reads from the module's
// resources before it loads the code, built from the effect's identity
// constants so they cannot drift from what the code declares at run time.
#ifndef TREMORDISTILLER_PIPL_H
#define TREMORDISTILLER_PIPL_H

#include <cstdint>
#include <vector>

#include "AE_Effect.h"

// A four-character code as the host's tools pack it: first character in the
// high byte. "eFKT" is 0x65464B54.
constexpr A_long PiPLCode(const char (&code)[5]) {
  return static_cast<A_long>(static_cast<uint32_t>(static_cast<uint8_t>(code[0])) << 24 |
                             static_cast<uint32_t>(static_cast<uint8_t>(code[1])) << 16 |
                             static_cast<uint32_t>(static_cast<uint8_t>(code[2])) << 8 |
                             static_cast<uint32_t>(static_cast<uint8_t>(code[3])));
}

inline constexpr char kEffectEntryPoint[] = "EffectMain";
inline constexpr A_long kPiPLKindEffect = PiPLCode("eFKT");  // an After Effects effect
inline constexpr int kPiPLResourceId = 16000;

// The resource's bytes, little-endian, as Windows builds ship it (and this
// build writes beside the module).
std::vector<uint8_t> BuildPiPL();

#endif
