// tremor-render as users run it: the built binary on small clips made by the
// ffmpeg CLI, checking exit codes, messages, files left behind and output bytes,
// and EXR output against the frame-stack loop on the CPU reference device.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "ClipReference.h"
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

std::string Quote(const fs::path& p) { return "'" + p.string() + "'"; }
std::string In(const std::string& name) { return Quote(Root() / "in" / name); }

struct Result {
  int code = -1;
  std::string out, err;
};

// Runs tremor-render with `args` in `dir`; stdout and stderr kept apart. A
// hang ends in exit code 124.
Result RunCli(const fs::path& dir, const std::string& args) {
  const fs::path out = Root() / "stdout.txt", err = Root() / "stderr.txt";
  const std::string cmd = "cd " + Quote(dir) + " && timeout 120 " + Quote(TD_TREMOR_RENDER) + " " + args + " >" +
                          Quote(out) + " 2>" + Quote(err);
  const int status = std::system(cmd.c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadAll(out), ReadAll(err)};
}

bool Ffmpeg(const std::string& args) { return std::system(("ffmpeg -nostdin -v error -y " + args).c_str()) == 0; }

// Names in a folder, hidden ones included.
std::set<std::string> Names(const fs::path& dir) {
  std::set<std::string> names;
  for (const auto& e : fs::directory_iterator(dir)) names.insert(e.path().filename().string());
  return names;
}

// A fresh, empty folder.
fs::path OutDir(const std::string& name) {
  const fs::path d = Root() / name;
  fs::remove_all(d);
  fs::create_directories(d);
  return d;
}

class TremorRender : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    fs::remove_all(Root());
    const fs::path in = Root() / "in";
    fs::create_directories(in);
    fs::create_directories(Root() / "tmp");
    setenv("POCL_CACHE_DIR", TD_POCL_CACHE_DIR, 1);
    setenv("TMPDIR", (Root() / "tmp").c_str(), 1);
    // Moving content, so stacks of different frames differ.
    ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc=size=64x32:rate=10 -frames:v 12 -start_number 0 " + In("in.%04d.png")));
    ASSERT_TRUE(Ffmpeg("-f lavfi -i sine=frequency=440:duration=1 " + In("audio.wav")));
    ASSERT_TRUE(Ffmpeg("-i " + In("audio.wav") + " -i " + In("in.0000.png") + " -map 0 -map 1 -c:v png " +
                       "-disposition:v attached_pic " + In("cover.mp3")));
    // An odd size that H.264 refuses at frame 0; a later failure must not overtake it.
    ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc=size=8x5 -frames:v 2 " + In("odd.%04d.png")));
    fs::resize_file(in / "odd.0002.png", 60);
    // Frame 5 cut short after its header; frame 2 of another clip a different size.
    ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc=size=64x32 -frames:v 8 -start_number 100 " + In("cut.%04d.png")));
    fs::resize_file(in / "cut.0105.png", 60);
    // A sequence with a gap, and one numbered past 99999.
    ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc=size=64x32 -frames:v 9 -start_number 0 " + In("gap.%04d.png")));
    for (const char* gone : {"gap.0003.png", "gap.0004.png", "gap.0007.png"}) fs::remove(in / gone);
    ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc=size=64x32 -frames:v 3 -start_number 123456 " + In("big.%06d.png")));
    ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc=size=64x32 -frames:v 2 -start_number 0 " + In("size.%04d.png")));
    ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc=size=32x32 -frames:v 1 -start_number 2 " + In("size.%04d.png")));
    fs::rename(in / "size.0000.png", in / "size.0003.png");  // numbered from 1: file 2 is frame 1
  }
  static void TearDownTestSuite() {
    if (!::testing::UnitTest::GetInstance()->Failed()) fs::remove_all(Root());
  }
};

// Every run: its exit code, what it says and what it leaves (only a render's
// output; sequences are counted by Render below). A failure says it in one
// line that comes last.
TEST_F(TremorRender, RunsExitSayAndLeaveWhatTheyShould) {
  const std::string in = In("in.%04d.png") + " -o ";
  const struct {
    std::string args;
    int code;
    std::string message;  // a fragment; of a failure, of the line after "tremor-render: "
    size_t files = 0;
    std::string firstFile = "";  // the first of the files left, where it matters
  } cases[] = {
      {"--version", 0, "tremor-render "},
      {"--list-devices", 0, "opencl:0.0"},                              // PoCL at least
      {"--help", 0, "--blending-mode TEXT:{add,screen}=add"},           // the module's choices and default
      {in + "out.mkv --jobs 3", 0, "tremor-render: 12 frames in ", 1},  // a video takes its frames in order
      {In("missing.%04d.png") + " -o out.%04d.exr", 1, "missing.%04d.png': No such file or directory"},
      {In("missing.mkv") + " -o out.mkv", 1, "cannot open input '" + (Root() / "in/missing.mkv").string() + "'"},
      {In("audio.wav") + " -o out.mkv", 1, "audio.wav' has no video stream"},
      {In("cut.%04d.png") + " -o out.%04d.exr", 1, "corrupt frame 105 in '"},  // by its file's number
      {In("gap.%04d.png") + " -o out.%04d.exr", 1, "has no file for frame 3-4, 7 (its files run from 0 to 8)"},
      {In("big.%06d.png") + " -o out.%06d.png", 0, "3 frames in ", 3, "out.123456.png"},  // numbers kept
      {In("size.%04d.png") + " -o out.%04d.png", 1, "file 2 is 32x32, unlike the clip's 64x32"},
      {In("odd.%04d.png") + " -o out.mp4", 1, "H.264 needs an even width and height, not 8x5"},
      {in + "out.xyz", 2,
       "extension '.xyz' (use .mp4, .mov, .mkv, .webm, .avi, .mxf, or a .png/.exr pattern like out.%04d.exr)"},
      {in + "out.exr", 2, "output 'out.exr' needs a frame number pattern like out.%04d.exr"},
      {in + "no/out.mov", 2, "output folder no does not exist"},
      {in + "out.mkv --ui-snapshot ui.png", 0, "12 frames in ", 2},
      {in + "out.mkv --ui-snapshot no/ui.png", 2, "--ui-snapshot folder no does not exist"},
      {in + "out.mkv --ui-snapshot ui.jpg", 2, "--ui-snapshot ui.jpg must name a .png file"},
      {in + "out.%04d.exr --start 12", 1, "--start 12 is past the clip's last file (11)"},
      {in + "out.%04d.exr --start 5 --end 4", 2, "--end must not be before --start"},
      {in + "out.%04d.exr --device opencl:9.9", 1, "no device opencl:9.9 (see --list-devices)"},
      {in + "out.%04d.exr --device quantum", 2, "bad --device 'quantum'"},
      {in + "out.%04d.exr --frames 2", 2, "--frames: value 2 is outside 3..50 (see --help)"},
      {in + "out.%04d.exr --frames 5 --frames-offset 2 --memory 20K", 1,
       "a stack of 5 frames of 64x32 needs a memory budget of "},
      {in + "out.%04d.exr --memory -1G", 2, "--memory: '-1G' is not a size above 0 such as 600M or 1.5G (see --help)"},
      {in + "out.%04d.exr --memory 0", 2, "--memory: '0' is not a size"},
      {in + "out.%04d.exr --memory 1.5G", 0, "", 12},
      {in + "out.%04d.exr --frames 5 --frames-offset 2 --memory 100K --host aftereffects", 1,
       "a stack of 5 frames of 64x32 needs 0.3 MiB (0.1 MiB a frame, with its device copy); the memory budget is "
       "0.1 MiB (--memory)"},
      {in + "out.%04d.exr --frames-offset -100.5", 2, "--frames-offset: value -100.5 is outside -100..100"},
      {in + "out.%04d.exr --frames-fade x", 2, "--frames-fade: value x is not a number"},
      {in + "out.%04d.exr --frames 10.5", 2, "--frames: value 10.5 is not a whole number"},
      {in + "out.mkv -y -n", 2, "-y and -n say opposite things"},
      {in + "out.mkv --start 2 -ss 1", 2, "give the range in frames (--start, --end) or in time (-ss, -t, -to)"},
      {in + "out.mkv -ss 1:x", 1, "-ss 1:x is not a time"},
      {in + "out.mp4 -c:v ffv1", 1, ".mp4 cannot hold ffv1 video (-c:v)"},
      {in + "out.%020d.png", 2, "output pattern 'out.%020d.png' asks for 20 digits; at most 18 fit"},
      {In("cover.mp3") + " -o out.mkv", 1, "cover.mp3' has no video stream"},  // its cover art is no clip
      {in + "out.%04d.exr --blending-mode multiply", 2, "--blending-mode: multiply not in {add,screen}"},
      {in + "out.%04d.exr --host premiere --precision half --frames-offset 1.5", 0,
       "premiere host steps whole frames; --frames-offset 1.5 counts as 1", 12},
      {in + "out.%04d.exr --host other", 2, "--host: other not in {engine,aftereffects,premiere}"},
      {in + "out.%04d.exr --device reference --host premiere", 2, "--device reference renders on the engine only"},
      {in + "out.%04d.exr --precision half", 2, "--precision half needs --host premiere"},
      {in + "out.%04d.exr --jobs 0", 2, "--jobs"},
      {in + "out.%04d.exr --start -1", 2, "--start: Value -1 not in range 0 to 2147483647 (see --help)"},
      {in + "out.%04d.exr '' --no-such-option", 2, "--no-such-option"},  // once an endless loop in CLI11
      {In("in.%04d.png"), 2, "INPUT and -o OUTPUT are required (see --help)"},
      // The input is never written over, however the output is spelled.
      {In("audio.wav") + " -o " + Quote(Root() / "in/../in/audio.wav"), 2, "would overwrite the input file"},
      {In("in.%04d.png") + " -o " + Quote(Root() / "in/./in.%04d.png") + " --start 3", 2, "would overwrite the input"},
      // ... nor through a protocol FFmpeg opens it with, and nor is any other file the run writes.
      {"'file:" + (Root() / "in/audio.wav").string() + "' -o " + In("audio.wav"), 2, "is the input"},
      {"'concat:" + (Root() / "in/odd.0001.png").string() + "|x' -o " + In("odd.0001.png"), 2, "is the input"},
      {in + "out.mkv --ui-snapshot " + In("in.0003.png"), 2, "--ui-snapshot '" + (Root() / "in/in.0003.png").string()},
      {in + "out.%04d.png --ui-snapshot out.0003.png", 2, "--ui-snapshot 'out.0003.png' is one of the output's files"},
      {in + "http://example.com/out.mkv", 2, "output 'http://example.com/out.mkv' must be a file name"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args);
    const fs::path dir = OutDir("runs");
    const Result r = RunCli(dir, c.args);
    EXPECT_EQ(r.code, c.code);
    EXPECT_EQ(Names(dir).size(), c.files);
    if (!c.firstFile.empty()) {
      EXPECT_EQ(*Names(dir).begin(), c.firstFile);
    }
    EXPECT_EQ(r.err.find('\r'), std::string::npos) << "a bar, though stderr is no terminal";
    if (c.code == 0) {
      EXPECT_NE((r.out + r.err).find(c.message), std::string::npos) << r.out << r.err;
      continue;
    }
    // One line, ours: nothing of FFmpeg's own log comes before it.
    EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << r.err;
    EXPECT_EQ(r.err.compare(0, 15, "tremor-render: "), 0) << r.err;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
  }
}

// The effect controls panel at the control's registered size, the about
// picture's top left as the module decoded it. The GPU line depends on the
// machine's adapter and is looked at in the host's tests.
TEST_F(TremorRender, UISnapshotIsTheControlAsDrawn) {
  const fs::path dir = OutDir("snapshot");
  ASSERT_EQ(RunCli(dir, In("in.%04d.png") + " -o out.mkv --quiet --ui-snapshot ui.png").code, 0);
  media::Reader reader((dir / "ui.png").string());
  media::Picture p;
  ASSERT_TRUE(reader.Next(p));
  EXPECT_EQ(p.width, 250);
  EXPECT_EQ(p.height, 90);
  EXPECT_NEAR(p.rgba[0], 28 / 255.0f, 1e-4);  // scripts/make_about_png.py's background, R then B
  EXPECT_NEAR(p.rgba[2], 48 / 255.0f, 1e-4);
  EXPECT_NEAR(p.rgba[(89 * 250 + 249) * 4], 0.11f, 1e-4);  // the strip under the picture
}

// tremor-render started in the background with `input`, `output` and
// `more`, its standard error on `err` (-1: this process's).
pid_t Spawn(const std::string& input, const std::string& output, const char* more, int err = -1) {
  const pid_t pid = fork();
  if (pid == 0) {
    if (err >= 0) dup2(err, STDERR_FILENO);
    execl(TD_TREMOR_RENDER, TD_TREMOR_RENDER, input.c_str(), "-o", output.c_str(), more, static_cast<char*>(nullptr));
    _exit(127);
  }
  return pid;
}

int ExitCode(pid_t pid) {
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

// Every signal that ends a session stops the render and leaves nothing: one
// at the next frame, a second at once, and one that comes while the input
// blocks (a FIFO no one writes) two seconds later. SIGPIPE ends nothing.
TEST_F(TremorRender, SignalsEndARunAndLeaveNothing) {
  const fs::path src = OutDir("long-in");
  ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc=size=320x180:rate=25 -frames:v 150 " + Quote(src / "in.%04d.png")));
  ASSERT_EQ(mkfifo((src / "fifo.mkv").c_str(), 0600), 0);
  const struct {
    int sig, count;
    const char* input;
  } cases[] = {{SIGINT, 1, "in.%04d.png"},
               {SIGINT, 2, "in.%04d.png"},
               {SIGHUP, 1, "in.%04d.png"},
               {SIGQUIT, 1, "in.%04d.png"},
               {SIGTERM, 1, "fifo.mkv"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.sig) + " x" + std::to_string(c.count) + " " + c.input);
    const fs::path dir = OutDir("interrupt");
    const pid_t pid = Spawn((src / c.input).string(), (dir / "out.%04d.exr").string(), "--quiet");
    ASSERT_GE(pid, 0);
    // Once the output is being staged (a minute at most), or the FIFO is waited on.
    for (int i = 0; i < 3000 && Names(dir).empty() && c.input[0] == 'i'; ++i) usleep(20000);
    usleep(c.input[0] == 'i' ? 0 : 300000);
    for (int k = 0; k < c.count; ++k) {
      kill(pid, c.sig);
      usleep(5000);  // after the first is taken (signals of a kind do not queue), before the render sees it
    }
    EXPECT_EQ(ExitCode(pid), 128 + c.sig);
    EXPECT_TRUE(Names(dir).empty());
  }
  // Standard error read by no one: the render's closing line fails, the render does not.
  const fs::path dir = OutDir("epipe");
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  ::close(fds[0]);
  const pid_t pid =
      Spawn(In("in.%04d.png").substr(1, In("in.%04d.png").size() - 2), (dir / "out.mkv").string(), "--jobs=1", fds[1]);
  ::close(fds[1]);
  EXPECT_EQ(ExitCode(pid), 0);
  EXPECT_EQ(Names(dir), std::set<std::string>{"out.mkv"});
}

// The least --memory a render with `args` takes, in bytes, from the line that
// refuses a smaller one: one stack's frames held, with half a frame to spare.
std::string StackBudget(const std::string& args) {
  const Result r = RunCli(OutDir("budget"), In("in.%04d.png") + " -o out.%04d.exr --memory 1K " + args);
  double needed = 0, frame = 0;
  char unit[2][4] = {};
  const auto at = r.err.find("needs a memory budget of ");
  if (at == std::string::npos || std::sscanf(r.err.c_str() + at, "needs a memory budget of %lf %3s (%lf %3s a frame",
                                             &needed, unit[0], &frame, unit[1]) != 4) {
    ADD_FAILURE() << r.err;
    return "1K";
  }
  auto bytes = [](double v, const char* u) { return v * (u[0] == 'K' ? 1024 : u[0] == 'M' ? 1048576 : 1073741824); };
  return std::to_string(static_cast<uint64_t>(bytes(needed, unit[0]) + bytes(frame, unit[1]) / 2));
}

using Frames = std::map<std::string, std::string>;  // bytes by file name

// Renders `input` with `options` into a fresh folder.
Frames Render(const std::string& options, const std::string& input = In("in.%04d.png"),
              const std::string& output = "out.%04d.exr") {
  const fs::path dir = OutDir("render");
  const Result r = RunCli(dir, input + " -o " + output + " --quiet " + options);
  EXPECT_EQ(r.code, 0) << options << ": " << r.err;
  EXPECT_EQ(r.err, "") << "--quiet";
  Frames files;
  for (const auto& name : Names(dir)) files[name] = ReadAll(dir / name);
  return files;
}

// A sequence is published whole or not at all: a folder in the way of one
// file leaves what was there as it was and adds nothing.
TEST_F(TremorRender, ASequenceIsPublishedWholeOrNotAtAll) {
  const fs::path dir = OutDir("whole");
  std::ofstream(dir / "out.0002.exr") << "old";
  fs::create_directory(dir / "out.0004.exr");
  const Result r = RunCli(dir, In("in.%04d.png") + " -o out.%04d.exr --quiet -y");
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("cannot publish ./out.0004.exr: Is a directory"), std::string::npos) << r.err;
  EXPECT_EQ(Names(dir), (std::set<std::string>{"out.0002.exr", "out.0004.exr"}));
  EXPECT_EQ(ReadAll(dir / "out.0002.exr"), "old");
}

// A run killed while publishing a sequence (its journal written, some files
// moved) is undone by the next run in that folder: the files it replaced come
// back and the ones it added go, never lost with its temporary folder.
TEST_F(TremorRender, AKilledPublishIsUndoneByTheNextRun) {
  const fs::path dir = OutDir("killed"), temp = dir / ".tremor-render.tmp-dead01";
  fs::create_directories(temp / ".replaced");
  std::ofstream(temp / ".journal") << "R out.0001.png\nR out.0002.png\nN out.0003.png\nN out.0004.png\n";
  std::ofstream(dir / "out.0001.png") << "new1";  // moved in before the kill
  std::ofstream(temp / ".replaced" / "out.0001.png") << "old1";
  std::ofstream(dir / "out.0002.png") << "old2";  // not yet moved: kept twice
  fs::create_hard_link(dir / "out.0002.png", temp / ".replaced" / "out.0002.png");
  std::ofstream(temp / "out.0002.png") << "new2";
  std::ofstream(dir / "out.0003.png") << "new3";
  std::ofstream(temp / "out.0004.png") << "new4";
  const Result r = RunCli(dir, In("in.%04d.png") + " -o other.mkv --quiet");
  EXPECT_EQ(r.code, 0);
  EXPECT_NE(r.err.find("undid an interrupted publish"), std::string::npos) << r.err;
  EXPECT_EQ(Names(dir), (std::set<std::string>{"other.mkv", "out.0001.png", "out.0002.png"}));
  EXPECT_EQ(ReadAll(dir / "out.0001.png"), "old1");
  EXPECT_EQ(ReadAll(dir / "out.0002.png"), "old2");
}

// What a killed run left is removed by the next run in that folder; what a
// living run holds (here, this test) stays.
TEST_F(TremorRender, StaleTemporariesOfDeadRunsAreRemoved) {
  const fs::path dir = OutDir("stale");
  fs::create_directory(dir / ".tremor-render.tmp-dead01");
  std::ofstream(dir / ".tremor-render.tmp-dead01" / "out.0001.exr") << "x";
  std::ofstream(dir / ".out.tremor-render-dead02.mkv") << "x";
  std::ofstream(dir / ".out.tremor-render-live03.mkv") << "x";
  const int held = ::open((dir / ".out.tremor-render-live03.mkv").c_str(), O_RDONLY);
  ASSERT_EQ(::flock(held, LOCK_EX), 0);
  EXPECT_EQ(RunCli(dir, In("in.%04d.png") + " -o out.mkv --quiet").code, 0);
  ::close(held);
  EXPECT_EQ(Names(dir), (std::set<std::string>{".out.tremor-render-live03.mkv", "out.mkv"}));
}

std::string Probe(const std::string& entries, const fs::path& file) {
  const std::string cmd = "ffprobe -v error -show_entries " + entries + " -of csv=p=0 " + Quote(file);
  std::string text;
  if (FILE* p = popen(cmd.c_str(), "r")) {
    for (int c; (c = std::fgetc(p)) != EOF;) text += static_cast<char>(c);
    pclose(p);
  }
  return text;
}

// A phone's portrait clip comes out upright, the input's colour tags and
// audio reach the output (re-encoded where the container cannot take the
// codec, saying so), and an output that cannot record them is refused.
TEST_F(TremorRender, WhatTheInputCarriesComesOut) {
  const fs::path dir = OutDir("carries");
  const std::string clip = "-f lavfi -i testsrc=size=64x32:rate=10 ";
  ASSERT_TRUE(Ffmpeg(clip + "-frames:v 6 -c:v png " + Quote(dir / "flat.mov")));
  ASSERT_TRUE(Ffmpeg("-i " + Quote(dir / "flat.mov") + " -c copy -metadata:s:v rotate=90 " + Quote(dir / "phone.mov")));
  ASSERT_TRUE(
      Ffmpeg("-i " + Quote(dir / "phone.mov") + " -c:v png " + Quote(dir / "upright.mov")));  // turned by ffmpeg
  ASSERT_EQ(RunCli(dir, "phone.mov -o phone.%02d.png -q").code, 0);
  ASSERT_EQ(RunCli(dir, "upright.mov -o upright.%02d.png -q").code, 0);
  EXPECT_EQ(Probe("stream=width,height", dir / "phone.03.png"), "32,64\n");
  EXPECT_EQ(ReadAll(dir / "phone.03.png"), ReadAll(dir / "upright.03.png"));

  ASSERT_TRUE(Ffmpeg(clip +
                     "-f lavfi -i sine=d=1 -frames:v 6 -c:v ffv1 -pix_fmt yuv444p10le -color_primaries bt2020 "
                     "-color_trc smpte2084 -colorspace bt2020nc -c:a flac " +
                     Quote(dir / "hdr.mkv")));
  Result r = RunCli(dir, "hdr.mkv -o hdr.mp4");
  EXPECT_EQ(r.code, 0);
  EXPECT_NE(r.err.find("the input's flac audio cannot go in .mp4: re-encoded as aac"), std::string::npos) << r.err;
  EXPECT_EQ(Probe("stream=codec_name,color_primaries,color_transfer,color_space", dir / "hdr.mp4"),
            "h264,bt2020nc,smpte2084,bt2020\naac\n");
  r = RunCli(dir, "- -o piped.mkv < hdr.mkv");  // standard input: its audio cannot be read a second time
  EXPECT_EQ(r.code, 0);
  EXPECT_NE(r.err.find("the input's audio is not written: a pipe can be read only once"), std::string::npos);
  r = RunCli(dir, "hdr.mkv -o hdr.%02d.png");
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("cannot record the input's colour (primaries bt2020, transfer smpte2084)"), std::string::npos);
}

// The numbers a command prints, one or more a line.
std::vector<double> Numbers(const std::string& cmd) {
  std::vector<double> v;
  if (FILE* p = popen(cmd.c_str(), "r")) {
    double x;
    while (std::fscanf(p, " %lf", &x) == 1) v.push_back(x);
    pclose(p);
  }
  return v;
}

// Frames keep the input's own times, gaps included, and the audio stays in
// step with a video that starts after it: the sound that begins 0.3 s after
// the first picture still does so in the output.
TEST_F(TremorRender, TimingFollowsTheInputsTimestamps) {
  const fs::path dir = OutDir("timing");
  ASSERT_TRUE(
      Ffmpeg("-f lavfi -i testsrc=size=64x32:rate=10 -f lavfi -i 'aevalsrc=if(gte(t\\,0.8)\\,0.5\\,0):d=3:s=8000' "
             "-frames:v 8 -vf 'setpts=PTS+0.5/TB+gte(N\\,4)*0.45/TB' -fps_mode:v passthrough "
             "-c:v ffv1 -c:a pcm_s16le " +
             Quote(dir / "in.mkv")));
  ASSERT_EQ(RunCli(dir, "in.mkv -o out.mkv --quiet").code, 0);
  const std::string frames = "ffprobe -v error -select_streams v -show_entries frame=pts_time -of csv=p=0 ";
  const std::vector<double> in = Numbers(frames + Quote(dir / "in.mkv")),
                            out = Numbers(frames + Quote(dir / "out.mkv"));
  ASSERT_EQ(in.size(), 8u);
  ASSERT_EQ(out.size(), in.size());
  for (size_t i = 0; i < in.size(); ++i) EXPECT_NEAR(out[i], in[i] - in[0], 0.0015) << i;
  EXPECT_GT(in[4] - in[3], 0.3);  // the input has its gap

  // Where the tone starts, against the first picture at 0.
  const std::vector<double> start = Numbers(
      "ffprobe -v error -select_streams a -show_entries stream=start_time "
      "-of csv=p=0 " +
      Quote(dir / "out.mkv"));
  const std::vector<double> samples =
      Numbers("ffmpeg -v error -i " + Quote(dir / "out.mkv") + " -map 0:a -f s16le -ac 1 - | od -An -v -td2 -w2");
  ASSERT_EQ(start.size(), 1u);
  const auto loud = std::find_if(samples.begin(), samples.end(), [](double s) { return std::fabs(s) > 1000; });
  ASSERT_NE(loud, samples.end());
  EXPECT_NEAR(start[0] + (loud - samples.begin()) / 8000.0, 0.3, 0.01);
}

// A chunk equals the same frames, by name and bytes, of a whole render
// (look-back, look-ahead and fractional offsets each need their own window),
// and neither --jobs nor a memory budget that holds only the stacks' own
// frames changes a byte.
TEST_F(TremorRender, ChunksAndJobsGiveTheBytesOfAWholeRender) {
  const auto plain = Render("");
  const struct {
    std::string effect, variant;
    int first, last;
  } cases[] = {{"", "--start 4 --end 7", 4, 7},
               {"--frames 5 --frames-offset 2", "--start 4 --end 7", 4, 7},
               {"--frames 5 --frames-offset -1.5", "--start 4 --end 7", 4, 7},
               {"--frames 4 --frames-offset 0.5 --blending-mode screen", "--start 4 --end 7", 4, 7},
               {"--frames 4", "--jobs 3", 0, 11},
               // Frames in reach past the budget: only each stack's own are held.
               {"--frames 4 --frames-offset 3 --motion-amplification", "--memory STACK --jobs 2", 0, 11},
               {"--frames 4 --frames-offset -1.5", "--memory STACK --start 2 --end 9", 2, 9},
               {"--host premiere --frames 5 --frames-offset 2", "--memory 400K --jobs 2", 0, 11},
               {"--host premiere --precision half --frames 4 --frames-offset -1", "--start 2 --end 9 --jobs 3", 2, 9}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.effect + " " + c.variant);
    const auto whole = Render(c.effect);
    ASSERT_EQ(whole.size(), 12u);
    const Frames same(std::next(whole.begin(), c.first), std::next(whole.begin(), c.last + 1));
    std::string variant = c.variant;
    if (const auto at = variant.find("STACK"); at != std::string::npos)
      variant.replace(at, 5, StackBudget(c.effect + " " + variant.substr(at + 6)));
    EXPECT_TRUE(Render(c.effect + " " + variant) == same);
    // The controls must change the picture, or the comparison proves little.
    EXPECT_TRUE(c.effect.empty() || whole.at("out.0006.exr") != plain.at("out.0006.exr"));
  }
  // A video too is the same file every time: no random ids in the container.
  EXPECT_TRUE(Render("", In("in.%04d.png"), "out.mkv") == Render("--jobs 3", In("in.%04d.png"), "out.mkv"));
}

std::string FrameMd5(const fs::path& file) {
  const fs::path md5 = file.string() + ".md5";
  EXPECT_TRUE(Ffmpeg("-i " + Quote(file) + " -map 0:v -f framemd5 " + Quote(md5)));
  std::string text;
  std::ifstream in(md5);
  for (std::string line; std::getline(in, line);)
    if (line[0] != '#') text += line + "\n";
  return text;
}

// FFmpeg's habits: an existing output is kept without -y; -ss and -t pick
// the same frames of a whole render; -an, -crf; a sequence's --start and
// --end are its file numbers; chunks rendered with -an join with FFmpeg's
// concat demuxer into the whole render, pictures and timestamps.
TEST_F(TremorRender, FfmpegHabits) {
  const fs::path dir = OutDir("habits");
  ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc=size=64x32:rate=10 -f lavfi -i sine=d=3 -frames:v 30 -c:v ffv1 -c:a flac " +
                     Quote(dir / "in.mkv")));
  ASSERT_EQ(RunCli(dir, "in.mkv -q -o whole.%03d.png").code, 0);
  std::ofstream(dir / "kept.mkv") << "mine";
  EXPECT_EQ(RunCli(dir, "in.mkv -q -o kept.mkv").code, 1);
  EXPECT_EQ(RunCli(dir, "in.mkv -q -o kept.mkv -n").code, 1);
  EXPECT_EQ(ReadAll(dir / "kept.mkv"), "mine");
  EXPECT_EQ(RunCli(dir, "-i in.mkv -q -y kept.mkv -an").code, 0);
  EXPECT_EQ(Probe("stream=codec_type", dir / "kept.mkv"), "video\n");

  ASSERT_EQ(RunCli(dir, "in.mkv -q -o part.%03d.png -ss 1 -t 1").code, 0);
  for (int k = 0; k < 30; ++k) {
    char name[16];
    std::snprintf(name, sizeof name, "%03d.png", k);
    const bool inRange = k >= 10 && k < 20;
    EXPECT_EQ(fs::exists(dir / ("part." + std::string(name))), inRange) << k;
    if (inRange) {
      EXPECT_EQ(ReadAll(dir / ("part." + std::string(name))), ReadAll(dir / ("whole." + std::string(name))));
    }
  }
  ASSERT_EQ(RunCli(dir, "in.mkv -q -o q18.mp4").code, 0);
  ASSERT_EQ(RunCli(dir, "in.mkv -q -o q35.mp4 -crf 35").code, 0);
  EXPECT_LT(fs::file_size(dir / "q35.mp4"), fs::file_size(dir / "q18.mp4"));

  ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc=size=64x32 -frames:v 30 -start_number 1001 " + Quote(dir / "s.%04d.png")));
  ASSERT_EQ(RunCli(dir, "s.%04d.png -q -o t.%04d.png --start 1010 --end 1012").code, 0);
  EXPECT_TRUE(fs::exists(dir / "t.1010.png") && fs::exists(dir / "t.1012.png"));
  EXPECT_FALSE(fs::exists(dir / "t.1009.png") || fs::exists(dir / "t.1013.png"));

  ASSERT_EQ(RunCli(dir, "in.mkv -q -o whole.mkv -an").code, 0);
  const Result streamed = RunCli(dir, "in.mkv -q -an -f mkv -");  // to standard output
  ASSERT_EQ(streamed.code, 0);
  std::ofstream(dir / "streamed.mkv", std::ios::binary) << streamed.out;
  EXPECT_EQ(FrameMd5(dir / "streamed.mkv"), FrameMd5(dir / "whole.mkv"));
  std::ofstream list(dir / "chunks.txt");
  for (const char* range : {"--start 0 --end 8", "--start 9 --end 20", "--start 21"}) {
    const std::string chunk = "chunk" + std::to_string(range[8] - '0') + ".mkv";
    ASSERT_EQ(RunCli(dir, "in.mkv -q -an -o " + chunk + " " + range).code, 0);
    list << "file " << chunk << "\n";
  }
  list.close();
  ASSERT_TRUE(Ffmpeg("-f concat -i " + Quote(dir / "chunks.txt") + " -c copy " + Quote(dir / "joined.mkv")));
  EXPECT_EQ(FrameMd5(dir / "joined.mkv"), FrameMd5(dir / "whole.mkv"));
}

// --memory bounds the whole process, beyond the 256 MiB --help states: here a
// chunk late in a clip, whose first stack asks for frames across its reach.
TEST_F(TremorRender, PeakMemoryStaysWithinTheBudget) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "a sanitizer's shadow memory and quarantine come on top";
#endif
  const fs::path dir = OutDir("peak");
  ASSERT_TRUE(
      Ffmpeg("-f lavfi -i testsrc=size=320x180:rate=25 -frames:v 210 -pix_fmt yuv420p " + Quote(dir / "in.mp4")));
  const Result r =
      RunCli(dir, "in.mp4 -o out.mkv --quiet --frames 50 --frames-offset 4 --start 196 --end 205 --memory 100M");
  ASSERT_EQ(r.code, 0) << r.err;
  rusage children{};
  getrusage(RUSAGE_CHILDREN, &children);  // the largest child's peak
  EXPECT_LE(children.ru_maxrss, (100 + 256) << 10) << "KiB";
}

// The engine and the module paths give the same bytes; -f null renders
// every frame and writes nothing.
TEST_F(TremorRender, TheEngineGivesTheModulePathsPictures) {
  for (const std::string effect : {"", "--frames 5 --frames-offset 1.5 --output luma", "--frames 4 --frames-offset -2",
                                   "--motion-amplification --frames 3"}) {
    SCOPED_TRACE(effect);
    const auto engine = Render(effect);
    ASSERT_EQ(engine.size(), 12u);
    EXPECT_TRUE(Render(effect + " --host aftereffects") == engine);
  }
  // Premiere takes the clip's first frame where a stack reaches before it:
  // the same picture once the stack lies inside the clip.
  const auto premiere = Render("--frames 5 --frames-offset 2 --host premiere");
  const auto engine = Render("--frames 5 --frames-offset 2");
  for (const char* name : {"out.0008.exr", "out.0011.exr"}) EXPECT_TRUE(premiere.at(name) == engine.at(name)) << name;
  EXPECT_FALSE(premiere.at("out.0001.exr") == engine.at("out.0001.exr"));

  const fs::path dir = OutDir("null");
  const Result r = RunCli(dir, In("in.%04d.png") + " -f null -");
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.err.find("12 frames in"), std::string::npos) << r.err;
  EXPECT_TRUE(Names(dir).empty());
  EXPECT_EQ(RunCli(dir, In("in.%04d.png") + " -f null out.mp4").code, 2);
}

// ---- EXR in and out against the frame-stack loop on the CPU reference ----

constexpr int kFrames = 14;
constexpr float kTolerance = 1e-4f;  // as for whole frames through the host

media::Picture ClipFrame(int k) { return {kClipW, kClipH, ClipFrameRGBA(k)}; }

// Output frame k with Luma output and normalize, so that a choice (Luma is the
// third) and a switch must reach the effect as given.
std::vector<float> Reference(int k) {
  KernelData kd{};
  kd.percentEase = 4.0f;
  kd.blendMode = BLEND_ADD;
  kd.diffMode = DIFF_DIFF;
  kd.output = FROM_LUMA;
  kd.normalize = true;
  return ClipReferenceRGBA(k, 10, kd);
}

TEST_F(TremorRender, ExrOutputEqualsTheReference) {
  const fs::path in = Root() / "in" / "clip.%04d.exr";
  media::Writer writer(in.string(), media::OutputFormatFor(in.string()), media::InputInfo{}, "");
  for (int k = 0; k < kFrames; ++k) writer.Write(ClipFrame(k), k);
  writer.Finish();
  // Premiere's host holds the clip's first frame before it, as the reference does.
  for (const std::string host : {"", " --host premiere"}) {
    SCOPED_TRACE(host);
    Render("--device opencl --output Luma --normalize" + host, Quote(in));
    media::Reader out((Root() / "render" / "out.%04d.exr").string());
    media::Picture p;
    int k = 0;
    for (; out.Next(p); ++k) {
      SCOPED_TRACE(k);
      const std::vector<float> ref = Reference(k);
      ASSERT_EQ(p.rgba.size(), ref.size());
      for (size_t i = 0; i < ref.size(); ++i)
        ASSERT_LE(std::fabs(p.rgba[i] - ref[i]), kTolerance * std::max(1.0f, std::fabs(ref[i]))) << "value " << i;
    }
    EXPECT_EQ(k, kFrames);
  }
}

}  // namespace
