// MediaIO: value fidelity of each output kind read back through Reader, the
// 8-bit and Y'CbCr read paths, timing, audio copy, and the error messages.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "MediaIO.h"

namespace {

namespace fs = std::filesystem;
using media::MediaError;
using media::Picture;

const bool kQuiet = (media::QuietLibraries(), true);

// A fresh folder per test under the build tree.
fs::path TempDir() {
  (void)kQuiet;
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string name = std::string(info->test_suite_name()) + "_" + info->name();
  for (char& c : name)
    if (c == '/') c = '_';
  const fs::path dir = fs::path(TD_TEST_TMP_DIR) / "media_io" / name;
  fs::remove_all(dir);
  fs::create_directories(dir);
  return dir;
}

void Sh(const std::string& cmd) {
  ASSERT_EQ(std::system((cmd + " >/dev/null 2>&1").c_str()), 0) << cmd;
}

Picture Make(int w, int h, const std::function<float(int x, int y, int c)>& f) {
  Picture p;
  p.width = w;
  p.height = h;
  p.rgba.resize(static_cast<size_t>(w) * h * 4);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      for (int c = 0; c < 4; ++c) p.rgba[(static_cast<size_t>(y) * w + x) * 4 + c] = f(x, y, c);
  return p;
}

// Smooth, saturated ramps (a wrong Y'CbCr matrix shows) with a per-frame
// offset, values in 0..1.
Picture Smooth(int k, int w = 64, int h = 32) {
  return Make(w, h, [k, w, h](int x, int y, int c) {
    const float u = static_cast<float>(x) / w, v = static_cast<float>(y) / h;
    switch (c) {
      case 0: return 0.1f + 0.8f * u;
      case 1: return 0.1f + 0.7f * v + 0.01f * k;
      case 2: return 0.9f - 0.8f * u;
      default: return 0.25f + 0.7f * u;
    }
  });
}

// Values outside 0..1 and fine steps that a lossy path would lose.
Picture Wide(int k) {
  return Make(7, 5, [k](int x, int y, int c) {
    return -1.5f + 0.123456789f * (x * 20 + y * 4 + c) + 1e-7f * k + (c == 3 ? 0.3f : 0.0f);
  });
}

float Clamp01(float v) { return v < 0 ? 0 : v > 1 ? 1 : v; }

std::vector<Picture> ReadAll(const std::string& path, media::InputInfo* info = nullptr) {
  media::Reader r(path);
  if (info) *info = r.Info();
  std::vector<Picture> out;
  Picture p;
  while (r.Next(p)) out.push_back(p);
  return out;
}

void WriteAll(const std::string& path, const std::vector<Picture>& pics, int64_t first = 0,
              media::Rational rate = {25, 1}, const std::string& audio = "", std::vector<std::string>* files = nullptr) {
  media::InputInfo info;
  info.frameRate = rate;
  media::Writer w(path, media::OutputFormatFor(path), info, audio);
  for (size_t i = 0; i < pics.size(); ++i) w.Write(pics[i], first + static_cast<int64_t>(i));
  w.Finish();
  if (files) *files = w.Files();
}

// ------------------------------------------------------------ round trips

struct Fidelity {
  const char* name;
  const char* file;
  bool clamps;       // integer output: values clamp to 0..1
  float tolerance;   // per value, after clamping
};

void PrintTo(const Fidelity& f, std::ostream* os) { *os << f.name; }

class RoundTrip : public ::testing::TestWithParam<Fidelity> {};

TEST_P(RoundTrip, ValuesComeBack) {
  const Fidelity& f = GetParam();
  const fs::path dir = TempDir();
  const std::string path = (dir / f.file).string();
  std::vector<Picture> in = {Wide(0), Wide(1), Wide(2)};
  std::vector<std::string> files;
  WriteAll(path, in, 5, {25, 1}, "", &files);
  const bool sequence = std::string(f.file).find('%') != std::string::npos;
  ASSERT_EQ(files.size(), sequence ? 3u : 1u);
  for (const auto& name : files) EXPECT_TRUE(fs::exists(name)) << name;
  if (sequence) {
    EXPECT_EQ(fs::path(files[0]).filename().string().find("0005"), 2u) << files[0];
  }

  media::InputInfo info;
  const auto out = ReadAll(path, &info);
  ASSERT_EQ(out.size(), in.size());
  EXPECT_EQ(info.width, 7);
  EXPECT_EQ(info.height, 5);
  EXPECT_EQ(info.isSequence, sequence);
  if (sequence) {
    EXPECT_EQ(info.frameCount, 3);
  }
  for (size_t k = 0; k < in.size(); ++k) {
    ASSERT_EQ(out[k].rgba.size(), in[k].rgba.size());
    for (size_t i = 0; i < in[k].rgba.size(); ++i) {
      const float want = f.clamps ? Clamp01(in[k].rgba[i]) : in[k].rgba[i];
      if (f.tolerance == 0)
        ASSERT_EQ(out[k].rgba[i], want) << "frame " << k << " value " << i;
      else
        ASSERT_NEAR(out[k].rgba[i], want, f.tolerance) << "frame " << k << " value " << i;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Lossless, RoundTrip,
                         ::testing::Values(Fidelity{"Exr", "f.%04d.exr", false, 0.0f},
                                           Fidelity{"Png16", "f.%04d.png", true, 1.0f / 65535 * 0.51f},
                                           Fidelity{"Ffv1", "f.mkv", true, 1.0f / 65535 * 0.51f}),
                         [](const auto& info) { return std::string(info.param.name); });

// Lossy videos: frame count, rate, closeness, and (ProRes 4444) alpha.
struct Lossy {
  const char* name;
  const char* file;
  media::Rational rate;
  float meanColour;  // mean absolute error bound of R, G, B
  float maxAlpha;    // max error of alpha; < 0: alpha must read as 1
};

void PrintTo(const Lossy& l, std::ostream* os) { *os << l.name; }

class LossyVideo : public ::testing::TestWithParam<Lossy> {};

TEST_P(LossyVideo, CloseWithTiming) {
  const Lossy& l = GetParam();
  const fs::path path = TempDir() / l.file;
  std::vector<Picture> in;
  for (int k = 0; k < 10; ++k) in.push_back(Smooth(k));
  WriteAll(path.string(), in, 0, l.rate);

  media::InputInfo info;
  const auto out = ReadAll(path.string(), &info);
  ASSERT_EQ(out.size(), in.size());
  EXPECT_EQ(info.frameCount, 10);
  EXPECT_EQ(static_cast<int64_t>(info.frameRate.num) * l.rate.den, static_cast<int64_t>(l.rate.num) * info.frameRate.den);
  EXPECT_FALSE(info.hasAudio);
  for (size_t k = 0; k < in.size(); ++k) {
    double err = 0;
    float alphaErr = 0;
    for (size_t i = 0; i < in[k].rgba.size(); ++i) {
      if (i % 4 == 3)
        alphaErr = std::max(alphaErr, std::fabs(out[k].rgba[i] - (l.maxAlpha < 0 ? 1.0f : in[k].rgba[i])));
      else
        err += std::fabs(out[k].rgba[i] - in[k].rgba[i]);
    }
    EXPECT_LT(err / (in[k].rgba.size() * 3 / 4), l.meanColour) << "frame " << k;
    EXPECT_LE(alphaErr, l.maxAlpha < 0 ? 0.0f : l.maxAlpha) << "frame " << k;
  }
}

INSTANTIATE_TEST_SUITE_P(Videos, LossyVideo,
                         ::testing::Values(Lossy{"H264", "v.mp4", {30000, 1001}, 0.015f, -1.0f},
                                           Lossy{"ProRes4444", "v.mov", {24, 1}, 0.005f, 1.5f / 1023}),
                         [](const auto& info) { return std::string(info.param.name); });

// PNGs and TIFFs from FFmpeg's own encoders: 8-bit v reads as v/255, 16-bit v as v/65535,
// grey fills R, G and B, and no alpha reads as 1.
TEST(ReadPaths, IntegerPngAndTiffAreVOverMax) {
  const fs::path dir = TempDir();
  const struct {
    const char* raw;  // little-endian input to ffmpeg
    const char* png;  // pixel format of the file
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
    const std::string rawPath = (dir / (std::string(c.png) + ".raw")).string();
    std::ofstream(rawPath, std::ios::binary) << raw;
    const std::string png = (dir / (std::string(c.png) + c.ext)).string();
    Sh("ffmpeg -y -f rawvideo -pix_fmt " + std::string(c.raw) + " -s " + std::to_string(kW) + "x" + std::to_string(kH) +
       " -i " + rawPath + " -pix_fmt " + c.png + " -frames:v 1 " + png);
    const auto out = ReadAll(png);  // one file, no pattern
    ASSERT_EQ(out.size(), 1u) << png;
    const float max = c.bytes == 1 ? 255.0f : 65535.0f;
    for (int p = 0; p < kW * kH; ++p)
      for (int k = 0; k < 4; ++k) {
        const float want = k == 3 && !c.alpha ? 1.0f : values[p * c.channels + (c.channels == 1 ? 0 : k)] / max;
        ASSERT_EQ(out[0].rgba[p * 4 + k], want) << png << " pixel " << p << " channel " << k;
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
    Sh("ffmpeg -y -f rawvideo -pix_fmt yuv444p -s 16x16 -i " + raw + " -color_range " + c.range +
       " -colorspace " + c.space + " -c:v ffv1 " + mkv);
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

// A sequence numbered from an arbitrary first number, read from that number on.
TEST(ReadPaths, SequenceStartsAtFirstExistingNumber) {
  const fs::path dir = TempDir();
  const std::string pattern = (dir / "s.%05d.exr").string();
  WriteAll(pattern, {Wide(0), Wide(1)}, 1234);
  media::InputInfo info;
  const auto out = ReadAll(pattern, &info);
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[1].rgba, Wide(1).rgba);
  EXPECT_EQ(info.frameRate.num, 25);
  EXPECT_EQ(info.frameRate.den, 1);
}

// ------------------------------------------------------------ audio

struct AudioCase {
  const char* name;
  const char* source;  // made by the ffmpeg CLI; "pcm..." holds PCM, else AAC
  const char* output;
  bool expectAudio;
  double seconds;   // of the source
  double lastLow;   // last audio packet time in the output lies in lastLow..lastLow+0.1
};

void PrintTo(const AudioCase& c, std::ostream* os) { *os << c.name; }

class AudioCopy : public ::testing::TestWithParam<AudioCase> {};

// Audio packet times in seconds, through ffprobe.
std::vector<double> AudioTimes(const std::string& path) {
  std::vector<double> t;
  FILE* p = popen(("ffprobe -v error -select_streams a -show_entries packet=pts_time -of csv=p=0 " + path).c_str(), "r");
  if (!p) return t;
  char line[128];
  while (std::fgets(line, sizeof line, p))
    if (line[0] != '\n') t.push_back(std::atof(line));
  pclose(p);
  return t;
}

// Frames 25..49 (from 1 s on) rendered: the audio from 1 s on comes along,
// moved to start with the first frame written and cut at the last one.
TEST_P(AudioCopy, CopiedWhereTheContainerTakesIt) {
  const AudioCase& c = GetParam();
  const fs::path dir = TempDir();
  const std::string src = (dir / c.source).string();
  const std::string codec = std::string(c.source).rfind("pcm", 0) == 0 ? "pcm_s16le" : "aac";
  Sh("ffmpeg -y -f lavfi -i testsrc=size=64x32:rate=25 -f lavfi -i sine=frequency=440:sample_rate=48000 -t " +
     std::to_string(c.seconds) + " -pix_fmt yuv420p -c:v libx264 -c:a " + codec + " " + src);
  ASSERT_TRUE(media::Reader(src).Info().hasAudio);
  std::vector<Picture> pics;
  for (int k = 0; k < 25; ++k) pics.push_back(Smooth(k));
  const std::string out = (dir / c.output).string();
  WriteAll(out, pics, 25, {25, 1}, src);
  media::InputInfo info;
  const auto back = ReadAll(out, &info);
  EXPECT_EQ(back.size(), pics.size());
  EXPECT_EQ(info.hasAudio, c.expectAudio);
  if (c.expectAudio) {
    const auto t = AudioTimes(out);
    ASSERT_FALSE(t.empty());
    EXPECT_NEAR(t.front(), 0.0, 0.05);
    EXPECT_GT(t.back(), c.lastLow);
    EXPECT_LT(t.back(), c.lastLow + 0.1);
  }
}

INSTANTIATE_TEST_SUITE_P(Containers, AudioCopy,
                         ::testing::Values(AudioCase{"AacToMp4", "aac.mp4", "o.mp4", true, 1.5, 0.4},
                                           AudioCase{"AacToMov", "aac.mp4", "o.mov", true, 3.0, 0.9},
                                           AudioCase{"AacToMkv", "aac.mp4", "o.mkv", true, 1.5, 0.4},
                                           AudioCase{"PcmToMov", "pcm.mov", "o.mov", true, 3.0, 0.9},
                                           AudioCase{"PcmToMp4Skipped", "pcm.mov", "o.mp4", false, 1.5, 0}),
                         [](const auto& info) { return std::string(info.param.name); });

// ------------------------------------------------------------ errors

void ExpectError(const std::function<void()>& f, const std::string& fragment) {
  try {
    f();
    ADD_FAILURE() << "no error; wanted: " << fragment;
  } catch (const MediaError& e) {
    const std::string what = e.what();
    EXPECT_NE(what.find(fragment), std::string::npos) << what;
    EXPECT_EQ(what.find('\n'), std::string::npos) << what;
  }
}

TEST(Errors, InputsThatCannotBeRead) {
  const fs::path dir = TempDir();
  const std::string missing = (dir / "nope.mov").string();
  ExpectError([&] { media::Reader r(missing); }, "cannot open input '" + missing + "': No such file or directory");
  ExpectError([&] { media::Reader r((dir / "none.%04d.exr").string()); }, "cannot open input");

  const std::string wav = (dir / "tone.wav").string();
  Sh("ffmpeg -y -f lavfi -i sine=d=0.2 " + wav);
  ExpectError([&] { media::Reader r(wav); }, "'" + wav + "' has no video stream");

  // Frame 2 of a PNG sequence cut short.
  const std::string pattern = (dir / "c.%03d.png").string();
  WriteAll(pattern, {Smooth(0), Smooth(1), Smooth(2), Smooth(3)}, 1);
  const fs::path third = dir / "c.003.png";
  fs::resize_file(third, fs::file_size(third) / 2);
  media::Reader r(pattern);
  Picture p;
  EXPECT_TRUE(r.Next(p));
  EXPECT_TRUE(r.Next(p));
  ExpectError([&] { r.Next(p); }, "corrupt frame 2 in '" + pattern + "'");
}

TEST(Errors, OutputKinds) {
  const struct {
    const char* path;
    const char* extension;
  } good[] = {{"a.mp4", ".mp4"}, {"dir/a.MOV", ".mov"}, {"a.mkv", ".mkv"}, {"a.%04d.png", ".png"}, {"a_%d.exr", ".exr"}};
  for (const auto& g : good) EXPECT_STREQ(media::OutputFormatFor(g.path).extension, g.extension) << g.path;
  for (const char* bad : {"a.avi", "a.png", "a.exr", "noext", "a.%04d.tif"})
    ExpectError([&] { media::OutputFormatFor(bad); }, "");
  ExpectError([] { media::OutputFormatFor("a.avi"); },
              "unknown output extension '.avi' (use .mp4, .mov, .mkv, or a .png/.exr pattern like out.%04d.exr)");
}

TEST(Errors, WriterRefusesBadFrames) {
  const fs::path dir = TempDir();
  media::InputInfo info;
  info.frameRate = {25, 1};
  ExpectError([&] {
    media::Writer w((dir / "odd.mp4").string(), media::OutputFormatFor("a.mp4"), info, "");
    w.Write(Smooth(0, 7, 5), 0);
  }, "even width and height");
  ExpectError([&] {
    media::Writer w((dir / "order.mkv").string(), media::OutputFormatFor("a.mkv"), info, "");
    w.Write(Smooth(0), 3);
    w.Write(Smooth(1), 3);
  }, "out of order");
  ExpectError([&] {
    media::Writer w((dir / "size.%02d.png").string(), media::OutputFormatFor("a.%d.png"), info, "");
    w.Write(Smooth(0), 0);
    w.Write(Smooth(1, 32, 32), 1);
  }, "changes size");
}

}  // namespace
