// Build-time tool: turns the preprocessed OpenCL kernel unit into a C++ source file
// that defines the program text as one NUL-terminated string constant.
//
//   embed_kernel_text <preprocessed.i> <out.cpp> <symbol> <source-root>
//
// GCC line markers ("# 12 \"/abs/path\" 1") become "#line 12 \"rel/path\"" so the
// OpenCL compiler's messages point at our files and the text does not depend on
// where the tree was checked out. Markers for <built-in> and <command-line> are
// dropped. Directives that survived preprocessing on purpose (the 16-bit switch)
// are normalised to start in column 0.
#include <fstream>
#include <iostream>
#include <regex>
#include <sstream>
#include <string>

namespace {

std::string Escape(const std::string& line) {
  std::ostringstream out;
  for (unsigned char c : line) {
    switch (c) {
      case '\\': out << "\\\\"; break;
      case '"': out << "\\\""; break;
      case '\t': out << "\\t"; break;
      default:
        if (c < 0x20 || c >= 0x7f) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\%03o", c);
          out << buf;
        } else {
          out << c;
        }
    }
  }
  return out.str();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::cerr << "usage: embed_kernel_text IN.i OUT.cpp SYMBOL SOURCE_ROOT\n";
    return 2;
  }
  std::ifstream in(argv[1]);
  if (!in) {
    std::cerr << "embed_kernel_text: cannot read " << argv[1] << "\n";
    return 1;
  }
  const std::string symbol = argv[3];
  std::string root = argv[4];
  if (!root.empty() && root.back() != '/') root += '/';

  static const std::regex marker(R"re(^# ([0-9]+) "([^"]*)"( [0-9])*\s*$)re");
  static const std::regex directive(R"re(^\s*#\s*(if|ifdef|ifndef|elif|else|endif)\b\s*(.*)$)re");

  std::ostringstream body;
  std::string line;
  std::smatch m;
  while (std::getline(in, line)) {
    if (std::regex_match(line, m, marker)) {
      std::string file = m[2];
      // Markers for <built-in> and friends, and GCC's "# 0" opener, are not
      // valid #line targets.
      if ((!file.empty() && file[0] == '<') || m[1] == "0") continue;
      if (file.compare(0, root.size(), root) == 0) file = file.substr(root.size());
      line = "#line " + m[1].str() + " \"" + file + "\"";
    } else if (std::regex_match(line, m, directive)) {
      line = "#" + m[1].str() + (m[2].length() ? " " + m[2].str() : std::string());
    }
    body << "    \"" << Escape(line) << "\\n\"\n";
  }

  std::ostringstream out;
  out << "// Generated at build time from the OpenCL kernel unit. Do not edit.\n"
      << "#include \"TremorDistiller_KernelText.h\"\n\n"
      << "extern const char " << symbol << "[] =\n"
      << body.str() << "    \"\";\n";

  const std::string tmp = std::string(argv[2]) + ".tmp";
  {
    std::ofstream o(tmp, std::ios::binary);
    o << out.str();
    if (!o) {
      std::cerr << "embed_kernel_text: cannot write " << tmp << "\n";
      return 1;
    }
  }
  if (std::rename(tmp.c_str(), argv[2]) != 0) {
    std::cerr << "embed_kernel_text: cannot rename to " << argv[2] << "\n";
    return 1;
  }
  return 0;
}
