#include "LogsController.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

namespace fs = std::filesystem;

namespace {

const std::string kStamp = R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2})";

// Sets an environment variable for the object's lifetime; TZ takes effect at once.
struct EnvVar {
  EnvVar(const char* name, const std::string& value) : name(name) {
    if (const char* current = std::getenv(name)) old = current;
    setenv(name, value.c_str(), 1);
    tzset();
  }
  ~EnvVar() {
    old ? setenv(name, old->c_str(), 1) : unsetenv(name);
    tzset();
  }
  const char* name;
  std::optional<std::string> old;
};

std::string ReadAll(const fs::path& path) {
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// The text after the leading "YYYY-MM-DD HH:MM:SS ", which must be there.
std::string AfterStamp(const std::string& content) {
  EXPECT_TRUE(std::regex_match(content.substr(0, 20), std::regex(kStamp + " "))) << content;
  return content.size() < 20 ? "" : content.substr(20);
}

void Send(const std::string& text) {
  std::ostringstream stream;
  stream << text;
  Log(std::move(stream));
}

}  // namespace

// Each test gets its own TMPDIR, empty log paths, a debugger sink and a
// captured std::cerr, so no test sees another's log or the real one.
class LogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = fs::temp_directory_path() / ("td-log-" + std::to_string(::getpid()) + "-" +
                                         ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(root_);
    fs::create_directories(root_);
    tmpDir_.emplace("TMPDIR", root_.string());
    folder_ = root_.string() + "/Harbour Lantern Lab/";
    logFile_ = folder_ + "com.hll.tremordistiller.log";
    GetLogPaths() = LogPaths{};
    SetDebugOutputSink([](const char* text, void* lines) { static_cast<Lines*>(lines)->push_back(text); }, &debug_);
    savedCerr_ = std::cerr.rdbuf(cerr_.rdbuf());
  }
  void TearDown() override {
    std::cerr.rdbuf(savedCerr_);
    SetDebugOutputSink(nullptr, nullptr);
    GetLogPaths() = LogPaths{};
    tmpDir_.reset();
    fs::remove_all(root_);
  }

  using Lines = std::vector<std::string>;
  fs::path root_;
  std::string folder_, logFile_;
  std::optional<EnvVar> tmpDir_;
  Lines debug_;
  std::ostringstream cerr_;
  std::streambuf* savedCerr_ = nullptr;
};

TEST_F(LogTest, InitStartsAnEmptyLogAndRecordsBearALocalTimeStamp) {
  ASSERT_EQ(LoggerInit(kLogFileStem, kLogFolderName), "");
  const std::string folderLine = "HLL :: Folder \"" + folder_ + "\" doesn't exist. Creating...\n";
  EXPECT_EQ(AfterStamp(ReadAll(logFile_)), folderLine);
  EXPECT_EQ(debug_, Lines{folderLine});

  // The next run finds the folder: the old log goes at once, and no line comes.
  debug_.clear();
  ASSERT_EQ(LoggerInit(kLogFileStem, kLogFolderName), "");
  EXPECT_FALSE(fs::exists(logFile_));
  EXPECT_TRUE(debug_.empty());
  {
    const EnvVar tz("TZ", "TDT-05:30");  // POSIX spelling of UTC+05:30
    Send("Welcome!");
    Send("Build log:\nline a\n");  // ends in a line feed: no empty line after it
  }
  EXPECT_EQ(debug_, (Lines{"HLL :: Welcome!\n", "HLL :: Build log:\nline a\n"}));
  // Only a record's first line bears a time stamp, in local time.
  const std::string content = ReadAll(logFile_);
  EXPECT_TRUE(
      std::regex_match(content, std::regex(kStamp + " HLL :: Welcome!\n" + kStamp + " HLL :: Build log:\nline a\n")))
      << content;
  std::tm stamp{};
  std::istringstream(content) >> std::get_time(&stamp, "%Y-%m-%d %H:%M:%S");
  const std::time_t asUtc = timegm(&stamp) - (5 * 3600 + 30 * 60);
  EXPECT_LE(std::abs(static_cast<long>(asUtc - std::time(nullptr))), 2L);
  EXPECT_EQ(cerr_.str(), "");
}

TEST_F(LogTest, UnopenableLogFileGoesToCerrAndALaterPathGetsErrorRecords) {
  Send("before init");  // empty path
  EXPECT_EQ(debug_, Lines{"HLL :: before init\n"});
  EXPECT_EQ(cerr_.str(), "Failed to open log file.\n");

  const std::string later = (root_ / "later.log").string();
  later.copy(GetLogPaths().logFile, later.size());
  std::ostringstream stream;
  const int line = __LINE__ + 1;
  stream << LOG_ERROR_LINE << "clBuildProgram failed: " << -11;
  Log(std::move(stream));
  const std::string expected = "HLL :: ERROR [test_logs_controller.cpp:" + std::to_string(line) +
                               ":LogTest_UnopenableLogFileGoesToCerrAndALaterPathGetsErrorRecords_Test::TestBody]"
                               " :: clBuildProgram failed: -11\n";
  EXPECT_EQ(debug_.back(), expected);
  EXPECT_EQ(AfterStamp(ReadAll(later)), expected);
}

TEST_F(LogTest, InitFailuresAreReturnedAndLoggedAsErrors) {
  // A file where the folder belongs: the paths are set, but the folder can't be made.
  const std::string folderAsFile = folder_.substr(0, folder_.size() - 1);
  std::ofstream(folderAsFile) << "x";
  const std::string cannotCreate = LoggerInit(kLogFileStem, kLogFolderName);
  EXPECT_EQ(cannotCreate.rfind("An error occurred in LoggerInit: ", 0), 0u) << cannotCreate;
  EXPECT_GT(cannotCreate.size(), std::string("An error occurred in LoggerInit: ").size());
  EXPECT_STREQ(GetLogPaths().logFile, logFile_.c_str());

  // A file as the temporary directory: no paths at all.
  GetLogPaths() = LogPaths{};
  tmpDir_.emplace("TMPDIR", folderAsFile);
  EXPECT_EQ(LoggerInit(kLogFileStem, kLogFolderName), "Failed to get temp path on Windows.");
  EXPECT_STREQ(GetLogPaths().logFile, "");

  const std::regex lineNumber(R"(^(HLL :: ERROR \[LogsController\.h:)\d+:)");
  for (std::string& line : debug_) line = std::regex_replace(line, lineNumber, "$1N:");
  const std::string head = "HLL :: ERROR [LogsController.h:N:LoggerInit] :: ";
  EXPECT_EQ(debug_, (Lines{head + cannotCreate + "\n", head + "Failed to get temp path on Windows.\n"}));
  EXPECT_EQ(cerr_.str(), "Failed to open log file.\nFailed to open log file.\n");
}

// A shared temporary folder (others may write there, as in /tmp) gives a
// folder of the user's own, as Windows gives each user one.
TEST_F(LogTest, SharedTemporaryFolderGivesAFolderOfTheUsersOwn) {
  char path[kLogPathSize] = {};
  ASSERT_GT(GetTempPathA(sizeof path, path), 0u);
  EXPECT_EQ(std::string(path), root_.string() + "/");
  fs::permissions(root_, fs::perms::all | fs::perms::sticky_bit);
  ASSERT_GT(GetTempPathA(sizeof path, path), 0u);
  const std::string own = root_.string() + "/user-" + std::to_string(::getuid()) + "/";
  EXPECT_EQ(std::string(path), own);
  EXPECT_EQ(fs::status(own).permissions() & fs::perms::all, fs::perms::owner_all);
}

TEST_F(LogTest, LongPathsAreCutToTheirBuffers) {
  if (root_.string().size() > 200) GTEST_SKIP() << "temporary directory path too long for this test: " << root_;
  // TMPDIR of 220 characters with its '/', so the file path is 267 long.
  const fs::path tmp = root_ / std::string(220 - root_.string().size() - 2, 'd');
  fs::create_directories(tmp);
  tmpDir_.emplace("TMPDIR", tmp.string());

  ASSERT_EQ(LoggerInit(kLogFileStem, kLogFolderName), "");
  const std::string cut = (tmp.string() + "/Harbour Lantern Lab/com.hll.tremordistiller.log").substr(0, 259);
  EXPECT_EQ(GetLogPaths().logFile, cut);
  EXPECT_EQ(AfterStamp(ReadAll(cut)).rfind("HLL :: Folder ", 0), 0u);  // records follow the cut path

  const std::string longFolder(240, 'f');
  ASSERT_EQ(LoggerInit(kLogFileStem, longFolder), "");
  EXPECT_EQ(GetLogPaths().logFolder, (tmp.string() + "/" + longFolder + "/").substr(0, 259));
}

TEST(ErrorLine, FileAndFunctionNamesFromCompilerTexts) {
  EXPECT_EQ(LogSourceFileName("C:\\src\\plugin\\TremorDistiller.cpp"), "TremorDistiller.cpp");
  EXPECT_EQ(LogSourceFileName("C:/mixed\\dir/TremorDistiller_CPU.cpp"), "TremorDistiller_CPU.cpp");
  EXPECT_EQ(LogSourceFileName("TremorDistiller_UI_Handler.cpp"), "TremorDistiller_UI_Handler.cpp");

  const std::pair<const char*, const char*> cases[] = {
      {"std::string LoggerInit(const std::string&, const std::string&)", "LoggerInit"},
      {"virtual prSuiteError GPUTremorDistiller::Render(const Params*, size_t, PPixHand*)",
       "GPUTremorDistiller::Render"},
      {"std::map<int, std::__cxx11::basic_string<char> > ns::Reg<T>::find(int) const [with T = int]",
       "ns::Reg<T>::find"},
      {"const char* Device::Name() const &", "Device::Name"},
      {"ns::Reg<T>::~Reg() [T = int]", "ns::Reg<T>::~Reg"},
      {"bool Frame::operator<(const Frame&) const", "Frame::operator<"},
      {"void Frame::operator()()", "Frame::operator()"},
      {"Frame::operator bool() const", "Frame::operator bool"},
      {"void* operator new(std::size_t)", "operator new"},
      {"GPUTremorDistiller::Render", "GPUTremorDistiller::Render"},  // MSVC's __FUNCTION__
  };
  for (const auto& [signature, name] : cases) EXPECT_EQ(LogFunctionName(signature), name) << signature;
  static_assert(LogFunctionName("int RenderCPU(PF_InData*)") == "RenderCPU");
}
