#include "OutputStaging.h"

#include <unistd.h>

#include <system_error>

#include "RenderJob.h"

namespace fs = std::filesystem;

namespace render {

Staging::Staging(const fs::path& output, bool sequence) : output_(output), sequence_(sequence) {
  const fs::path dir = output.parent_path().empty() ? fs::path(".") : output.parent_path();
  const std::string pid = std::to_string(::getpid());
  if (sequence_) {
    temp_ = dir / (".tremor-render.tmp-" + pid);
    std::error_code ec;
    fs::create_directory(temp_, ec);
    if (ec) throw Failure("cannot create a folder in " + dir.string() + ": " + ec.message());
    target_ = temp_ / output.filename();
  } else {
    temp_ = dir / ("." + output.stem().string() + ".tmp-" + pid + output.extension().string());
    target_ = temp_;
  }
}

void Staging::Commit(const std::vector<std::string>& files) {
  std::error_code ec;
  if (sequence_) {
    for (const auto& f : files) {
      fs::rename(f, output_.parent_path() / fs::path(f).filename(), ec);
      if (ec) throw Failure("cannot rename " + f + ": " + ec.message());
    }
  } else {
    fs::rename(temp_, output_, ec);
    if (ec) throw Failure("cannot rename " + temp_.string() + " to " + output_.string() + ": " + ec.message());
  }
  Discard();
}

void Staging::Discard() {
  if (temp_.empty()) return;
  std::error_code ec;
  fs::remove_all(temp_, ec);
  temp_.clear();
}

}  // namespace render
