#include "MediaCommon.h"

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <map>
#include <utility>
#include <vector>

extern "C" {
#include <libavutil/dict.h>
#include <libavutil/opt.h>
}

#include "MediaIO.h"

namespace media {

std::string AvError(int code) {
  char buf[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(code, buf, sizeof buf);
  return buf;
}

bool IsPattern(const std::string& path) { return av_filename_number_test(path.c_str()) != 0; }

std::string FrameName(const std::string& pattern, int64_t number) {
  char buf[4096];
  if (av_get_frame_filename2(buf, sizeof buf, pattern.c_str(), static_cast<int>(number), 0) < 0)
    throw MediaError("cannot name frame " + std::to_string(number) + " from pattern '" + pattern + "'");
  return buf;
}

namespace {

struct FileId {
  dev_t device;
  ino_t inode;
  bool operator<(const FileId& o) const { return device != o.device ? device < o.device : inode < o.inode; }
};

// The paths of local files FFmpeg opens for `url`: "file:" and the protocols
// that wrap other names (async:, cache:, subfile,...:, crypto:, concat:a|b,
// concatf:list) lead to them; a network or pipe URL opens none.
std::vector<std::string> OpenedPaths(const std::string& url, int depth = 0) {
  const char* found = avio_find_protocol_name(url.c_str());
  const std::string protocol = found ? found : "file";
  const size_t colon = url.find(':');
  auto inner = [&](const std::string& rest) {
    return depth < 8 ? OpenedPaths(rest, depth + 1) : std::vector<std::string>{};
  };
  if (protocol == "file") return {url.rfind("file:", 0) == 0 ? url.substr(5) : url};
  if (protocol == "crypto" && url.rfind("crypto+", 0) == 0) return inner(url.substr(7));
  if (colon == std::string::npos) return {};
  if (protocol == "async" || protocol == "cache" || protocol == "subfile" || protocol == "crypto")
    return inner(url.substr(colon + 1));
  if (protocol != "concat" && protocol != "concatf") return {};
  std::vector<std::string> paths;
  std::string list = url.substr(colon + 1), part;
  std::stringstream parts(list);
  if (protocol == "concatf") {
    for (const std::string& listFile : inner(list)) {
      std::ifstream names(listFile);
      while (std::getline(names, part))
        if (!part.empty())
          for (auto& p : inner(part)) paths.push_back(p);
    }
    return paths;
  }
  while (std::getline(parts, part, '|'))
    for (auto& p : inner(part)) paths.push_back(p);
  return paths;
}

// The regular files a name opens: itself, or a pattern's files.
std::vector<std::pair<FileId, std::string>> ExistingFiles(const std::string& name) {
  std::vector<std::pair<FileId, std::string>> files;
  auto add = [&](const std::string& file) {
    struct stat st {};
    if (::stat(file.c_str(), &st) == 0 && S_ISREG(st.st_mode)) files.push_back({{st.st_dev, st.st_ino}, file});
  };
  for (const std::string& path : OpenedPaths(name)) {
    if (!IsPattern(path)) {
      add(path);
    } else {
      for (const auto& [n, file] : PatternFiles(path)) add(file);
    }
  }
  return files;
}

// "5, 9-12" for the numbers between first and last that have no file.
std::string MissingNumbers(const std::map<int64_t, std::string>& files) {
  std::string text;
  int shown = 0;
  for (auto it = files.begin(), next = std::next(it); next != files.end(); it = next++) {
    if (next->first == it->first + 1) continue;
    if (++shown > 5) return text + ", ...";
    const int64_t from = it->first + 1, to = next->first - 1;
    text += (text.empty() ? "" : ", ") + std::to_string(from) + (to > from ? "-" + std::to_string(to) : "");
  }
  return text;
}

}  // namespace

bool IsFrameOf(const std::string& pattern, const std::string& path) {
  namespace fs = std::filesystem;
  std::error_code ec;
  const fs::path folder = fs::weakly_canonical(fs::absolute(path).parent_path(), ec);
  if (ec || folder != fs::weakly_canonical(fs::absolute(pattern).parent_path(), ec)) return false;
  const std::string name = fs::path(path).filename().string();
  for (size_t at = name.find_first_of("0123456789"); at != std::string::npos;) {
    const size_t end = name.find_first_not_of("0123456789", at);
    const std::string digits = name.substr(at, end == std::string::npos ? std::string::npos : end - at);
    if (digits.size() <= 9 && fs::path(FrameName(pattern, std::stoll(digits))).filename() == name) return true;
    at = end == std::string::npos ? end : name.find_first_of("0123456789", end);
  }
  return false;
}

bool Rereadable(const std::string& input) {
  const std::vector<std::string> paths = OpenedPaths(input);
  struct stat st {};
  for (const auto& path : paths)
    if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
  return !paths.empty();
}

std::string LocalOutputName(const std::string& output) {
  const std::vector<std::string> paths = OpenedPaths(output);
  if (paths.size() != 1 || (output.rfind("file:", 0) != 0 && paths[0] != output))
    throw MediaError("output '" + output + "' must be a file name");
  return paths[0];
}

std::map<int64_t, std::string> PatternFiles(const std::string& pattern) {
  std::map<int64_t, std::string> files;
  const std::filesystem::path folder = std::filesystem::path(pattern).parent_path();
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(folder.empty() ? "." : folder, ec)) {
    const std::string name = entry.path().filename().string();
    for (size_t at = name.find_first_of("0123456789"); at != std::string::npos;) {
      const size_t end = name.find_first_not_of("0123456789", at);
      const std::string digits = name.substr(at, end == std::string::npos ? std::string::npos : end - at);
      const int64_t n = digits.size() <= 9 ? std::stoll(digits) : -1;
      if (n >= 0 && (folder / name).string() == FrameName(pattern, n)) {
        files.emplace(n, (folder / name).string());
        break;
      }
      at = end == std::string::npos ? end : name.find_first_of("0123456789", end);
    }
  }
  return files;
}

std::string FileSharedByInputAndOutput(const std::string& input, const std::string& output) {
  std::map<FileId, std::string> inputs;
  for (auto& [id, file] : ExistingFiles(input)) inputs.emplace(id, file);
  for (const auto& [id, file] : ExistingFiles(output))
    if (inputs.count(id)) return inputs[id];
  return {};
}

FramePtr NewFrame(AVPixelFormat fmt, int w, int h) {
  FramePtr f(av_frame_alloc());
  if (!f) throw MediaError("out of memory for a frame");
  f->format = fmt;
  f->width = w;
  f->height = h;
  if (av_frame_get_buffer(f.get(), 0) < 0) throw MediaError("out of memory for a frame");
  return f;
}

SwsPtr NewScaler(int w, int h, AVPixelFormat src, AVPixelFormat dst, int flags) {
  SwsPtr s(sws_alloc_context());
  if (!s) return s;
  // Each slice is worked out from the whole source as one pass would, so the
  // thread count (one per core) changes no value.
  const std::pair<const char*, int64_t> options[] = {{"srcw", w},          {"srch", h},   {"src_format", src},
                                                     {"dstw", w},          {"dsth", h},   {"dst_format", dst},
                                                     {"sws_flags", flags}, {"threads", 0}};
  for (const auto& [key, value] : options)
    if (av_opt_set_int(s.get(), key, value, 0) < 0) return nullptr;
  if (sws_init_context(s.get(), nullptr, nullptr) < 0) return nullptr;
  return s;
}

// For a pattern the first existing number becomes start_number, since the
// demuxer only looks a few numbers ahead.
InputPtr OpenInput(const std::string& input) {
  AVDictionary* opts = nullptr;
  const AVInputFormat* fmt = nullptr;
  if (IsPattern(input)) {
    fmt = av_find_input_format("image2");
    // Every number from the first to the last must have its file: the
    // demuxer would stop at a gap, or take a lone missing file for a corrupt one.
    const std::map<int64_t, std::string> files = PatternFiles(input);
    if (files.empty()) throw MediaError("cannot open input '" + input + "': " + AvError(AVERROR(ENOENT)));
    if (const std::string missing = MissingNumbers(files); !missing.empty())
      throw MediaError("sequence '" + input + "' has no file for frame " + missing + " (its files run from " +
                       std::to_string(files.begin()->first) + " to " + std::to_string(files.rbegin()->first) + ")");
    av_dict_set_int(&opts, "start_number", files.begin()->first, 0);
  }
  AVFormatContext* raw = nullptr;
  const int r = avformat_open_input(&raw, input.c_str(), fmt, &opts);
  av_dict_free(&opts);
  if (r < 0) throw MediaError("cannot open input '" + input + "': " + AvError(r));
  InputPtr ctx(raw);
  const int s = avformat_find_stream_info(ctx.get(), nullptr);
  if (s < 0) throw MediaError("cannot open input '" + input + "': " + AvError(s));
  return ctx;
}

void QuietLibraries() { av_log_set_level(AV_LOG_QUIET); }

}  // namespace media
