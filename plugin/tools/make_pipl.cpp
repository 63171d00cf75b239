// Writes the plug-in property list to argv[1]; the build ships it beside the
// module as TremorDistiller.pipl.
#include <cstdio>
#include <fstream>
#include <vector>

#include "TremorDistiller_PiPL.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: make_pipl OUTPUT\n");
    return 2;
  }
  const std::vector<uint8_t> pipl = BuildPiPL();
  std::ofstream file(argv[1], std::ios::binary | std::ios::trunc);
  file.write(reinterpret_cast<const char*>(pipl.data()), static_cast<std::streamsize>(pipl.size()));
  file.close();
  if (!file) {
    std::fprintf(stderr, "make_pipl: cannot write %s\n", argv[1]);
    return 1;
  }
  return 0;
}
