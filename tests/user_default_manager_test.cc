#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <thread>

#include "pactivo/consent_sdk.h"
#include "pactivo/user_default_manager.h"
#include "persistence/preference_store.h"
#include "support/test_support.h"

namespace pactivo {
namespace {

using testing::LogCapture;
using testing::ScopedPlatform;

class UserDefaultManagerTest : public ::testing::Test {
 protected:
  std::filesystem::path suiteFile() const {
    return scoped_.dataDirectory() / detail::PreferenceStore::kFileName;
  }
  // Writes through a second, raw SQLite connection, as another process would.
  void rawExec(const std::string& sql) {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(suiteFile().c_str(), &db), SQLITE_OK);
    sqlite3_busy_timeout(db, 5000);
    char* error = nullptr;
    EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error), SQLITE_OK)
        << (error ? error : "");
    sqlite3_free(error);
    sqlite3_close(db);
  }

  ScopedPlatform scoped_;
};

TEST_F(UserDefaultManagerTest, FreshInstallDefaults) {
  EXPECT_EQ(UserDefaultManager::getString(keys::kConsentGivenType, kConsentNoAction),
            kConsentNoAction);
  EXPECT_TRUE(UserDefaultManager::getPendingPurposes().empty());
  EXPECT_TRUE(UserDefaultManager::getPendingPermissions().empty());
  EXPECT_EQ(UserDefaultManager::getComplianceType(), ComplianceType::noticeOnly);
  EXPECT_EQ(UserDefaultManager::getPurposeConsent("7", ConsentStatus::notDetermined),
            ConsentStatus::notDetermined);
  EXPECT_EQ(UserDefaultManager::getStoredConsent("7"), std::nullopt);
  EXPECT_FALSE(UserDefaultManager::getBool("anything"));
  EXPECT_EQ(UserDefaultManager::getInt("anything"), 0);
  EXPECT_EQ(UserDefaultManager::getInt64("anything", -4), -4);
  EXPECT_EQ(UserDefaultManager::getETag(), std::nullopt);
  EXPECT_EQ(UserDefaultManager::getLocationTimestamp(), std::nullopt);
  EXPECT_EQ(UserDefaultManager::getStoredLocation(), std::nullopt);
}

TEST_F(UserDefaultManagerTest, TypedReadsFallBackOnWrongType) {
  UserDefaultManager::setString("s", "text");
  UserDefaultManager::setBool("b", true);
  UserDefaultManager::setInt64("i", 1LL << 40);
  UserDefaultManager::setLocationTimestamp(
      std::chrono::system_clock::time_point(std::chrono::seconds(1704067200)));

  EXPECT_EQ(UserDefaultManager::getString("b", "dflt"), "dflt");
  EXPECT_EQ(UserDefaultManager::getString("i", "dflt"), "dflt");
  EXPECT_EQ(UserDefaultManager::getInt64("s", 9), 9);
  EXPECT_EQ(UserDefaultManager::getInt64("i", 9), 1LL << 40);
  EXPECT_EQ(UserDefaultManager::getInt64("b", 9), 1);  // a boolean is a number
  EXPECT_TRUE(UserDefaultManager::getBool("i"));
  EXPECT_FALSE(UserDefaultManager::getBool("s"));
  EXPECT_EQ(UserDefaultManager::getInt64(keys::kCurrentLocationTimestamp, 5), 5);
  EXPECT_EQ(UserDefaultManager::getLocationTimestamp(),
            std::chrono::system_clock::time_point(std::chrono::seconds(1704067200)));
  UserDefaultManager::setString(keys::kCurrentLocationTimestamp, "yesterday");
  EXPECT_EQ(UserDefaultManager::getLocationTimestamp(), std::nullopt);
  UserDefaultManager::setInt(keys::kEtag, 3);
  EXPECT_EQ(UserDefaultManager::getETag(), std::nullopt);
}

TEST_F(UserDefaultManagerTest, ConsentsAndComplianceTexts) {
  struct Case {
    std::string stored;
    std::optional<ConsentStatus> read;
  } cases[] = {
      {"granted", ConsentStatus::granted},
      {"declined", ConsentStatus::declined},
      {"not_determined", ConsentStatus::notDetermined},
      {"withdrawn", ConsentStatus::withDrawn},
      {"withDrawn", std::nullopt},
      {"GRANTED", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& c : cases) {
    UserDefaultManager::setString("12", c.stored);
    EXPECT_EQ(UserDefaultManager::getStoredConsent("12"), c.read) << c.stored;
    EXPECT_EQ(UserDefaultManager::getPurposeConsent("12", ConsentStatus::declined),
              c.read.value_or(ConsentStatus::declined))
        << c.stored;
  }
  UserDefaultManager::setPurposeConsent("12", ConsentStatus::withDrawn);
  EXPECT_EQ(UserDefaultManager::getString("12", ""), "withdrawn");
  UserDefaultManager::setPermissionConsent(LumariKey::cameraUsageDescription,
                                           ConsentStatus::granted);
  EXPECT_EQ(UserDefaultManager::getString("NSCameraUsageDescription", ""), "granted");
  EXPECT_EQ(
      UserDefaultManager::getPermissionConsent(LumariKey::makeCustom("X"), ConsentStatus::declined),
      ConsentStatus::declined);

  struct Compliance {
    std::string stored;
    ComplianceType read;
  } compliance[] = {{"opt-in", ComplianceType::optIn},
                    {"opt-out", ComplianceType::optOut},
                    {"notice-only", ComplianceType::noticeOnly},
                    {"Opt-In", ComplianceType::noticeOnly},
                    {"opt_in", ComplianceType::noticeOnly}};
  for (const auto& c : compliance) {
    UserDefaultManager::setString(keys::kCurrentComplianceType, c.stored);
    EXPECT_EQ(UserDefaultManager::getComplianceType(), c.read) << c.stored;
  }
  UserDefaultManager::setComplianceType(ComplianceType::optOut);
  EXPECT_EQ(UserDefaultManager::getString(keys::kCurrentComplianceType, ""), "opt-out");
}

TEST_F(UserDefaultManagerTest, PendingListsKeepEachEntryOnce) {
  UserDefaultManager::addPendingPurpose(5);
  UserDefaultManager::addPendingPurpose(5);
  UserDefaultManager::addPendingPurpose(-2);
  auto purposes = UserDefaultManager::getPendingPurposes();
  std::sort(purposes.begin(), purposes.end());
  EXPECT_EQ(purposes, (std::vector<std::int64_t>{-2, 5}));
  UserDefaultManager::clearPendingPurposes();
  EXPECT_TRUE(UserDefaultManager::getPendingPurposes().empty());

  UserDefaultManager::addPendingPermission(LumariKey::cameraUsageDescription);
  UserDefaultManager::addPendingPermission(LumariKey::makeCustom("a:b;s3:"));
  UserDefaultManager::addPendingPermission(LumariKey::cameraUsageDescription);
  auto permissions = UserDefaultManager::getPendingPermissions();
  std::sort(permissions.begin(), permissions.end());
  EXPECT_EQ(permissions, (std::vector<std::string>{"NSCameraUsageDescription", "a:b;s3:"}));
  UserDefaultManager::clearPendingPermissions();
  EXPECT_TRUE(UserDefaultManager::getPendingPermissions().empty());
}

TEST_F(UserDefaultManagerTest, ListWithForeignElementReadsAsEmpty) {
  std::string error;
  ASSERT_TRUE(detail::currentStore()->put(
      keys::kPendingPermissionsList,
      std::vector<PreferenceArrayElement>{std::string("NSCameraUsageDescription"), int64_t{4}},
      &error));
  EXPECT_TRUE(UserDefaultManager::getPendingPermissions().empty());
  ASSERT_TRUE(detail::currentStore()->put(
      keys::kPendingPurposesList, std::vector<PreferenceArrayElement>{int64_t{1}, std::string("2")},
      &error));
  EXPECT_TRUE(UserDefaultManager::getPendingPurposes().empty());
  UserDefaultManager::setString(keys::kPendingPurposesList, "1,2");
  EXPECT_TRUE(UserDefaultManager::getPendingPurposes().empty());
  UserDefaultManager::addPendingPurpose(3);  // replaces the foreign list
  EXPECT_EQ(UserDefaultManager::getPendingPurposes(), (std::vector<std::int64_t>{3}));
}

TEST_F(UserDefaultManagerTest, ArrayEncodingRoundTripsAndRejectsGarbage) {
  std::vector<PreferenceArrayElement> elements{int64_t{-9}, std::string(""),
                                               std::string("x\0y;i1;", 7), int64_t{INT64_MAX}};
  auto decoded = detail::decodeArray(detail::encodeArray(elements));
  ASSERT_TRUE(decoded);
  EXPECT_EQ(*decoded, elements);
  for (std::string_view bad : {"i12", "s5:abc", "x", "i;", "s:"}) {
    EXPECT_EQ(detail::decodeArray(bad), std::nullopt) << bad;
  }
}

TEST_F(UserDefaultManagerTest, SubjectIdIsCreatedOnceAndReplacedWhenEmpty) {
  std::string first = UserDefaultManager::getSubjectId();
  EXPECT_TRUE(std::regex_match(first, std::regex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB]"
                                                 "[0-9A-F]{3}-[0-9A-F]{12}")))
      << first;
  EXPECT_EQ(UserDefaultManager::getSubjectId(), first);
  UserDefaultManager::setString(keys::kSubjectId, "");
  std::string replaced = UserDefaultManager::getSubjectId();
  EXPECT_FALSE(replaced.empty());
  EXPECT_NE(replaced, first);
}

TEST_F(UserDefaultManagerTest, RemoveAllConsentsRemovesEverythingAndLogs) {
  LogCapture log;
  std::string subject = UserDefaultManager::getSubjectId();
  UserDefaultManager::setETag("\"e\"");
  UserDefaultManager::setPurposeConsent("1", ConsentStatus::granted);
  UserDefaultManager::addPendingPurpose(1);
  UserDefaultManager::removeAllConsents();
  EXPECT_TRUE(UserDefaultManager::allEntries().empty());
  EXPECT_TRUE(log.contains("[INFO] [user_default_manager.cc:"));
  EXPECT_TRUE(log.contains("removeAllConsents() - Successfully removed all consents"));
  EXPECT_NE(UserDefaultManager::getSubjectId(), subject);
}

TEST_F(UserDefaultManagerTest, ETagClearAndAllEntriesOrder) {
  UserDefaultManager::setETag("W/\"1\"");
  EXPECT_EQ(UserDefaultManager::getETag(), "W/\"1\"");
  UserDefaultManager::clearETag();
  EXPECT_EQ(UserDefaultManager::getETag(), std::nullopt);
  UserDefaultManager::setBool("b", false);
  UserDefaultManager::setString("a", "x");
  auto entries = UserDefaultManager::allEntries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].key, "a");
  EXPECT_EQ(std::get<bool>(entries[1].value), false);
}

TEST_F(UserDefaultManagerTest, SeesCommitsOfAnotherConnection) {
  UserDefaultManager::setString("k", "mine");
  EXPECT_EQ(UserDefaultManager::getString("k", ""), "mine");
  rawExec("UPDATE preferences SET value = 'theirs' WHERE key = 'k'");
  EXPECT_EQ(UserDefaultManager::getString("k", ""), "theirs");
  rawExec("DELETE FROM preferences");
  EXPECT_EQ(UserDefaultManager::getString("k", "gone"), "gone");
}

TEST_F(UserDefaultManagerTest, PersistsAcrossProcessesAndSurvivesKill) {
  UserDefaultManager::setString("parent", "1");
  // No connection may cross the fork; each process opens its own.
  detail::resetCurrentStore();
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    bool sawParent = UserDefaultManager::getString("parent", "") == "1";
    for (int i = 0; i < 300; ++i) UserDefaultManager::setInt("n" + std::to_string(i), i);
    // Killed without any clean-up, right after the last write returned.
    if (!sawParent) _exit(3);
    kill(getpid(), SIGKILL);
    _exit(4);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status)) << "child exit " << WEXITSTATUS(status);
  for (int i = 0; i < 300; ++i) {
    ASSERT_EQ(UserDefaultManager::getInt64("n" + std::to_string(i), -1), i) << i;
  }
}

TEST_F(UserDefaultManagerTest, TwoProcessesWritingAtOnceNeverFail) {
  LogCapture log;
  constexpr int kWrites = 200;
  UserDefaultManager::getBool("create the suite before forking");
  detail::resetCurrentStore();
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    for (int i = 0; i < kWrites; ++i) UserDefaultManager::setInt("child" + std::to_string(i), i);
    _exit(0);
  }
  for (int i = 0; i < kWrites; ++i) UserDefaultManager::setInt("parent" + std::to_string(i), i);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_FALSE(log.contains("Failed to write preference"));
  EXPECT_EQ(UserDefaultManager::allEntries().size(), 2u * kWrites);
}

TEST_F(UserDefaultManagerTest, ConcurrentWritersFromThreads) {
  constexpr int kThreads = 8;
  constexpr int kWrites = 100;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kWrites; ++i) {
        std::string key = "t" + std::to_string(t) + "-" + std::to_string(i);
        UserDefaultManager::setString(key, key);
        EXPECT_EQ(UserDefaultManager::getString(key, ""), key);
        UserDefaultManager::setPurposeConsent("shared", ConsentStatus::granted);
        UserDefaultManager::getPurposeConsent("shared", ConsentStatus::declined);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(UserDefaultManager::allEntries().size(), kThreads * kWrites + 1u);
}

TEST_F(UserDefaultManagerTest, CorruptSuiteIsMovedAsideNotWiped) {
  UserDefaultManager::setString("k", "v");
  detail::resetCurrentStore();
  std::filesystem::remove(suiteFile().string() + "-wal");
  std::filesystem::remove(suiteFile().string() + "-shm");
  {
    std::ofstream garbage(suiteFile(), std::ios::binary | std::ios::trunc);
    garbage << std::string(8192, 'Z');
  }
  LogCapture log;
  EXPECT_EQ(UserDefaultManager::getString("k", "fresh"), "fresh");
  EXPECT_TRUE(log.contains("Preference suite was unreadable; moved it to "));
  int movedAside = 0;
  for (const auto& entry : std::filesystem::directory_iterator(scoped_.dataDirectory())) {
    if (entry.path().filename().string().find(".corrupt-") != std::string::npos) {
      ++movedAside;
      EXPECT_EQ(std::filesystem::file_size(entry.path()), 8192u);
    }
  }
  EXPECT_EQ(movedAside, 1);
  UserDefaultManager::setString("k", "again");
  EXPECT_EQ(UserDefaultManager::getString("k", ""), "again");
}

TEST(UnopenableSuiteTest, LeavesTheHostRunningWithNothingStored) {
  testing::TempDir dir;
  std::filesystem::path blocker = dir.path() / "file";
  std::ofstream(blocker) << "not a directory";
  testing::LogCapture log;
  installPlatform(std::make_shared<testing::FakePlatform>(blocker / "data"));
  {
    ConsentSDK sdk;
    sdk.setup(ConsentSDKOptions("http://127.0.0.1:9/", "http://127.0.0.1:9/", "t", "a", false,
                                LogLevel::debug, 60, std::nullopt, "en", "DE", {{}, {}}));
    EXPECT_FALSE(UserDefaultManager::isAvailable());
    EXPECT_EQ(sdk.getStatus(), SDKStatus::unavailable);
    EXPECT_TRUE(sdk.getPurposeConsents().empty());
    Purpose purpose;
    purpose.purposeId = 1;
    EXPECT_FALSE(sdk.set(purpose, ConsentStatus::granted));
    EXPECT_EQ(sdk.get(1), ConsentStatus::granted);
    UserDefaultManager::setString("k", "v");
    EXPECT_EQ(UserDefaultManager::getString("k", "default"), "default");
  }
  const auto messages = log.messages();
  EXPECT_EQ(std::count_if(messages.begin(), messages.end(),
                          [](const std::string& m) {
                            return m.find("[ERROR]") != std::string::npos &&
                                   m.find(
                                       "Could not create or access UserDefaults suite: "
                                       "tessarin-cmp-sdk") != std::string::npos;
                          }),
            1)
      << log.text();
  installPlatform(nullptr);
}

}  // namespace
}  // namespace pactivo
