#include "OutputStaging.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
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
// In a sequence's folder while its files are being moved into place: one line
// a file, "R name" where it replaces a file (kept in kReplaced), "N name" where
// it is new. Its presence means the publish did not finish.
constexpr char kJournal[] = ".journal";
constexpr char kReplaced[] = ".replaced";

fs::path FolderOf(const fs::path& output) {
  return output.parent_path().empty() ? fs::path(".") : output.parent_path();
}

// Writes `text` to `file` and makes it durable before anything it describes happens.
void WriteDurably(const fs::path& file, const std::string& text) {
  const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  bool ok = fd >= 0 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) && ::fsync(fd) == 0;
  if (fd >= 0) ok = (::close(fd) == 0) && ok;
  const int dirFd = ::open(file.parent_path().c_str(), O_RDONLY | O_CLOEXEC);
  if (dirFd >= 0) ::fsync(dirFd), ::close(dirFd);
  if (!ok) throw Failure("cannot write " + file.string() + ": " + std::strerror(errno));
}

// Puts `folder`'s interrupted publish back as it was before it: replaced files
// return, files it added go. Returns how many files it restored or removed.
int RollBack(const fs::path& folder, const fs::path& dir) {
  std::ifstream journal(folder / kJournal);
  int undone = 0;
  std::string line;
  while (std::getline(journal, line)) {
    if (line.size() < 3) continue;
    const std::string name = fs::path(line.substr(2)).filename().string();
    std::error_code ec;
    if (line[0] == 'R' && fs::exists(folder / kReplaced / name, ec)) {
      fs::rename(folder / kReplaced / name, dir / name, ec);
      undone += !ec;
    } else if (line[0] == 'N' && !fs::exists(folder / name, ec)) {  // moved out: it is ours
      undone += fs::remove(dir / name, ec);
    }
  }
  std::error_code ec;
  fs::remove(folder / kJournal, ec);
  return undone;
}

// Hidden temporaries of this tool in `dir` that no living run holds. A run
// killed while publishing a sequence is undone first: its journal and kept
// files are never thrown away with the folder.
void RemoveStale(const fs::path& dir) {
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(dir, ec)) {
    const std::string name = entry.path().filename().string();
    if (name.rfind(kFolderStem, 0) != 0 && (name[0] != '.' || name.find(kFileMark) == std::string::npos)) continue;
    const int fd = ::open(entry.path().c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) continue;
    if (::flock(fd, LOCK_EX | LOCK_NB) == 0) {
      std::error_code absent;
      if (fs::exists(entry.path() / kJournal, absent)) {
        const int n = RollBack(entry.path(), dir);
        std::fprintf(stderr, "tremor-render: undid an interrupted publish in %s (%d files put back as they were)\n",
                     dir.c_str(), n);
      }
      fs::remove_all(entry.path(), ec);
    }
    ::close(fd);
  }
}

}  // namespace

Staging::Staging(const fs::path& output, bool sequence) : output_(output), sequence_(sequence) {
  const fs::path dir = FolderOf(output);
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

void Staging::Commit(const std::vector<std::string>& files) { PublishTogether(*this, nullptr, files); }

void Staging::Publish(const std::vector<std::string>& files) {
  std::error_code ec;
  if (!sequence_) {
    // The file it replaces stays (linked) until Discard, for Undo.
    std::error_code absent;
    if (fs::is_regular_file(output_, absent)) {
      kept_ = temp_.string() + kReplaced;
      fs::create_hard_link(output_, kept_, ec);
      if (ec) kept_.clear(), ec.clear();  // no links on this file system: Undo removes the output
    }
    fs::rename(temp_, output_, ec);
    if (ec) throw Failure("cannot rename " + temp_.string() + " to " + output_.string() + ": " + ec.message());
    published_ = true;
    return;
  }
  // All files or none: the files they replace are kept (linked) in the
  // temporary folder, and the journal says which, before the first one moves.
  const fs::path dir = FolderOf(output_), kept = temp_ / kReplaced;
  fs::create_directory(kept, ec);
  std::string journal;
  for (const auto& f : files) {
    const fs::path target = dir / fs::path(f).filename();
    std::error_code absent;  // no file there yet is no failure
    const bool replaces = fs::is_regular_file(target, absent);
    if (replaces) {
      fs::create_hard_link(target, kept / target.filename(), ec);
      if (ec) ec.clear(), fs::copy_file(target, kept / target.filename(), ec);  // no links on this file system
      if (ec) throw Failure("cannot keep " + target.string() + " while publishing: " + ec.message());
    }
    journal += (replaces ? "R " : "N ") + target.filename().string() + "\n";
  }
  WriteDurably(temp_ / kJournal, journal);
  published_ = true;
  for (const auto& f : files) {
    const fs::path target = dir / fs::path(f).filename();
    fs::rename(f, target, ec);
    if (ec) {
      const std::string why = "cannot publish " + target.string() + ": " + ec.message();
      Undo();
      throw Failure(why);
    }
  }
}

void Staging::Undo() {
  if (!published_) return;
  std::error_code ec;
  if (sequence_)
    RollBack(temp_, FolderOf(output_));
  else if (!kept_.empty())
    fs::rename(kept_, output_, ec);
  else
    fs::remove(output_, ec);
  published_ = false;
}

std::string Staging::Public(std::string message) const {
  if (temp_.empty()) return message;
  const std::string hidden = temp_.string();
  const std::string shown = sequence_ ? FolderOf(output_).string() : output_.string();
  for (size_t at = message.find(hidden); at != std::string::npos; at = message.find(hidden, at + shown.size()))
    message.replace(at, hidden.size(), shown);
  return message;
}

void Staging::Discard() {
  if (temp_.empty()) return;
  std::error_code ec;
  // The journal goes first: without it the folder is only leftovers.
  if (sequence_) fs::remove(temp_ / kJournal, ec);
  fs::remove_all(temp_, ec);
  if (!kept_.empty()) fs::remove(kept_, ec);
  RemoveOnSecondSignal(temp_, false);
  temp_.clear();
  if (lock_ >= 0) ::close(lock_);
  lock_ = -1;
}

void PublishTogether(Staging& output, Staging* snapshot, const std::vector<std::string>& files) {
  {
    // A second signal waits until the files are in place or put back.
    const auto hold = HoldSecondSignal();
    output.Publish(files);
    if (snapshot) {
      try {
        snapshot->Publish({});
      } catch (...) {
        output.Undo();
        throw;
      }
    }
    MarkPublished(hold);
  }
  output.Discard();
  if (snapshot) snapshot->Discard();
}

}  // namespace render
