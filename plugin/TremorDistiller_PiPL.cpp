#include "TremorDistiller_PiPL.h"

#include <initializer_list>

#include "TremorDistiller.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct PiPLProperty {
  A_long key;
  Bytes data;  // unpadded unless the data itself counts its padding
};

void PutLong(Bytes& out, uint32_t v) {
  for (int shift = 0; shift < 32; shift += 8) out.push_back(static_cast<uint8_t>(v >> shift));
}

void PutShort(Bytes& out, uint16_t v) {
  out.push_back(static_cast<uint8_t>(v));
  out.push_back(static_cast<uint8_t>(v >> 8));
}

void PadToFour(Bytes& out) {
  while (out.size() % 4) out.push_back(0);
}

Bytes Long(A_long v) {
  Bytes b;
  PutLong(b, static_cast<uint32_t>(v));
  return b;
}

Bytes Shorts(std::initializer_list<A_long> values) {
  Bytes b;
  for (A_long v : values) PutShort(b, static_cast<uint16_t>(v));
  return b;
}

// Strings carry their zero padding inside their length.
template <size_t N>
Bytes PascalString(const char (&text)[N]) {
  static_assert(N - 1 <= 255, "a Pascal string holds at most 255 characters");
  Bytes b{static_cast<uint8_t>(N - 1)};
  b.insert(b.end(), text, text + N - 1);
  PadToFour(b);
  return b;
}

template <size_t N>
Bytes CString(const char (&text)[N]) {
  Bytes b(text, text + N);  // terminator included
  PadToFour(b);
  return b;
}

std::vector<PiPLProperty> PiPLProperties() {
  return {
      {PiPLCode("kind"), Long(kPiPLKindEffect)},
      {PiPLCode("name"), PascalString(kEffectName)},
      {PiPLCode("catg"), PascalString(kEffectCategory)},
      {PiPLCode("8664"), CString(kEffectEntryPoint)},
      {PiPLCode("ePVR"), Shorts({2, 0})},
      {PiPLCode("eSVR"), Shorts({kEffectApiMajor, kEffectApiMinor})},
      {PiPLCode("eVER"), Long(static_cast<A_long>(kEffectVersion))},
      {PiPLCode("eINF"), Shorts({0})},
      {PiPLCode("eGLO"), Long(kGlobalOutFlags)},
      {PiPLCode("eGL2"), Long(kGlobalOutFlags2)},
      {PiPLCode("eMNA"), PascalString(kEffectMatchName)},
      {PiPLCode("aeFL"), Long(kEffectReservedInfo)},
  };
}

}  // namespace

std::vector<uint8_t> BuildPiPL() {
  const std::vector<PiPLProperty> properties = PiPLProperties();
  Bytes out;
  PutShort(out, 1);  // list version
  PutLong(out, 0);
  PutLong(out, static_cast<uint32_t>(properties.size()));
  for (const PiPLProperty& p : properties) {
    PutLong(out, static_cast<uint32_t>(PiPLCode("8BIM")));
    PutLong(out, static_cast<uint32_t>(p.key));
    PutLong(out, 0);  // id
    PutLong(out, static_cast<uint32_t>(p.data.size()));
    out.insert(out.end(), p.data.begin(), p.data.end());
    out.insert(out.end(), (4 - p.data.size() % 4) % 4, 0);  // not counted in the length
  }
  return out;
}
