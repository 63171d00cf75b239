#include "RenderProgress.h"

#include <algorithm>
#include <cmath>
#include <sstream>

namespace render {

Progress::Progress(int64_t total, bool quiet, bool terminal, std::FILE* out)
    : total_(total), quiet_(quiet), terminal_(terminal), out_(out), start_(Clock::now()), last_(start_) {}

double Progress::Seconds() const { return std::chrono::duration<double>(Clock::now() - start_).count(); }

std::string Progress::Line(int64_t done, int64_t total, double seconds, int barWidth) {
  std::ostringstream s;
  const double fps = seconds > 0 ? done / seconds : 0.0;
  if (total > 0 && barWidth > 0) {
    const int filled = static_cast<int>(barWidth * std::min<int64_t>(done, total) / total);
    s << '[' << std::string(filled, '#') << std::string(barWidth - filled, '.') << "] ";
  }
  s << done;
  if (total > 0) s << '/' << total;
  s << " frames";
  s.setf(std::ios::fixed);
  s.precision(1);
  s << ", " << fps << " fps";
  if (total > 0 && fps > 0 && done < total) {
    const long left = std::lround((total - done) / fps);
    s << ", " << left / 60 << ':' << (left % 60 < 10 ? "0" : "") << left % 60 << " left";
  }
  return s.str();
}

void Progress::Update(int64_t done) {
  if (quiet_) return;
  const auto now = Clock::now();
  if (terminal_) {
    // Redrawing more than ~10 times a second only costs time.
    if (drawn_ && now - last_ < std::chrono::milliseconds(100) && done != total_) return;
    std::fprintf(out_, "\r%s\033[K", Line(done, total_, Seconds(), 30).c_str());
    drawn_ = true;
  } else {
    if (now - last_ < std::chrono::seconds(2)) return;
    std::fprintf(out_, "tremor-render: %s\n", Line(done, total_, Seconds(), 0).c_str());
  }
  std::fflush(out_);
  last_ = now;
}

void Progress::Finish() {
  if (quiet_ || !drawn_) return;
  std::fprintf(out_, "\r\033[K");
  std::fflush(out_);
  drawn_ = false;
}

SlowStepNotice::SlowStepNotice(std::string line, std::chrono::milliseconds after, bool quiet, std::FILE* out) {
  if (quiet) return;
  waiter_ = std::thread([this, line = std::move(line), after, out] {
    std::unique_lock<std::mutex> lock(mutex_);
    if (done_.wait_for(lock, after, [this] { return finished_; })) return;
    std::fprintf(out, "%s\n", line.c_str());
    std::fflush(out);
  });
}

SlowStepNotice::~SlowStepNotice() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    finished_ = true;
  }
  done_.notify_all();
  if (waiter_.joinable()) waiter_.join();
}

}  // namespace render
