#include "LogsController.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

namespace fs = std::filesystem;

namespace {

const std::string kStamp = R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2})";

std::optional<std::string> GetEnv(const char* name)
{
    const char* value = std::getenv(name);
    return value ? std::optional<std::string>(value) : std::nullopt;
}

void RestoreEnv(const char* name, const std::optional<std::string>& value)
{
    if (value) {
        setenv(name, value->c_str(), 1);
    } else {
        unsetenv(name);
    }
}

std::string ReadAll(const fs::path& path)
{
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void Collect(const char* text, void* user)
{
    static_cast<std::vector<std::string>*>(user)->push_back(text);
}

}  // namespace

// Each test gets its own TMPDIR, empty log paths, a debugger sink and a
// captured std::cerr, so no test sees another's log or the real one.
class LogTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        savedTmpDir_ = GetEnv("TMPDIR");
        root_ = fs::temp_directory_path() /
                ("td-log-" + std::to_string(::getpid()) + "-" +
                 ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(root_);
        fs::create_directories(root_);
        UseTmpDir(root_);
        GetLogPaths() = LogPaths{};
        SetDebugOutputSink(&Collect, &debug_);
        savedCerr_ = std::cerr.rdbuf(cerr_.rdbuf());
    }

    void TearDown() override
    {
        std::cerr.rdbuf(savedCerr_);
        SetDebugOutputSink(nullptr, nullptr);
        GetLogPaths() = LogPaths{};
        RestoreEnv("TMPDIR", savedTmpDir_);
        fs::remove_all(root_);
    }

    static void UseTmpDir(const fs::path& dir) { setenv("TMPDIR", dir.c_str(), 1); }
    std::string Folder() const { return root_.string() + "/Harbour Lantern Lab/"; }
    std::string LogFile() const { return Folder() + "com.hll.tremordistiller.log"; }
    static void Send(const std::string& text)
    {
        std::ostringstream stream;
        stream << text;
        Log(std::move(stream));
    }

    fs::path root_;
    std::vector<std::string> debug_;
    std::ostringstream cerr_;

private:
    std::optional<std::string> savedTmpDir_;
    std::streambuf* savedCerr_ = nullptr;
};

TEST_F(LogTest, FreshTempDirLogOpensWithFolderLine)
{
    EXPECT_EQ(LoggerInit(kLogFileStem, kLogFolderName), "");
    EXPECT_STREQ(GetLogPaths().logFolder, Folder().c_str());
    EXPECT_STREQ(GetLogPaths().logFile, LogFile().c_str());
    EXPECT_TRUE(fs::is_directory(Folder()));

    const std::string folderLine = "HLL :: Folder \"" + Folder() + "\" doesn't exist. Creating...";
    EXPECT_TRUE(std::regex_match(ReadAll(LogFile()), std::regex("^" + kStamp + " (.*)\n$")));
    EXPECT_EQ(ReadAll(LogFile()).substr(20), folderLine + "\n");
    EXPECT_EQ(debug_, std::vector<std::string>{folderLine + "\n"});
    EXPECT_EQ(cerr_.str(), "");
}

TEST_F(LogTest, ExistingFolderLosesOldLogAndNextRecordIsFirstLine)
{
    fs::create_directories(Folder());
    std::ofstream(LogFile()) << "previous run\n";

    EXPECT_EQ(LoggerInit(kLogFileStem, kLogFolderName), "");
    EXPECT_FALSE(fs::exists(LogFile()));  // gone even before anything new is written
    EXPECT_TRUE(debug_.empty());

    Send("Welcome!");
    EXPECT_TRUE(std::regex_match(ReadAll(LogFile()), std::regex("^" + kStamp + " HLL :: Welcome!\n$")));
}

TEST_F(LogTest, LineFeedsAndPrefixInFileAndDebugger)
{
    fs::create_directories(Folder());
    ASSERT_EQ(LoggerInit(kLogFileStem, kLogFolderName), "");

    Send("Welcome!");
    Send("Build log:\nline a\n");  // ends in a line feed: no empty line after it
    Send("Clean data");

    EXPECT_EQ(debug_, (std::vector<std::string>{"HLL :: Welcome!\n", "HLL :: Build log:\nline a\n",
                                                "HLL :: Clean data\n"}));
    // Only a record's first line bears a time stamp; records keep their order.
    const std::regex file("^(" + kStamp + ") HLL :: Welcome!\n(" + kStamp + ") HLL :: Build log:\nline a\n(" +
                          kStamp + ") HLL :: Clean data\n$");
    std::smatch match;
    const std::string content = ReadAll(LogFile());
    ASSERT_TRUE(std::regex_match(content, match, file)) << content;
    EXPECT_LE(match[1].str(), match[2].str());
    EXPECT_LE(match[2].str(), match[3].str());
}

TEST_F(LogTest, TimeStampIsLocalTime)
{
    const std::optional<std::string> savedTz = GetEnv("TZ");
    setenv("TZ", "TDT-05:30", 1);  // POSIX spelling of UTC+05:30
    tzset();
    fs::create_directories(Folder());
    EXPECT_EQ(LoggerInit(kLogFileStem, kLogFolderName), "");  // no early return before TZ is restored
    Send("Welcome!");
    const std::time_t now = std::time(nullptr);
    RestoreEnv("TZ", savedTz);
    tzset();

    std::tm stamp{};
    std::istringstream(ReadAll(LogFile())) >> std::get_time(&stamp, "%Y-%m-%d %H:%M:%S");
    const std::time_t asUtc = timegm(&stamp) - (5 * 3600 + 30 * 60);
    EXPECT_LE(std::abs(static_cast<long>(asUtc - now)), 2L);
}

TEST_F(LogTest, UnopenableLogFileGoesToCerrAndIsRetried)
{
    Send("before init");  // empty path
    EXPECT_EQ(debug_, std::vector<std::string>{"HLL :: before init\n"});
    EXPECT_EQ(cerr_.str(), "Failed to open log file.\n");

    const fs::path plain = root_ / "plain";
    std::ofstream(plain) << "x";
    std::strcpy(GetLogPaths().logFile, (plain / "inside.log").c_str());
    Send("into a file");
    EXPECT_EQ(cerr_.str(), "Failed to open log file.\nFailed to open log file.\n");

    std::strcpy(GetLogPaths().logFile, (root_ / "later.log").c_str());
    Send("later");
    EXPECT_TRUE(std::regex_match(ReadAll(root_ / "later.log"), std::regex("^" + kStamp + " HLL :: later\n$")));
}

TEST_F(LogTest, NoTempDirFailsInitAndLeavesPathsEmpty)
{
    const fs::path plain = root_ / "plain";
    std::ofstream(plain) << "x";
    UseTmpDir(plain);

    EXPECT_EQ(LoggerInit(kLogFileStem, kLogFolderName), "Failed to get temp path on Windows.");
    EXPECT_STREQ(GetLogPaths().logFile, "");
    ASSERT_EQ(debug_.size(), 1u);
    EXPECT_TRUE(std::regex_match(debug_[0], std::regex(R"(^HLL :: ERROR \[LogsController\.h:\d+:LoggerInit\] :: )"
                                                       R"(Failed to get temp path on Windows\.\n$)")))
        << debug_[0];
    EXPECT_EQ(cerr_.str(), "Failed to open log file.\n");
}

TEST_F(LogTest, FolderThatCannotBeCreatedFailsInitButKeepsFilePath)
{
    std::ofstream(root_ / "Harbour Lantern Lab") << "a file where the folder belongs";

    const std::string result = LoggerInit(kLogFileStem, kLogFolderName);
    EXPECT_EQ(result.rfind("An error occurred in LoggerInit: ", 0), 0u) << result;
    EXPECT_GT(result.size(), std::strlen("An error occurred in LoggerInit: "));
    EXPECT_STREQ(GetLogPaths().logFile, LogFile().c_str());
    ASSERT_EQ(debug_.size(), 1u);
    const std::regex head(R"(^HLL :: ERROR \[LogsController\.h:\d+:LoggerInit\] :: (.*)\n$)");
    std::smatch match;
    ASSERT_TRUE(std::regex_match(debug_[0], match, head)) << debug_[0];
    EXPECT_EQ(match[1].str(), result);
    EXPECT_EQ(cerr_.str(), "Failed to open log file.\n");
}

TEST_F(LogTest, LongPathsAreCutAndRecordsFollowTheCutPath)
{
    const std::size_t rootLength = root_.string().size();
    if (rootLength > 200) {
        GTEST_SKIP() << "temporary directory path too long for this test: " << root_;
    }
    // TMPDIR of 220 characters with its '/', so the file path is 267 long.
    const fs::path tmp = root_ / std::string(220 - rootLength - 2, 'd');
    fs::create_directories(tmp);
    UseTmpDir(tmp);

    ASSERT_EQ(LoggerInit(kLogFileStem, kLogFolderName), "");
    const std::string full = tmp.string() + "/Harbour Lantern Lab/com.hll.tremordistiller.log";
    ASSERT_EQ(full.size(), 267u);
    const std::string cut = full.substr(0, 259);
    EXPECT_EQ(GetLogPaths().logFile, cut);
    EXPECT_TRUE(std::regex_match(ReadAll(cut), std::regex("^" + kStamp + " HLL :: Folder .*\n$")));

    const std::string longFolder(240, 'f');
    ASSERT_EQ(LoggerInit(kLogFileStem, longFolder), "");
    EXPECT_EQ(GetLogPaths().logFolder, (tmp.string() + "/" + longFolder + "/").substr(0, 259));
}

TEST_F(LogTest, DebugOnlyAddsNoPrefixAndOneLineFeed)
{
    std::ostringstream plain;
    plain << "Log failed: boom";
    WriteDebugOnly(plain);
    std::ostringstream terminated;
    terminated << "as is\n";
    WriteDebugOnly(terminated);

    EXPECT_EQ(debug_, (std::vector<std::string>{"Log failed: boom\n", "as is\n"}));
}

TEST_F(LogTest, ConcurrentRecordsReachTheDebuggerWhole)
{
    fs::create_directories(Folder());
    ASSERT_EQ(LoggerInit(kLogFileStem, kLogFolderName), "");

    constexpr int kThreads = 4;
    constexpr int kRecords = 100;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kRecords; ++i) {
                Send("thread " + std::to_string(t) + " record " + std::to_string(i));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    ASSERT_EQ(debug_.size(), static_cast<std::size_t>(kThreads * kRecords));
    for (const std::string& line : debug_) {
        EXPECT_TRUE(std::regex_match(line, std::regex(R"(^HLL :: thread \d record \d+\n$)"))) << line;
    }
    const std::string content = ReadAll(LogFile());
    EXPECT_EQ(std::count(content.begin(), content.end(), '\n'), kThreads * kRecords);
}

// ---- Error-line composition ---------------------------------------------------

std::string ErrorLineInFreeFunction(int* line)
{
    *line = __LINE__; return LOG_ERROR_LINE;  // same line on purpose
}

struct FrameRenderer {
    virtual ~FrameRenderer() = default;
    virtual std::string Render(int* line) const
    {
        *line = __LINE__; return LOG_ERROR_LINE;
    }
    static std::string Setup(int* line)
    {
        *line = __LINE__; return LOG_ERROR_LINE;
    }
};

TEST(ErrorLine, NamesFileLineAndFunctionWithItsClass)
{
    int line = 0;
    std::string head = ErrorLineInFreeFunction(&line);
    EXPECT_EQ(head, "ERROR [test_logs_controller.cpp:" + std::to_string(line) + ":ErrorLineInFreeFunction] :: ");

    head = FrameRenderer().Render(&line);
    EXPECT_EQ(head, "ERROR [test_logs_controller.cpp:" + std::to_string(line) + ":FrameRenderer::Render] :: ");

    head = FrameRenderer::Setup(&line);
    EXPECT_EQ(head, "ERROR [test_logs_controller.cpp:" + std::to_string(line) + ":FrameRenderer::Setup] :: ");
}

TEST(ErrorLine, SourceFileNameDropsDirectoriesOfEitherKind)
{
    EXPECT_EQ(LogSourceFileName("C:\\src\\plugin\\TremorDistiller.cpp"), "TremorDistiller.cpp");
    EXPECT_EQ(LogSourceFileName("/work/plugin/Headers/LogsController.h"), "LogsController.h");
    EXPECT_EQ(LogSourceFileName("C:/mixed\\dir/TremorDistiller_CPU.cpp"), "TremorDistiller_CPU.cpp");
    EXPECT_EQ(LogSourceFileName("TremorDistiller_UI_Handler.cpp"), "TremorDistiller_UI_Handler.cpp");
}

TEST(ErrorLine, FunctionNameFromCompilerSignatures)
{
    const std::pair<const char*, const char*> cases[] = {
        {"std::string LoggerInit(const std::string&, const std::string&)", "LoggerInit"},
        {"virtual prSuiteError GPUTremorDistiller::Render(const PrGPUFilterRenderParams*, const PPixHand*, "
         "size_t, PPixHand*)",
         "GPUTremorDistiller::Render"},
        {"static long long unsigned int ns::Reg<T>::Count() [with T = int]", "ns::Reg<T>::Count"},
        {"std::map<int, std::__cxx11::basic_string<char> > ns::Reg<T>::find(int) const [with T = int]",
         "ns::Reg<T>::find"},
        {"const char* Device::Name() const &", "Device::Name"},
        {"ns::Reg<T>::~Reg() [T = int]", "ns::Reg<T>::~Reg"},
        {"int {anonymous}::Helper()", "{anonymous}::Helper"},
        {"bool Frame::operator<(const Frame&) const", "Frame::operator<"},
        {"void Frame::operator()()", "Frame::operator()"},
        {"Frame::operator bool() const", "Frame::operator bool"},
        {"GPUTremorDistiller::Render", "GPUTremorDistiller::Render"},  // MSVC's __FUNCTION__
    };
    for (const auto& [signature, name] : cases) {
        EXPECT_EQ(LogFunctionName(signature), name) << signature;
    }
    static_assert(LogFunctionName("int RenderCPU(PF_InData*)") == "RenderCPU");
}

TEST_F(LogTest, ErrorRecordCarriesHeadAndSiteText)
{
    fs::create_directories(Folder());
    ASSERT_EQ(LoggerInit(kLogFileStem, kLogFolderName), "");

    std::ostringstream stream;
    const int line = __LINE__; stream << LOG_ERROR_LINE << "clBuildProgram failed: " << -11;
    Log(std::move(stream));

    const std::string expected = "HLL :: ERROR [test_logs_controller.cpp:" + std::to_string(line) +
                                 ":LogTest_ErrorRecordCarriesHeadAndSiteText_Test::TestBody] :: "
                                 "clBuildProgram failed: -11";
    EXPECT_EQ(debug_, std::vector<std::string>{expected + "\n"});
    EXPECT_EQ(ReadAll(LogFile()).substr(20), expected + "\n");
}
