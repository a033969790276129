#include <gtest/gtest.h>

#include <regex>

#include "pactivo/logger.h"
#include "pactivo/user_default_manager.h"
#include "support/test_support.h"

namespace pactivo {
namespace {

// `t` as the log stamps it: local time to the millisecond.
std::string stamp(std::chrono::system_clock::time_point t) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(t);
  char text[40];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", std::localtime(&seconds));
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(t.time_since_epoch());
  return text + std::string(".") + std::to_string(1000 + ms.count() % 1000).substr(1);
}

TEST(LoggerTest, LineFormats) {
  struct Case {
    LogLevel threshold, level;
    std::string adId;
    bool attEnabled, stored;  // stored: version 1.2.3, subject SUBJ, configuration 3
    std::string expected;
  } cases[] = {
      // A message is printed from its threshold up (debug, info, warning, error).
      {LogLevel::info, LogLevel::debug, "", true, true, ""},
      {LogLevel::error, LogLevel::warning, "", true, true, ""},
      {LogLevel::error, LogLevel::error, "", true, true,
       "Configuration Version: 3\nTIME [ERROR]abc\n"},
      // Below debug: the configuration version, no space before the text, and
      // no identifier.
      {LogLevel::warning, LogLevel::warning, "AD-ID", true, true,
       "Configuration Version: 3\nTIME [WARNING]abc\n"},
      {LogLevel::debug, LogLevel::debug, "AD-ID", true, true,
       "SDK Version: 1.2.3\n|ATT AD ID: AD-ID\n|Subject Identity: SUBJ\nConfiguration Version: "
       "3\nTIME [DEBUG] [logger_test.cc:LINE] fetch() - abc\n"},
      // Nothing stored, no version, tracking off: the identifier is not shown.
      {LogLevel::debug, LogLevel::info, "AD-ID", false, false,
       "Subject Identity: \nConfiguration Version: 0\nTIME [INFO] [logger_test.cc:LINE] fetch() - "
       "abc\n"},
      {LogLevel::debug, LogLevel::error, "", true, false,
       "Subject Identity: \nConfiguration Version: 0\nTIME [ERROR] [logger_test.cc:LINE] fetch() - "
       "abc\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.expected);
    testing::ScopedPlatform scoped;
    scoped.platform().setLibraryVersion(c.stored ? std::optional("1.2.3") : std::nullopt);
    scoped.platform().setAdvertisingIdentifier(c.adId);
    UserDefaultManager::setBool(keys::kIsAttEnabled, c.attEnabled);
    if (c.stored) {
      UserDefaultManager::setString(keys::kSubjectId, "SUBJ");
      UserDefaultManager::setInt(keys::kSdkVersion, 3);
    }
    SDKLogger::shared().setLogLevel(c.threshold);
    testing::LogCapture log;
    const std::string before = stamp(std::chrono::system_clock::now());
    SDKLogger::shared().log("abc", c.level, "fetch()");
    const std::string after = stamp(std::chrono::system_clock::now());
    std::string text;  // the messages joined by '|', the stamp and line number replaced
    for (const auto& message : log.messages()) text += (text.empty() ? "" : "|") + message;
    std::smatch logged;
    if (std::regex_search(text, logged, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3})"))) {
      EXPECT_TRUE(before <= logged.str() && logged.str() <= after) << before << " " << logged.str();
      text.replace(logged.position(), logged.length(), "TIME");
    }
    text = std::regex_replace(text, std::regex(R"(logger_test\.cc:\d+\])"), "logger_test.cc:LINE]");
    EXPECT_EQ(text, c.expected);
  }
}

}  // namespace
}  // namespace pactivo
