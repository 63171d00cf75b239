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

// A fresh folder per test under the build tree.
fs::path TempDir() {
  media::QuietLibraries();
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string name = std::string(info->test_suite_name()) + "_" + info->name();
  for (char& c : name)
    if (c == '/') c = '_';
  const fs::path dir = fs::path(TD_TEST_TMP_DIR) / "media_io" / name;
  fs::remove_all(dir);
  fs::create_directories(dir);
  return dir;
}

void Sh(const std::string& cmd) { ASSERT_EQ(std::system((cmd + " >/dev/null 2>&1").c_str()), 0) << cmd; }

// Smooth ramps (a wrong Y'CbCr matrix shows), R rising and B falling (a
// swapped pair shows), R beyond 0..1 at both ends, steps finer than 16 bits in G.
Picture Ramps(int k) {
  constexpr int w = 64, h = 32;
  Picture p{w, h, std::vector<float>(w * h * 4)};
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const float u = static_cast<float>(x) / w, v = static_cast<float>(y) / h;
      float* q = &p.rgba[(y * w + x) * 4];
      q[0] = -0.2f + 1.4f * u;
      q[1] = 0.1f + 0.7f * v + 0.01f * k + 1e-7f * x;
      q[2] = 0.9f - 0.8f * u;
      q[3] = 0.25f + 0.7f * u;
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
    const char* raw;  // little-endian input to ffmpeg
    const char* file;  // pixel format of the file
    int channels, bytes;
    bool alpha;
    const char* ext = ".png";
  } cases[] = {{"rgba", "rgba", 4, 1, true},          {"rgba", "rgb24", 4, 1, false},
               {"gray", "gray", 1, 1, false},         {"rgba64le", "rgba64be", 4, 2, true},
               {"rgba64le", "rgb48be", 4, 2, false},  {"gray16le", "gray16be", 1, 2, false},
               {"rgba", "rgba", 4, 1, true, ".tif"},  {"rgba64le", "rgba64le", 4, 2, true, ".tif"},
               {"rgba64le", "rgb48le", 4, 2, false, ".tif"}};
  constexpr int kW = 16, kH = 4;
  for (const auto& c : cases) {
    std::vector<unsigned> values(kW * kH * c.channels);
    std::string raw;
    for (size_t i = 0; i < values.size(); ++i) {
      values[i] = c.bytes == 1 ? (i * 37 + 11) % 256 : (i * 4099 + 17) % 65536;
      for (int b = 0; b < c.bytes; ++b) raw.push_back(static_cast<char>((values[i] >> (8 * b)) & 0xff));
    }
    const std::string rawPath = (dir / (std::string(c.file) + ".raw")).string();
    std::ofstream(rawPath, std::ios::binary) << raw;
    const std::string file = (dir / (std::string(c.file) + c.ext)).string();
    Sh("ffmpeg -y -f rawvideo -pix_fmt " + std::string(c.raw) + " -s " + std::to_string(kW) + "x" +
       std::to_string(kH) + " -i " + rawPath + " -pix_fmt " + c.file + " -frames:v 1 " + file);
    const auto out = ReadAll(file);  // one file, no pattern
    ASSERT_EQ(out.size(), 1u) << file;
    const float max = c.bytes == 1 ? 255.0f : 65535.0f;
    for (int p = 0; p < kW * kH; ++p)
      for (int k = 0; k < 4; ++k) {
        const float want = k == 3 && !c.alpha ? 1.0f : values[p * c.channels + (c.channels == 1 ? 0 : k)] / max;
        ASSERT_EQ(out[0].rgba[p * 4 + k], want) << file << " pixel " << p << " channel " << k;
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
    const std::string raw = (dir / (std::string(c.name) + ".yuv")).string();
    const std::string mkv = (dir / (std::string(c.name) + ".mkv")).string();
    {
      std::ofstream f(raw, std::ios::binary);
      for (int plane = 0; plane < 3; ++plane) f << std::string(16 * 16, static_cast<char>(yuv[plane]));
    }
    Sh("ffmpeg -y -f rawvideo -pix_fmt yuv444p -s 16x16 -i " + raw + " -color_range " + c.range + " -colorspace " +
       c.space + " -c:v ffv1 " + mkv);
    const double y = c.full ? yuv[0] / 255.0 : (yuv[0] - 16) / 219.0;
    const double cb = (yuv[1] - 128) / (c.full ? 255.0 : 224.0), cr = (yuv[2] - 128) / (c.full ? 255.0 : 224.0);
    const double r = y + 2 * (1 - c.kr) * cr, b = y + 2 * (1 - c.kb) * cb;
    const double want[4] = {r, (y - c.kr * r - c.kb * b) / (1 - c.kr - c.kb), b, 1.0};
    const auto out = ReadAll(mkv);
    ASSERT_EQ(out.size(), 1u) << c.name;
    for (size_t i = 0; i < out[0].rgba.size(); ++i)
      ASSERT_NEAR(out[0].rgba[i], want[i % 4], 1.0 / 255) << c.name << " value " << i;
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
  char line[128];
  while (std::fgets(line, sizeof line, p))
    if (line[0] != '\n') t.push_back(std::atof(line));
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
