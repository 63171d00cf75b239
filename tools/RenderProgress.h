// Progress of a render on standard error: a redrawn bar on a terminal, plain
// lines every couple of seconds otherwise (logs of render farms), nothing when quiet.
#ifndef TREMOR_TOOLS_RENDERPROGRESS_H
#define TREMOR_TOOLS_RENDERPROGRESS_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>

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

// Prints `line` once if the step it spans (its lifetime) takes longer than
// `after`: building the kernels, which a device's cache makes quick from then
// on, is the only slow part of opening a device.
class SlowStepNotice {
 public:
  SlowStepNotice(std::string line, std::chrono::milliseconds after, bool quiet, std::FILE* out = stderr);
  ~SlowStepNotice();
  SlowStepNotice(const SlowStepNotice&) = delete;
  SlowStepNotice& operator=(const SlowStepNotice&) = delete;

 private:
  std::mutex mutex_;
  std::condition_variable done_;
  bool finished_ = false;
  std::thread waiter_;
};

}  // namespace render

#endif
