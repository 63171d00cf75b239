// MediaIO: values, timing and naming of each output format read back through
// Reader, the integer and Y'CbCr read paths, and the audio copy.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "MediaIO.h"

namespace {

namespace fs = std::filesystem;
using media::Picture;

// A fresh folder per test under the build tree (a parameterised one's name nests).
fs::path TempDir() {
  media::QuietLibraries();
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  const fs::path dir = fs::path(TD_TEST_TMP_DIR) / "media_io" / info->test_suite_name() / info->name();
  fs::remove_all(dir);
  fs::create_directories(dir);
  return dir;
}

void Sh(const std::string& cmd) { ASSERT_EQ(std::system((cmd + " >/dev/null 2>&1").c_str()), 0) << cmd; }

// Smooth ramps (a wrong Y'CbCr matrix shows), R rising and B falling (a
// swapped pair shows), R beyond 0..1 at both ends, steps finer than 16 bits in G.
Picture Ramps(int k) {
  Picture p{64, 32, {}};
  for (int y = 0; y < 32; ++y)
    for (int x = 0; x < 64; ++x) {
      const float u = x / 64.0f, v = y / 32.0f;
      p.rgba.insert(p.rgba.end(),
                    {-0.2f + 1.4f * u, 0.1f + 0.7f * v + 0.01f * k + 1e-7f * x, 0.9f - 0.8f * u, 0.25f + 0.7f * u});
    }
  return p;
}

std::vector<Picture> ReadAll(const std::string& path, media::InputInfo* info = nullptr) {
  media::Reader r(path);
  if (info) *info = r.Info();
  std::vector<Picture> out;
  Picture p;
  while (r.Next(p)) out.push_back(p);
  return out;
}

// 16x4 pixels of raw `bytes` in ffmpeg's `pixFmt`, made into `file` by the
// ffmpeg CLI with `fileArgs`, read back: the file's one picture.
Picture ThroughFfmpeg(const std::string& bytes, const std::string& pixFmt, const std::string& fileArgs,
                      const fs::path& file) {
  const std::string raw = file.string() + ".raw";
  std::ofstream(raw, std::ios::binary) << bytes;
  Sh("ffmpeg -y -f rawvideo -pix_fmt " + pixFmt + " -s 16x4 -i " + raw + " " + fileArgs + " -frames:v 1 " +
     file.string());
  const auto out = ReadAll(file.string());  // one file, no pattern
  EXPECT_TRUE(out.size() == 1 && out[0].rgba.size() == 16 * 4 * 4) << file;
  return out.empty() ? Picture{} : out[0];
}

std::vector<std::string> WriteAll(const std::string& path, const std::vector<Picture>& pics, int64_t first,
                                  media::Rational rate, const std::string& audio = "") {
  media::InputInfo info;
  info.frameRate = rate;
  media::Writer w(path, media::OutputFormatFor(path), info, audio);
  for (size_t i = 0; i < pics.size(); ++i) w.Write(pics[i], first + static_cast<int64_t>(i));
  w.Finish();
  return w.Files();
}

struct Format {
  const char* file;  // the extension in any case picks the format
  media::Rational rate;
  int64_t frameCount;  // as the reader reports it
  float maxError;      // per value against the clamped input (EXR: unclamped)
  float meanError;     // of R, G, B
  float alphaError;    // < 0: alpha must read as 1
};

void PrintTo(const Format& f, std::ostream* os) { *os << f.file; }

class RoundTrip : public ::testing::TestWithParam<Format> {};

// Frames numbered from 5: a sequence names its files so and reads from there.
TEST_P(RoundTrip, ValuesTimingAndNamesComeBack) {
  const Format& f = GetParam();
  const std::string path = (TempDir() / f.file).string();
  const bool sequence = media::OutputFormatFor(path).sequence;
  const std::vector<Picture> in = {Ramps(0), Ramps(1), Ramps(2)};
  const auto files = WriteAll(path, in, 5, f.rate);
  ASSERT_EQ(files.size(), sequence ? 3u : 1u);
  if (sequence) {
    EXPECT_EQ(fs::path(files[0]).filename().string().substr(2, 4), "0005");
  }

  media::InputInfo info;
  const auto out = ReadAll(path, &info);
  ASSERT_EQ(out.size(), in.size());
  EXPECT_EQ(info.width, 64);
  EXPECT_EQ(info.isSequence, sequence);
  EXPECT_EQ(info.frameCount, f.frameCount);
  EXPECT_EQ(int64_t{info.frameRate.num} * f.rate.den, int64_t{f.rate.num} * info.frameRate.den);
  for (size_t k = 0; k < in.size(); ++k) {
    double sum = 0;
    for (size_t i = 0; i < in[k].rgba.size(); ++i) {
      const float v = in[k].rgba[i];
      const float want = f.maxError == 0 ? v : i % 4 == 3 && f.alphaError < 0 ? 1.0f : std::fmin(std::fmax(v, 0), 1);
      const float err = std::fabs(out[k].rgba[i] - want);
      ASSERT_LE(err, i % 4 == 3 ? std::fmax(f.alphaError, 0.0f) : f.maxError) << "frame " << k << " value " << i;
      if (i % 4 != 3) sum += err;
    }
    EXPECT_LE(sum / (in[k].rgba.size() * 3 / 4), f.meanError) << "frame " << k;
  }
}

constexpr float kU16 = 0.51f / 65535;  // a rounding away from exact
INSTANTIATE_TEST_SUITE_P(Formats, RoundTrip,
                         ::testing::Values(Format{"f.%04d.exr", {25, 1}, 3, 0.0f, 0.0f, 0.0f},
                                           Format{"f.%04d.PNG", {25, 1}, 3, kU16, kU16, kU16},
                                           Format{"f.mkv", {30000, 1001}, -1, kU16, kU16, kU16},
                                           Format{"f.MOV", {24, 1}, 3, 0.01f, 0.002f, 1.5f / 1023},
                                           Format{"f.mp4", {30000, 1001}, 3, 0.1f, 0.015f, -1.0f}));

// PNGs and TIFFs from FFmpeg's own encoders: 8-bit v reads as v/255, 16-bit v as v/65535,
// grey fills R, G and B, and no alpha reads as 1.
TEST(ReadPaths, IntegerPngAndTiffAreVOverMax) {
  const fs::path dir = TempDir();
  const struct {
    const char* raw;   // little-endian input to ffmpeg
    const char* file;  // pixel format of the file
    int channels, bytes;
    bool alpha;
    const char* ext = ".png";
  } cases[] = {{"rgba", "rgba", 4, 1, true},
               {"rgba", "rgb24", 4, 1, false},
               {"gray", "gray", 1, 1, false},
               {"rgba64le", "rgba64be", 4, 2, true},
               {"rgba64le", "rgb48be", 4, 2, false},
               {"gray16le", "gray16be", 1, 2, false},
               {"rgba", "rgba", 4, 1, true, ".tif"},
               {"rgba64le", "rgba64le", 4, 2, true, ".tif"},
               {"rgba64le", "rgb48le", 4, 2, false, ".tif"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.file) + c.ext);
    std::vector<unsigned> values(16 * 4 * c.channels);
    std::string raw;
    for (size_t i = 0; i < values.size(); ++i) {
      values[i] = c.bytes == 1 ? (i * 37 + 11) % 256 : (i * 4099 + 17) % 65536;
      for (int b = 0; b < c.bytes; ++b) raw.push_back(static_cast<char>((values[i] >> (8 * b)) & 0xff));
    }
    const Picture out =
        ThroughFfmpeg(raw, c.raw, std::string("-pix_fmt ") + c.file, dir / (std::string(c.file) + c.ext));
    const float max = c.bytes == 1 ? 255.0f : 65535.0f;
    for (size_t i = 0; i < 16 * 4 * 4; ++i) {
      const size_t p = i / 4, k = i % 4;
      const float want = k == 3 && !c.alpha ? 1.0f : values[p * c.channels + (c.channels == 1 ? 0 : k)] / max;
      ASSERT_EQ(out.rgba.at(i), want) << "pixel " << p << " channel " << k;
    }
  }
}

// Y'CbCr with the stream's own matrix and range, against the exact formula.
TEST(ReadPaths, YCbCrUsesStreamMatrixAndRange) {
  const fs::path dir = TempDir();
  const struct {
    const char* name;
    const char* range;  // ffmpeg's tag
    const char* space;
    bool full;
    double kr, kb;
  } cases[] = {{"full601", "pc", "bt470bg", true, 0.299, 0.114}, {"tv709", "tv", "bt709", false, 0.2126, 0.0722}};
  const int yuv[3] = {140, 90, 170};  // far from grey, inside the R'G'B' cube
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::string planes;
    for (int plane = 0; plane < 3; ++plane) planes += std::string(16 * 4, static_cast<char>(yuv[plane]));
    const Picture out = ThroughFfmpeg(planes, "yuv444p",
                                      std::string("-color_range ") + c.range + " -colorspace " + c.space + " -c:v ffv1",
                                      dir / (std::string(c.name) + ".mkv"));
    const double y = c.full ? yuv[0] / 255.0 : (yuv[0] - 16) / 219.0;
    const double cb = (yuv[1] - 128) / (c.full ? 255.0 : 224.0), cr = (yuv[2] - 128) / (c.full ? 255.0 : 224.0);
    const double r = y + 2 * (1 - c.kr) * cr, b = y + 2 * (1 - c.kb) * cb;
    const double want[4] = {r, (y - c.kr * r - c.kb * b) / (1 - c.kr - c.kb), b, 1.0};
    for (size_t i = 0; i < 16 * 4 * 4; ++i) ASSERT_NEAR(out.rgba.at(i), want[i % 4], 1.0 / 255) << "value " << i;
  }
}

struct AudioCase {
  const char* source;  // made by the ffmpeg CLI; "pcm..." holds PCM, else AAC
  const char* output;
  double seconds;  // of the source
  bool copied;
};

void PrintTo(const AudioCase& c, std::ostream* os) { *os << c.source << " to " << c.output; }

class AudioCopy : public ::testing::TestWithParam<AudioCase> {};

// Frames 25..49 (1 s to 2 s) rendered: the source's audio from 1 s on comes
// along, moved to start with the first frame written and cut after the last.
TEST_P(AudioCopy, CopiedWhereTheContainerTakesIt) {
  const AudioCase& c = GetParam();
  const fs::path dir = TempDir();
  const std::string src = (dir / c.source).string(), out = (dir / c.output).string();
  const std::string codec = std::string(c.source).rfind("pcm", 0) == 0 ? "pcm_s16le" : "aac";
  Sh("ffmpeg -y -f lavfi -i testsrc=size=64x32:rate=25 -f lavfi -i sine=frequency=440:sample_rate=48000 -t " +
     std::to_string(c.seconds) + " -pix_fmt yuv420p -c:v libx264 -c:a " + codec + " " + src);
  ASSERT_TRUE(media::Reader(src).Info().hasAudio);
  WriteAll(out, std::vector<Picture>(25, Ramps(0)), 25, {25, 1}, src);
  media::InputInfo info;
  EXPECT_EQ(ReadAll(out, &info).size(), 25u);
  EXPECT_EQ(info.hasAudio, c.copied);
  if (!c.copied) return;
  std::vector<double> t;  // audio packet times in seconds
  FILE* p = popen(("ffprobe -v error -select_streams a -show_entries packet=pts_time -of csv=p=0 " + out).c_str(), "r");
  ASSERT_NE(p, nullptr);
  for (double v; std::fscanf(p, "%lf", &v) == 1;) t.push_back(v);
  pclose(p);
  ASSERT_FALSE(t.empty());
  EXPECT_NEAR(t.front(), 0.0, 0.05);
  const double end = std::fmin(c.seconds, 2.0) - 1.0;
  EXPECT_GT(t.back(), end - 0.1);
  EXPECT_LT(t.back(), end);
}

INSTANTIATE_TEST_SUITE_P(Containers, AudioCopy,
                         ::testing::Values(AudioCase{"aac.mp4", "o.mp4", 1.5, true},
                                           AudioCase{"aac.mp4", "o.mkv", 3, true},
                                           AudioCase{"pcm.mov", "o.mov", 3, true},
                                           AudioCase{"pcm.mov", "o.mp4", 1, false}));

}  // namespace
