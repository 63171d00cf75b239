// tremor-render as users run it: the built binary on small clips made by the
// ffmpeg CLI, checking exit codes, messages, files left behind and output bytes.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "MediaIO.h"

namespace {

namespace fs = std::filesystem;

// One folder per process: CTest runs each case as its own process, in parallel.
const fs::path& Root() {
  static const fs::path root = fs::path(TD_TEST_TMP_DIR) / ("tremor-render-" + std::to_string(::getpid()));
  return root;
}

std::string ReadAll(const fs::path& p) {
  std::ifstream f(p, std::ios::binary);
  return {std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
}

std::string Quote(const std::string& s) { return "'" + s + "'"; }

struct Result {
  int code = -1;
  std::string out, err;
};

// Runs tremor-render with `args` in `dir`; stdout and stderr kept apart.
Result RunCli(const fs::path& dir, const std::string& args) {
  const fs::path out = Root() / "stdout.txt", err = Root() / "stderr.txt";
  const std::string cmd = "cd " + Quote(dir.string()) + " && " + Quote(TD_TREMOR_RENDER) + " " + args + " >" +
                          Quote(out.string()) + " 2>" + Quote(err.string());
  const int status = std::system(cmd.c_str());
  Result r;
  r.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  r.out = ReadAll(out);
  r.err = ReadAll(err);
  return r;
}

bool Ffmpeg(const std::string& args) {
  return std::system(("ffmpeg -nostdin -v error -y " + args).c_str()) == 0;
}

// Names in a folder, hidden ones included.
std::set<std::string> Names(const fs::path& dir) {
  std::set<std::string> names;
  for (const auto& e : fs::directory_iterator(dir)) names.insert(e.path().filename().string());
  return names;
}

class TremorRender : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    fs::remove_all(Root());
    fs::create_directories(Root() / "in");
    fs::create_directories(Root() / "tmp");
    setenv("POCL_CACHE_DIR", TD_POCL_CACHE_DIR, 1);
    setenv("TMPDIR", (Root() / "tmp").c_str(), 1);
    // Moving content, so stacks of different frames differ.
    ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc=size=64x32:rate=10 -frames:v 12 -start_number 0 " +
                       Quote((Root() / "in" / "in.%04d.png").string())));
    ASSERT_TRUE(Ffmpeg("-f lavfi -i sine=frequency=440:duration=1 " + Quote((Root() / "in" / "audio.wav").string())));
  }
  static void TearDownTestSuite() {
    if (!::testing::UnitTest::GetInstance()->Failed()) fs::remove_all(Root());
  }

  // A fresh, empty output folder per case.
  fs::path OutDir(const std::string& name) {
    const fs::path d = Root() / name;
    fs::remove_all(d);
    fs::create_directories(d);
    return d;
  }

  static std::string Input() { return Quote((Root() / "in" / "in.%04d.png").string()); }
};

// ---- Bad input: one line, non-zero exit, nothing left behind ----

TEST_F(TremorRender, ErrorsExitNonZeroWithOneLineAndLeaveNothing) {
  struct Case {
    std::string args, mentions;
  };
  const std::string in = Input();
  const std::vector<Case> cases = {
      {Quote((Root() / "in" / "missing.%04d.png").string()) + " -o out.%04d.exr", "missing"},
      {Quote((Root() / "in" / "missing.mkv").string()) + " -o out.mkv", "missing"},
      {in + " -o out.xyz", ".xyz"},
      {in + " -o out.%04d.exr --frames 2", "--frames"},
      {in + " -o out.%04d.exr --frames 51", "--frames"},
      {in + " -o out.%04d.exr --frames-fade 101", "--frames-fade"},
      {in + " -o out.%04d.exr --frames-offset -100.5", "--frames-offset"},
      {in + " -o out.%04d.exr --blending-mode multiply", "--blending-mode"},
      {in + " -o out.%04d.exr --no-such-option", "--no-such-option"},
      {in + " -o out.%04d.exr --device opencl:9.9", "opencl"},
      {in + " -o out.%04d.exr --device quantum", "quantum"},
      {in + " -o out.%04d.exr --start 12", "--start"},
      {in + " -o out.%04d.exr --start 5 --end 4", "--end"},
      {in, "-o"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args);
    const fs::path dir = OutDir("errors");
    const Result r = RunCli(dir, c.args);
    EXPECT_NE(r.code, 0);
    EXPECT_EQ(r.err.rfind("tremor-render: ", 0), 0u) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_NE(r.err.find(c.mentions), std::string::npos) << r.err;
    EXPECT_TRUE(Names(dir).empty());
  }
}

TEST_F(TremorRender, StreamWithoutVideoIsRefused) {
  const fs::path dir = OutDir("no-video");
  const Result r = RunCli(dir, Quote((Root() / "in" / "audio.wav").string()) + " -o out.%04d.exr");
  EXPECT_NE(r.code, 0);
  EXPECT_EQ(r.err.rfind("tremor-render: ", 0), 0u) << r.err;
  EXPECT_TRUE(Names(dir).empty());
}

TEST_F(TremorRender, CorruptFrameIsNamedByNumber) {
  const fs::path src = OutDir("corrupt-in"), dir = OutDir("corrupt");
  for (int k = 0; k < 8; ++k) {
    const std::string name = "in.000" + std::to_string(k) + ".png";
    fs::copy_file(Root() / "in" / name, src / name);
  }
  fs::resize_file(src / "in.0005.png", 60);  // header kept, pixels cut off
  const Result r = RunCli(dir, Quote((src / "in.%04d.png").string()) + " -o out.%04d.exr");
  EXPECT_NE(r.code, 0);
  EXPECT_NE(r.err.find('5'), std::string::npos) << r.err;
  EXPECT_TRUE(Names(dir).empty()) << "partial output left behind";
}

TEST_F(TremorRender, InterruptRemovesPartialOutput) {
  const fs::path src = OutDir("long-in"), dir = OutDir("interrupt");
  ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc=size=320x180:rate=25 -frames:v 150 -start_number 0 " +
                     Quote((src / "in.%04d.png").string())));
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    const std::string in = (src / "in.%04d.png").string(), out = (dir / "out.%04d.exr").string();
    execl(TD_TREMOR_RENDER, TD_TREMOR_RENDER, in.c_str(), "-o", out.c_str(), "--quiet", static_cast<char*>(nullptr));
    _exit(127);
  }
  // Interrupt once the output is being staged.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (Names(dir).empty() && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  kill(pid, SIGINT);
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 128 + SIGINT) << "not stopped by the signal";
  EXPECT_TRUE(Names(dir).empty());
}

// ---- Information ----

TEST_F(TremorRender, VersionAndDeviceListSucceed) {
  const fs::path dir = OutDir("info");
  Result r = RunCli(dir, "--version");
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out.rfind("tremor-render ", 0), 0u) << r.out;

  r = RunCli(dir, "--list-devices");
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("opencl:0.0"), std::string::npos) << r.out;  // PoCL at least

  r = RunCli(dir, "--help");
  EXPECT_EQ(r.code, 0);
  EXPECT_NE(r.out.find("--frames-offset"), std::string::npos);
  EXPECT_TRUE(Names(dir).empty());
}

// ---- Rendering ----

std::vector<std::string> ExrNames(int first, int last) {
  std::vector<std::string> v;
  for (int k = first; k <= last; ++k) {
    char name[32];
    std::snprintf(name, sizeof name, "out.%04d.exr", k);
    v.push_back(name);
  }
  return v;
}

TEST_F(TremorRender, WholeRenderWritesEveryFrameAndASummary) {
  const fs::path dir = OutDir("whole");
  const Result r = RunCli(dir, Input() + " -o out.%04d.exr");
  ASSERT_EQ(r.code, 0) << r.err;
  const auto names = ExrNames(0, 11);
  EXPECT_EQ(Names(dir), std::set<std::string>(names.begin(), names.end()));
  // Not a terminal: no bar, a summary line with frames and device.
  EXPECT_EQ(r.err.find('\r'), std::string::npos);
  EXPECT_NE(r.err.find("12 frames"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("fps"), std::string::npos) << r.err;

  const Result quiet = RunCli(OutDir("whole-quiet"), Input() + " -o out.%04d.exr --quiet");
  EXPECT_EQ(quiet.code, 0);
  EXPECT_EQ(quiet.err, "");
}

// Renders the test clip with `options` into `dir`; the frames' bytes by file name.
std::map<std::string, std::string> Render(const fs::path& dir, const std::string& options) {
  const Result r = RunCli(dir, "'" + (Root() / "in" / "in.%04d.png").string() + "' -o out.%04d.exr --quiet " + options);
  EXPECT_EQ(r.code, 0) << options << ": " << r.err;
  std::map<std::string, std::string> files;
  for (const auto& name : Names(dir)) files[name] = ReadAll(dir / name);
  return files;
}

TEST_F(TremorRender, ChunksEqualTheSameFramesOfAWholeRender) {
  // Look-back, look-ahead and fractional offsets each need their own window.
  for (const std::string effect : {"", "--frames 5 --frames-offset 2", "--frames 5 --frames-offset -1.5",
                                   "--frames 4 --frames-offset 0.5 --blending-mode screen"}) {
    SCOPED_TRACE(effect);
    const auto whole = Render(OutDir("chunk-whole"), effect);
    ASSERT_EQ(whole.size(), 12u);
    const auto chunk = Render(OutDir("chunk-part"), effect + " --start 4 --end 7");
    ASSERT_EQ(chunk.size(), 4u);
    for (const auto& name : ExrNames(4, 7)) {
      ASSERT_EQ(chunk.count(name), 1u) << name;
      EXPECT_TRUE(chunk.at(name) == whole.at(name)) << name;
    }
    // Offsets must actually change the picture, or the comparison proves little.
    if (!effect.empty()) {
      EXPECT_FALSE(whole.at("out.0006.exr") == Render(OutDir("chunk-default"), "").at("out.0006.exr"));
    }
  }
}

// Choices and switches take the module's own values: "luma" is the third
// output (grey pixels), and a switch changes the picture.
TEST_F(TremorRender, ControlsReachTheEffect) {
  const fs::path luma = OutDir("luma");
  Render(luma, "--output Luma --end 6");
  media::Reader reader((luma / "out.%04d.exr").string());
  media::Picture p;
  bool moved = false;
  while (reader.Next(p))
    for (size_t i = 0; i < p.rgba.size(); i += 4) {
      ASSERT_EQ(p.rgba[i], p.rgba[i + 1]) << "pixel " << i / 4;
      ASSERT_EQ(p.rgba[i], p.rgba[i + 2]) << "pixel " << i / 4;
      moved = moved || p.rgba[i] > 0.0f;
    }
  EXPECT_TRUE(moved) << "an all-black picture proves nothing";
  const auto plain = Render(OutDir("plain"), "--end 6");
  EXPECT_FALSE(plain.at("out.0006.exr") == Render(OutDir("normalize"), "--end 6 --normalize").at("out.0006.exr"));
}

TEST_F(TremorRender, ParallelJobsGiveTheSameBytes) {
  const auto one = Render(OutDir("jobs-1"), "--jobs 1 --frames 4");
  const auto three = Render(OutDir("jobs-3"), "--jobs 3 --frames 4");
  ASSERT_EQ(one.size(), 12u);
  EXPECT_TRUE(one == three);
}

}  // namespace
