// The effect's log: one text file per host run under the temporary directory,
// every record mirrored to the debugger channel. Also the names of the host's
// command selectors and error codes, so log lines can say what happened.
//
// Usage at a site:
//     LOG_ERROR("OpenCL Assert: ", OpenCLErrorText(err));   // "ERROR [file:line:function] :: ..."
//     LOG_INFO("Initialized new device: ", name);
//
// No levels, no switch, no lock: records are rare (failures and a few start-up
// lines), so the file is opened and closed for each one.
#pragma once

#include <Windows.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>

// Where the effect's own log goes: <temp>/Harbour Lantern Lab/com.hll.tremordistiller.log
inline constexpr char kLogFileStem[] = "com.hll.tremordistiller";
inline constexpr char kLogFolderName[] = "Harbour Lantern Lab";

inline constexpr char kLogExtension[] = ".log";
inline constexpr char kLogPrefix[] = "HLL :: ";
inline constexpr char kLogTimeFormat[] = "%Y-%m-%d %H:%M:%S";
#if defined(_WIN32)
inline constexpr char kLogFolderSeparator = '\\';
#else
inline constexpr char kLogFolderSeparator = '/';
#endif
// MAX_PATH: the paths are kept in fixed buffers of this size, NUL included.
inline constexpr std::size_t kLogPathSize = 260;

struct LogPaths {
  char logFile[kLogPathSize];    // full path of the log file
  char logFolder[kLogPathSize];  // its folder, with the trailing separator
};

// The one record per process. Both paths stay empty until LoggerInit, so a
// record sent earlier reaches only the debugger. Tests may assign LogPaths{}
// to start over.
inline LogPaths& GetLogPaths() {
  static const std::unique_ptr<LogPaths> paths = std::make_unique<LogPaths>();
  return *paths;
}

// ---- Error-line composition --------------------------------------------------

// __FILE__ without its directories. Both separators are cut, whatever the
// build platform, so a path from either kind of build gives the bare name.
constexpr std::string_view LogSourceFileName(std::string_view path) {
  const std::size_t cut = path.find_last_of("/\\");
  return cut == std::string_view::npos ? path : path.substr(cut + 1);
}

constexpr bool IsLogIdentifierChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

// Start of an `operator` keyword naming the function, or npos. Its symbols
// (`<`, `()`, ...) would otherwise upset the bracket counting below.
constexpr std::size_t FindLogOperatorKeyword(std::string_view name) {
  constexpr std::string_view keyword = "operator";
  std::size_t pos = name.rfind(keyword);
  while (pos != std::string_view::npos) {
    const std::size_t after = pos + keyword.size();
    const bool startsToken = pos == 0 || name[pos - 1] == ':' || name[pos - 1] == ' ';
    const bool endsToken = after == name.size() || !IsLogIdentifierChar(name[after]);
    if (startsToken && endsToken) {
      return pos;
    }
    if (pos == 0) {
      break;
    }
    pos = name.rfind(keyword, pos - 1);
  }
  return std::string_view::npos;
}

// The qualified name of a function from the compiler's signature text:
// "virtual int GPUTremorDistiller::Render(const Params*) const" gives
// "GPUTremorDistiller::Render". GCC's __FUNCTION__ drops the class, so the
// full signature is parsed instead; text that is already a bare name (MSVC's
// __FUNCTION__) comes back unchanged. Unusual declarators (functions returning
// function pointers, lambdas) come out roughly, never empty.
constexpr std::string_view LogFunctionName(std::string_view signature) {
  std::string_view s = signature;

  // Template arguments: " [with T = int]" (GCC) or " [T = int]" (Clang).
  if (!s.empty() && s.back() == ']') {
    int depth = 0;
    for (std::size_t i = s.size(); i-- > 0;) {
      if (s[i] == ']') {
        ++depth;
      } else if (s[i] == '[' && --depth == 0) {
        s = s.substr(0, i);
        break;
      }
    }
    while (!s.empty() && s.back() == ' ') {
      s.remove_suffix(1);
    }
  }

  // Parameter list, with the cv- and ref-qualifiers after it. A lambda's
  // text ends in '>', and its last ')' is not a parameter list to cut.
  const std::size_t close = s.rfind(')');
  if (close != std::string_view::npos) {
    bool onlyQualifiers = true;
    for (std::size_t i = close + 1; i < s.size(); ++i) {
      onlyQualifiers = onlyQualifiers && (IsLogIdentifierChar(s[i]) || s[i] == ' ' || s[i] == '&');
    }
    if (onlyQualifiers) {
      int depth = 0;
      for (std::size_t i = close + 1; i-- > 0;) {
        if (s[i] == ')') {
          ++depth;
        } else if (s[i] == '(' && --depth == 0) {
          s = s.substr(0, i);
          break;
        }
      }
    }
  }

  // Return type and specifiers end at the last blank outside brackets.
  const std::size_t op = FindLogOperatorKeyword(s);
  const std::size_t end = op == std::string_view::npos ? s.size() : op;
  int depth = 0;
  for (std::size_t i = end; i-- > 0;) {
    const char c = s[i];
    if (c == ')' || c == '>') {
      ++depth;
    } else if (c == '(' || c == '<') {
      --depth;
    } else if (c == ' ' && depth == 0) {
      return s.substr(i + 1);
    }
  }
  return s;
}

// Internal linkage is no part of a name a user should read in the log.
constexpr std::string_view LogWithoutAnonymousNamespace(std::string_view name) {
  for (std::string_view prefix : {std::string_view("{anonymous}::"), std::string_view("(anonymous namespace)::")}) {
    while (name.substr(0, prefix.size()) == prefix) {
      name.remove_prefix(prefix.size());
    }
  }
  return name;
}

// "ERROR [file:line:function] :: ", the head of every error record.
inline std::string ErrorLinePrefix(std::string_view file, int line, std::string_view function) {
  std::string head = "ERROR [";
  head.append(file);
  head += ':';
  head += std::to_string(line);
  head += ':';
  head.append(function);
  head += "] :: ";
  return head;
}

#if defined(__GNUC__) || defined(__clang__)
#define TD_LOG_FUNCTION_SIGNATURE __PRETTY_FUNCTION__
#else
#define TD_LOG_FUNCTION_SIGNATURE __FUNCTION__  // MSVC: already carries the class
#endif

// A macro because it needs the site's own file, line and function.
#define LOG_ERROR_LINE LOG_ERROR_LINE_IN(LogFunctionName(TD_LOG_FUNCTION_SIGNATURE))
// For a helper that reports on behalf of the operation the user knows.
#define LOG_ERROR_LINE_IN(function) \
  ErrorLinePrefix(LogSourceFileName(__FILE__), __LINE__, LogWithoutAnonymousNamespace(function))

// ---- Records -----------------------------------------------------------------

// Debugger only, without the prefix; used to report the logger's own failures.
inline void WriteDebugOnly(const std::ostringstream& stream) {
  try {
    std::string text = stream.str();
    if (!text.empty() && text.back() != '\n') {
      text += '\n';
    }
    OutputDebugStringA(text.c_str());
  } catch (const std::exception&) {
    // Nowhere left to report to.
  }
}

inline std::tm LogLocalTime(std::time_t time) {
  std::tm local{};
#if defined(_WIN32)
  localtime_s(&local, &time);
#else
  localtime_r(&time, &local);  // std::localtime shares one buffer between threads
#endif
  return local;
}

inline void WriteLogRecord(std::string message) {
  try {
    const LogPaths& paths = GetLogPaths();
    if (!message.empty()) {
      message.insert(0, kLogPrefix);
    }

    // The debugger gets exactly one line feed; the file adds its own below.
    if (message.empty() || message.back() != '\n') {
      OutputDebugStringA((message + '\n').c_str());
    } else {
      OutputDebugStringA(message.c_str());
      message.pop_back();
    }

    // Text mode, appending, created when missing. Reopened per record so
    // that nothing stays open between records; the Windows CRT's default
    // protection lets other readers and writers share the file.
    std::ofstream file(paths.logFile, std::ios::out | std::ios::app);
    if (!file.is_open()) {
      std::cerr << "Failed to open log file." << std::endl;
      return;
    }
    const auto now = std::chrono::time_point_cast<std::chrono::seconds>(std::chrono::system_clock::now());
    const std::tm local = LogLocalTime(std::chrono::system_clock::to_time_t(now));
    file << std::put_time(&local, kLogTimeFormat) << ' ' << message << '\n';
  } catch (const std::exception& e) {
    std::ostringstream failure;
    failure << "Log failed: " << e.what();
    WriteDebugOnly(failure);
  }
}

// Takes the site's finished stream: `Log(std::move(stream))`.
inline void Log(std::ostringstream stream) {
  try {
    const std::string text = stream.str();
    WriteLogRecord(text);
  } catch (const std::exception& e) {
    std::ostringstream failure;
    failure << "Log failed: " << e.what();
    WriteDebugOnly(failure);
  }
}

// One record from its parts: LOG_ERROR("Wrong bitdepth: ", depth).
template <typename... Parts>
void LogParts(const std::string& head, const Parts&... parts) {
  try {
    std::ostringstream stream;
    stream << head;
    (stream << ... << parts);
    Log(std::move(stream));
  } catch (const std::exception&) {
    // Logging never fails its caller.
  }
}

#define LOG_ERROR(...) LogParts(LOG_ERROR_LINE, __VA_ARGS__)
#define LOG_ERROR_IN(function, ...) LogParts(LOG_ERROR_LINE_IN(function), __VA_ARGS__)
#define LOG_INFO(...) LogParts(std::string(), __VA_ARGS__)

// Sets the log paths and starts an empty log, deleting the previous run's.
// Returns an empty string, or the failure's text for the host's message.
inline std::string LoggerInit(const std::string& fileStem, const std::string& folderName) {
  try {
    LogPaths& paths = GetLogPaths();

    char tempPath[kLogPathSize] = {};
    if (GetTempPathA(static_cast<DWORD>(kLogPathSize), tempPath) == 0) {
      const std::string text = "Failed to get temp path on Windows.";
      LOG_ERROR(text);
      return text;
    }

    const std::string folderPath = std::string(tempPath) + folderName + kLogFolderSeparator;
    const std::string filePath = folderPath + fileStem + kLogExtension;

    // Too long a path is cut, and the records then go to the cut path.
    const std::size_t fileLength = filePath.copy(paths.logFile, kLogPathSize - 1);
    paths.logFile[fileLength] = '\0';
    const std::size_t folderLength = folderPath.copy(paths.logFolder, kLogPathSize - 1);
    paths.logFolder[folderLength] = '\0';

    DeleteFileA(filePath.c_str());

    if (!std::filesystem::exists(folderPath)) {
      std::filesystem::create_directories(folderPath);
      LOG_INFO("Folder \"", folderPath, "\" doesn't exist. Creating...");
    }
    return {};
  } catch (const std::exception& e) {
    const std::string text = std::string("An error occurred in LoggerInit: ") + e.what();
    LOG_ERROR(text);
    return text;
  }
}

// ---- Host constant names -------------------------------------------------------

// Indexed by the host's command selector.
inline constexpr const char* PFCmdNames[] = {
    "PF_Cmd_ABOUT",
    "PF_Cmd_GLOBAL_SETUP",
    "PF_Cmd_UNUSED_0",
    "PF_Cmd_GLOBAL_SETDOWN",
    "PF_Cmd_PARAMS_SETUP",
    "PF_Cmd_SEQUENCE_SETUP",
    "PF_Cmd_SEQUENCE_RESETUP",
    "PF_Cmd_SEQUENCE_FLATTEN",
    "PF_Cmd_SEQUENCE_SETDOWN",
    "PF_Cmd_DO_DIALOG",
    "PF_Cmd_FRAME_SETUP",
    "PF_Cmd_RENDER",
    "PF_Cmd_FRAME_SETDOWN",
    "PF_Cmd_USER_CHANGED_PARAM",
    "PF_Cmd_UPDATE_PARAMS_UI",
    "PF_Cmd_EVENT",
    "PF_Cmd_GET_EXTERNAL_DEPENDENCIES",
    "PF_Cmd_COMPLETELY_GENERAL",
    "PF_Cmd_QUERY_DYNAMIC_FLAGS",
    "PF_Cmd_AUDIO_RENDER",
    "PF_Cmd_AUDIO_SETUP",
    "PF_Cmd_AUDIO_SETDOWN",
    "PF_Cmd_ARBITRARY_CALLBACK",
    "PF_Cmd_SMART_PRE_RENDER",
    "PF_Cmd_SMART_RENDER",
    "PF_Cmd_RESERVED1",
    "PF_Cmd_RESERVED2",
    "PF_Cmd_RESERVED3",
    "PF_Cmd_GET_FLATTENED_SEQUENCE_DATA",
    "PF_Cmd_TRANSLATE_PARAMS_TO_PREFS",
    "PF_Cmd_RESERVED4",
    "PF_Cmd_SMART_RENDER_GPU",
    "PF_Cmd_GPU_DEVICE_SETUP",
    "PF_Cmd_GPU_DEVICE_SETDOWN",
    "PF_Cmd_NUM_CMDS",
};
static_assert(std::size(PFCmdNames) == 35, "one name per command selector, PF_Cmd_NUM_CMDS last");

struct PFErrName {
  std::int32_t code;
  const char* name;
};

inline constexpr PFErrName PFErrNames[] = {
    {0, "PF_Err_NONE"},
    {4, "PF_Err_OUT_OF_MEMORY"},
    {512, "PF_Err_INTERNAL_STRUCT_DAMAGED"},
    {513, "PF_Err_INVALID_INDEX"},
    {514, "PF_Err_UNRECOGNIZED_PARAM_TYPE"},
    {515, "PF_Err_INVALID_CALLBACK"},
    {516, "PF_Err_BAD_CALLBACK_PARAM"},
    {517, "PF_Interrupt_CANCEL"},
    {518, "PF_Err_CANNOT_PARSE_KEYFRAME_TEXT"},
};

// "PF_Err_OUT_OF_MEMORY (4)"; a code without a name still shows its number.
inline std::string PFErrText(std::int32_t code) {
  const auto row = std::find_if(std::begin(PFErrNames), std::end(PFErrNames),
                                [code](const PFErrName& entry) { return entry.code == code; });
  const char* name = row == std::end(PFErrNames) ? "PF_Err?UNKNOWN" : row->name;
  return std::string(name) + " (" + std::to_string(code) + ")";
}
