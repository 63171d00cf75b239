#include "OutputStaging.h"

#include <fcntl.h>
#include <sys/file.h>
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
// ids repeat): made and reserved atomically from a template ending in XXXXXX,
// and locked for as long as `lock` stays open.
fs::path Reserve(const fs::path& dir, const std::string& stem, const std::string& suffix, bool folder, int& lock) {
  std::string name = (dir / (stem + "XXXXXX" + suffix)).string();
  if (folder) {
    lock = ::mkdtemp(name.data()) ? ::open(name.c_str(), O_RDONLY | O_CLOEXEC) : -1;
  } else {
    lock = ::mkstemps(name.data(), static_cast<int>(suffix.size()));
    // mkstemps makes the file private; the output gets the usual permissions.
    const mode_t mask = ::umask(0);
    ::umask(mask);
    if (lock >= 0) ::fchmod(lock, 0666 & ~mask);
  }
  if (lock < 0 || ::flock(lock, LOCK_EX) != 0)
    throw Failure("cannot create a temporary file in " + dir.string() + ": " + std::strerror(errno));
  return name;
}

constexpr char kFolderStem[] = ".tremor-render.tmp-";
constexpr char kFileMark[] = ".tremor-render-";

// Hidden temporaries of this tool in `dir` that no living run holds.
void RemoveStale(const fs::path& dir) {
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(dir, ec)) {
    const std::string name = entry.path().filename().string();
    if (name.rfind(kFolderStem, 0) != 0 && (name[0] != '.' || name.find(kFileMark) == std::string::npos)) continue;
    const int fd = ::open(entry.path().c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) continue;
    if (::flock(fd, LOCK_EX | LOCK_NB) == 0) fs::remove_all(entry.path(), ec);
    ::close(fd);
  }
}

}  // namespace

Staging::Staging(const fs::path& output, bool sequence) : output_(output), sequence_(sequence) {
  const fs::path dir = output.parent_path().empty() ? fs::path(".") : output.parent_path();
  RemoveStale(dir);
  if (sequence_) {
    temp_ = Reserve(dir, kFolderStem, "", true, lock_);
    target_ = temp_ / output.filename();
  } else {
    temp_ = Reserve(dir, "." + output.stem().string() + kFileMark, output.extension().string(), false, lock_);
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

std::string Staging::Public(std::string message) const {
  if (temp_.empty()) return message;
  const std::string hidden = temp_.string();
  const fs::path dir = output_.parent_path().empty() ? fs::path(".") : output_.parent_path();
  const std::string shown = sequence_ ? dir.string() : output_.string();
  for (size_t at = message.find(hidden); at != std::string::npos; at = message.find(hidden, at + shown.size()))
    message.replace(at, hidden.size(), shown);
  return message;
}

void Staging::Discard() {
  if (temp_.empty()) return;
  std::error_code ec;
  fs::remove_all(temp_, ec);
  RemoveOnSecondSignal(temp_, false);
  temp_.clear();
  if (lock_ >= 0) ::close(lock_);
  lock_ = -1;
}

}  // namespace render
