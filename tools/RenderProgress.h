// Progress of a render on standard error: a redrawn bar on a terminal, plain
// lines every couple of seconds otherwise (logs of render farms), nothing when quiet.
#ifndef TREMOR_TOOLS_RENDERPROGRESS_H
#define TREMOR_TOOLS_RENDERPROGRESS_H

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>

namespace render {

class Progress {
 public:
  // total -1 when the frame count is not known beforehand.
  Progress(int64_t total, bool quiet, bool terminal, std::FILE* out = stderr);
  void Update(int64_t done);
  // Clears the bar; call before printing an error or the summary.
  void Finish();
  double Seconds() const;

  // The text of one report, without line ending; for tests and both modes.
  static std::string Line(int64_t done, int64_t total, double seconds, int barWidth);

 private:
  using Clock = std::chrono::steady_clock;
  int64_t total_;
  bool quiet_, terminal_;
  std::FILE* out_;
  Clock::time_point start_, last_;
  bool drawn_ = false;
};

}  // namespace render

#endif
