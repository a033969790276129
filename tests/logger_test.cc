#include <gtest/gtest.h>

#include <regex>

#include "pactivo/logger.h"
#include "pactivo/user_default_manager.h"
#include "support/test_support.h"

namespace pactivo {
namespace {

// The printed messages joined by '|', with the stamp replaced by TIME once it
// is checked to be the local time of the call, to the millisecond, and the
// source line number replaced by LINE.
std::string normalised(const std::vector<std::string>& messages,
                       std::chrono::system_clock::time_point before,
                       std::chrono::system_clock::time_point after) {
  std::string text;
  for (const auto& message : messages) text += (text.empty() ? "" : "|") + message;
  std::smatch match;
  if (std::regex_search(text, match,
                        std::regex(R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.(\d{3}))"))) {
    std::tm local{};
    EXPECT_TRUE(strptime(match.str(0).c_str(), "%Y-%m-%d %H:%M:%S", &local)) << match.str(0);
    local.tm_isdst = -1;
    const auto logged = std::chrono::system_clock::from_time_t(std::mktime(&local)) +
                        std::chrono::milliseconds(std::stoi(match.str(1)));
    EXPECT_GE(logged, std::chrono::floor<std::chrono::milliseconds>(before)) << match.str(0);
    EXPECT_LE(logged, after) << match.str(0);
    text.replace(match.position(0), match.length(0), "TIME");
  }
  return std::regex_replace(text, std::regex(R"(logger_test\.cc:\d+\])"), "logger_test.cc:LINE]");
}

TEST(LoggerTest, LineFormats) {
  struct Case {
    LogLevel threshold, level;
    std::optional<std::string> libraryVersion;
    std::string adId;
    bool attEnabled, stored;  // stored: subject SUBJ and configuration version 3
    std::string expected;
  } cases[] = {
      // A message is printed from its threshold up (debug, info, warning, error).
      {LogLevel::info, LogLevel::debug, "1.2.3", "", true, true, ""},
      {LogLevel::error, LogLevel::warning, "1.2.3", "", true, true, ""},
      {LogLevel::error, LogLevel::error, "1.2.3", "", true, true,
       "Configuration Version: 3\nTIME [ERROR]abc\n"},
      // Below debug: the configuration version, and no space before the text.
      {LogLevel::warning, LogLevel::warning, "1.2.3", "AD-ID", true, true,
       "Configuration Version: 3\nTIME [WARNING]abc\n"},
      {LogLevel::debug, LogLevel::debug, "1.2.3", "AD-ID", true, true,
       "SDK Version: 1.2.3\n|ATT AD ID: AD-ID\n|Subject Identity: SUBJ\nConfiguration Version: "
       "3\nTIME [DEBUG] [logger_test.cc:LINE] fetch() - abc\n"},
      // Nothing stored, no version, tracking off: the identifier is not shown.
      {LogLevel::debug, LogLevel::info, std::nullopt, "AD-ID", false, false,
       "Subject Identity: \nConfiguration Version: 0\nTIME [INFO] [logger_test.cc:LINE] fetch() - "
       "abc\n"},
      {LogLevel::debug, LogLevel::error, std::nullopt, "", true, false,
       "Subject Identity: \nConfiguration Version: 0\nTIME [ERROR] [logger_test.cc:LINE] fetch() - "
       "abc\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.expected);
    testing::ScopedPlatform scoped;
    scoped.platform().setLibraryVersion(c.libraryVersion);
    scoped.platform().setAdvertisingIdentifier(c.adId);
    UserDefaultManager::setBool(keys::kIsAttEnabled, c.attEnabled);
    if (c.stored) {
      UserDefaultManager::setString(keys::kSubjectId, "SUBJ");
      UserDefaultManager::setInt(keys::kSdkVersion, 3);
    }
    SDKLogger::shared().setLogLevel(c.threshold);
    testing::LogCapture log;
    const auto before = std::chrono::system_clock::now();
    SDKLogger::shared().log("abc", c.level, "fetch()");
    EXPECT_EQ(normalised(log.messages(), before, std::chrono::system_clock::now()), c.expected);
  }
}

}  // namespace
}  // namespace pactivo
