#include <gtest/gtest.h>

#include <regex>

#include "pactivo/logger.h"
#include "pactivo/user_default_manager.h"
#include "support/test_support.h"

namespace pactivo {
namespace {

using testing::LogCapture;
using testing::ScopedPlatform;

class LoggerTest : public ::testing::Test {
 protected:
  ScopedPlatform scoped_;
  LogCapture log_;
};

constexpr const char* kTime = R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3})";

TEST_F(LoggerTest, LevelFiltering) {
  struct Case {
    LogLevel threshold;
    LogLevel message;
    bool printed;
  } cases[] = {
      {LogLevel::debug, LogLevel::debug, true},     {LogLevel::info, LogLevel::debug, false},
      {LogLevel::info, LogLevel::info, true},       {LogLevel::warning, LogLevel::info, false},
      {LogLevel::warning, LogLevel::warning, true}, {LogLevel::warning, LogLevel::error, true},
      {LogLevel::error, LogLevel::warning, false},  {LogLevel::error, LogLevel::error, true},
  };
  for (const auto& c : cases) {
    log_.clear();
    SDKLogger::shared().setLogLevel(c.threshold);
    SDKLogger::shared().log("abc", c.message, "f()");
    EXPECT_EQ(!log_.messages().empty(), c.printed)
        << rawValue(c.threshold) << " " << rawValue(c.message);
  }
}

TEST_F(LoggerTest, NonDebugFormatHasNoSpaceBeforeMessage) {
  SDKLogger::shared().setLogLevel(LogLevel::warning);
  UserDefaultManager::setInt(keys::kSdkVersion, 7);
  const auto before = std::chrono::system_clock::now();
  SDKLogger::shared().log("abc", LogLevel::warning, "fetch()");
  const auto after = std::chrono::system_clock::now();
  auto messages = log_.messages();
  ASSERT_EQ(messages.size(), 1u);
  // The stamp is the local time of the call, to the millisecond.
  std::tm local{};
  int millis = -1;
  const std::string stamp = messages[0].substr(messages[0].find('\n') + 1, 23);
  ASSERT_TRUE(strptime(stamp.c_str(), "%Y-%m-%d %H:%M:%S", &local)) << stamp;
  millis = std::stoi(stamp.substr(20));
  local.tm_isdst = -1;
  const auto logged = std::chrono::system_clock::from_time_t(std::mktime(&local)) +
                      std::chrono::milliseconds(millis);
  EXPECT_GE(logged, std::chrono::floor<std::chrono::milliseconds>(before)) << stamp;
  EXPECT_LE(logged, after) << stamp;
  EXPECT_TRUE(std::regex_match(messages[0], std::regex(std::string("Configuration Version: 7\n") +
                                                       kTime + R"( \[WARNING\]abc\n)")))
      << messages[0];
}

TEST_F(LoggerTest, DebugFormatWithEnvironmentDump) {
  scoped_.platform().setLibraryVersion("1.2.3");
  scoped_.platform().setAdvertisingIdentifier("AD-ID");
  UserDefaultManager::setBool(keys::kIsAttEnabled, true);
  UserDefaultManager::setString(keys::kSubjectId, "SUBJ");
  UserDefaultManager::setInt(keys::kSdkVersion, 3);
  log_.clear();
  SDKLogger::shared().log("abc", LogLevel::debug, "fetch()");
  auto messages = log_.messages();
  ASSERT_EQ(messages.size(), 3u);
  EXPECT_EQ(messages[0], "SDK Version: 1.2.3\n");
  EXPECT_EQ(messages[1], "ATT AD ID: AD-ID\n");
  EXPECT_TRUE(std::regex_match(
      messages[2], std::regex(std::string("Subject Identity: SUBJ\nConfiguration Version: 3\n") +
                              kTime + R"( \[DEBUG\] \[logger_test\.cc:\d+\] fetch\(\) - abc\n)")))
      << messages[2];
}

TEST_F(LoggerTest, DebugWithNothingStoredAndNoVersionOrTracking) {
  scoped_.platform().setLibraryVersion(std::nullopt);
  scoped_.platform().setAdvertisingIdentifier("AD-ID");  // tracking is off: not printed
  SDKLogger::shared().log("x", LogLevel::info, "f()");
  auto messages = log_.messages();
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_EQ(messages[0].rfind("Subject Identity: \nConfiguration Version: 0\n", 0), 0u)
      << messages[0];
  EXPECT_NE(messages[0].find("[INFO] [logger_test.cc:"), std::string::npos);
}

TEST_F(LoggerTest, EmptyAdvertisingIdentifierSkipsItsLine) {
  UserDefaultManager::setBool(keys::kIsAttEnabled, true);
  log_.clear();
  SDKLogger::shared().log("x", LogLevel::error, "f()");
  EXPECT_FALSE(log_.contains("ATT AD ID"));
}

}  // namespace
}  // namespace pactivo
