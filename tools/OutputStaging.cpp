#include "OutputStaging.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include "RenderJob.h"

namespace fs = std::filesystem;

namespace render {

namespace {

// A name no other run has, in containers sharing the folder too (where process
// ids repeat): made and reserved atomically from a template ending in XXXXXX.
fs::path Reserve(const fs::path& dir, const std::string& stem, const std::string& suffix, bool folder) {
  std::string name = (dir / (stem + "XXXXXX" + suffix)).string();
  const bool ok = folder ? ::mkdtemp(name.data()) != nullptr : [&] {
    const int fd = ::mkstemps(name.data(), static_cast<int>(suffix.size()));
    if (fd < 0) return false;
    // mkstemps makes the file private; the output gets the usual permissions.
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return ::fchmod(fd, 0666 & ~mask) == 0 && ::close(fd) == 0;
  }();
  if (!ok) throw Failure("cannot create a temporary file in " + dir.string() + ": " + std::strerror(errno));
  return name;
}

}  // namespace

Staging::Staging(const fs::path& output, bool sequence) : output_(output), sequence_(sequence) {
  const fs::path dir = output.parent_path().empty() ? fs::path(".") : output.parent_path();
  if (sequence_) {
    temp_ = Reserve(dir, ".tremor-render.tmp-", "", true);
    target_ = temp_ / output.filename();
  } else {
    temp_ = Reserve(dir, "." + output.stem().string() + ".tmp-", output.extension().string(), false);
    target_ = temp_;
  }
  RemoveOnSecondSignal(temp_, true);
}

void Staging::Commit(const std::vector<std::string>& files) {
  std::error_code ec;
  if (!sequence_) {
    fs::rename(temp_, output_, ec);
    if (ec) throw Failure("cannot rename " + temp_.string() + " to " + output_.string() + ": " + ec.message());
    Discard();
    return;
  }
  // All files or none: files they replace are kept (linked) in the temporary
  // folder until the last one is in place, and put back if one cannot be.
  const fs::path dir = output_.parent_path().empty() ? fs::path(".") : output_.parent_path();
  const fs::path kept = temp_ / ".replaced";
  fs::create_directory(kept, ec);
  std::vector<std::pair<fs::path, bool>> published;  // target, whether it replaced a file
  for (const auto& f : files) {
    const fs::path target = dir / fs::path(f).filename();
    std::error_code absent;  // no file there yet is no failure
    const bool replaces = fs::is_regular_file(target, absent);
    if (replaces) {
      fs::create_hard_link(target, kept / target.filename(), ec);
      if (ec) ec.clear(), fs::copy_file(target, kept / target.filename(), ec);  // no links on this file system
    }
    if (!ec) fs::rename(f, target, ec);
    if (ec) {
      const std::string why = "cannot publish " + target.string() + ": " + ec.message();
      for (const auto& [done, hadFile] : published) {
        std::error_code ignore;
        if (hadFile)
          fs::rename(kept / done.filename(), done, ignore);
        else
          fs::remove(done, ignore);
      }
      throw Failure(why);
    }
    published.emplace_back(target, replaces);
  }
  Discard();
}

void Staging::Discard() {
  if (temp_.empty()) return;
  std::error_code ec;
  fs::remove_all(temp_, ec);
  RemoveOnSecondSignal(temp_, false);
  temp_.clear();
}

}  // namespace render
