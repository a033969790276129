// The preference suite: typed reads, stored texts, lists, and the SQLite file
// shared with other connections and processes, killed or corrupt.
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
using UDM = UserDefaultManager;

class UserDefaultManagerTest : public ::testing::Test {
 protected:
  std::filesystem::path suiteFile() const {
    return scoped_.dataDirectory() / detail::PreferenceStore::kFileName;
  }
  testing::ScopedPlatform scoped_;
};

TEST_F(UserDefaultManagerTest, DefaultsAndTypedReadsFallBackOnWrongType) {
  EXPECT_EQ(UDM::getComplianceType(), ComplianceType::noticeOnly);
  EXPECT_EQ(UDM::getPurposeConsent("7", ConsentStatus::notDetermined),
            ConsentStatus::notDetermined);
  EXPECT_EQ(UDM::getInt64("anything", -4), -4);
  EXPECT_TRUE(UDM::getPendingPurposes().empty() && UDM::getPendingPermissions().empty());
  EXPECT_FALSE(UDM::getETag() || UDM::getLocationTimestamp() || UDM::getStoredLocation());

  UDM::setString("s", "text");
  UDM::setBool("b", true);
  UDM::setInt64("i", 1LL << 40);
  const auto newYear = std::chrono::system_clock::time_point(std::chrono::seconds(1704067200));
  UDM::setLocationTimestamp(newYear);
  EXPECT_EQ(UDM::getString("b", "dflt"), "dflt");
  EXPECT_EQ(UDM::getString("i", "dflt"), "dflt");
  EXPECT_EQ(UDM::getInt64("s", 9), 9);
  EXPECT_EQ(UDM::getInt64("i", 9), 1LL << 40);
  EXPECT_EQ(UDM::getInt64("b", 9), 1);  // a boolean is a number
  EXPECT_TRUE(UDM::getBool("i"));
  EXPECT_FALSE(UDM::getBool("s"));
  EXPECT_EQ(UDM::getInt64(keys::kCurrentLocationTimestamp, 5), 5);  // a date is not a number
  EXPECT_EQ(UDM::getLocationTimestamp(), newYear);
  UDM::setString(keys::kCurrentLocationTimestamp, "yesterday");
  EXPECT_EQ(UDM::getLocationTimestamp(), std::nullopt);
  UDM::setInt(keys::kEtag, 3);
  EXPECT_EQ(UDM::getETag(), std::nullopt);
  UDM::setETag("W/\"1\"");
  EXPECT_EQ(UDM::getETag(), "W/\"1\"");
  UDM::clearETag();
  EXPECT_EQ(UDM::getETag(), std::nullopt);
  auto entries = UDM::allEntries();
  ASSERT_EQ(entries.size(), 4u);
  EXPECT_TRUE(std::is_sorted(entries.begin(), entries.end(),
                             [](const auto& a, const auto& b) { return a.key < b.key; }));
}

TEST_F(UserDefaultManagerTest, ConsentsAndComplianceTexts) {
  struct Case {
    std::string stored;
    std::optional<ConsentStatus> read;
  } cases[] = {{"granted", ConsentStatus::granted},
               {"declined", ConsentStatus::declined},
               {"not_determined", ConsentStatus::notDetermined},
               {"withdrawn", ConsentStatus::withDrawn},
               {"withDrawn", std::nullopt},
               {"GRANTED", std::nullopt},
               {"", std::nullopt}};
  for (const auto& c : cases) {
    UDM::setString("12", c.stored);
    EXPECT_EQ(UDM::getStoredConsent("12"), c.read) << c.stored;
    EXPECT_EQ(UDM::getPurposeConsent("12", ConsentStatus::declined),
              c.read.value_or(ConsentStatus::declined))
        << c.stored;
  }
  UDM::setPurposeConsent("12", ConsentStatus::withDrawn);
  EXPECT_EQ(UDM::getString("12", ""), "withdrawn");
  UDM::setPermissionConsent(LumariKey::cameraUsageDescription, ConsentStatus::granted);
  EXPECT_EQ(UDM::getString("NSCameraUsageDescription", ""), "granted");
  EXPECT_EQ(UDM::getPermissionConsent(LumariKey::makeCustom("X"), ConsentStatus::declined),
            ConsentStatus::declined);
  for (auto [stored, read] : {std::pair{"opt-in", ComplianceType::optIn},
                              {"opt-out", ComplianceType::optOut},
                              {"notice-only", ComplianceType::noticeOnly},
                              {"Opt-In", ComplianceType::noticeOnly},
                              {"opt_in", ComplianceType::noticeOnly}}) {
    UDM::setString(keys::kCurrentComplianceType, stored);
    EXPECT_EQ(UDM::getComplianceType(), read) << stored;
  }
  UDM::setComplianceType(ComplianceType::optOut);
  EXPECT_EQ(UDM::getString(keys::kCurrentComplianceType, ""), "opt-out");
}

TEST_F(UserDefaultManagerTest, PendingListsKeepEachEntryOnceAndRefuseForeignElements) {
  for (std::int64_t id : {5, 5, -2}) UDM::addPendingPurpose(id);
  auto purposes = UDM::getPendingPurposes();
  std::sort(purposes.begin(), purposes.end());
  EXPECT_EQ(purposes, (std::vector<std::int64_t>{-2, 5}));
  UDM::clearPendingPurposes();
  EXPECT_TRUE(UDM::getPendingPurposes().empty());
  for (auto key : {LumariKey(LumariKey::cameraUsageDescription), LumariKey::makeCustom("a:b;s3:"),
                   LumariKey(LumariKey::cameraUsageDescription)}) {
    UDM::addPendingPermission(key);
  }
  auto permissions = UDM::getPendingPermissions();
  std::sort(permissions.begin(), permissions.end());
  EXPECT_EQ(permissions, (std::vector<std::string>{"NSCameraUsageDescription", "a:b;s3:"}));
  UDM::clearPendingPermissions();
  EXPECT_TRUE(UDM::getPendingPermissions().empty());

  std::string error;
  using E = std::vector<PreferenceArrayElement>;
  ASSERT_TRUE(detail::currentStore()->put(keys::kPendingPermissionsList,
                                          E{std::string("NSCameraUsageDescription"), int64_t{4}},
                                          &error));
  EXPECT_TRUE(UDM::getPendingPermissions().empty());
  ASSERT_TRUE(detail::currentStore()->put(keys::kPendingPurposesList,
                                          E{int64_t{1}, std::string("2")}, &error));
  EXPECT_TRUE(UDM::getPendingPurposes().empty());
  UDM::setString(keys::kPendingPurposesList, "1,2");
  EXPECT_TRUE(UDM::getPendingPurposes().empty());
  UDM::addPendingPurpose(3);  // replaces the foreign list
  EXPECT_EQ(UDM::getPendingPurposes(), (std::vector<std::int64_t>{3}));

  E elements{int64_t{-9}, std::string(""), std::string("x\0y;i1;", 7), int64_t{INT64_MAX}};
  EXPECT_EQ(detail::decodeArray(detail::encodeArray(elements)), elements);
  for (std::string_view bad : {"i12", "s5:abc", "x", "i;", "s:"}) {
    EXPECT_EQ(detail::decodeArray(bad), std::nullopt) << bad;
  }
}

TEST_F(UserDefaultManagerTest, SubjectIdIsReplacedWhenEmptyOrRemoved) {
  LogCapture log;
  std::string first = UDM::getSubjectId();
  EXPECT_TRUE(std::regex_match(
      first, std::regex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}")))
      << first;
  EXPECT_EQ(UDM::getSubjectId(), first);
  UDM::setString(keys::kSubjectId, "");
  std::string replaced = UDM::getSubjectId();
  EXPECT_FALSE(replaced.empty());
  EXPECT_NE(replaced, first);
  UDM::setETag("\"e\"");
  UDM::addPendingPurpose(1);
  UDM::removeAllConsents();
  EXPECT_TRUE(UDM::allEntries().empty());
  EXPECT_TRUE(log.contains("[INFO] [user_default_manager.cc:"));
  EXPECT_TRUE(log.contains("removeAllConsents() - Successfully removed all consents"));
  EXPECT_NE(UDM::getSubjectId(), replaced);
}

TEST_F(UserDefaultManagerTest, SeesCommitsOfAnotherConnection) {
  UDM::setString("k", "mine");
  EXPECT_EQ(UDM::getString("k", ""), "mine");
  for (const char* sql :
       {"UPDATE preferences SET value = 'theirs' WHERE key = 'k'", "DELETE FROM preferences"}) {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(suiteFile().c_str(), &db), SQLITE_OK);
    sqlite3_busy_timeout(db, 5000);
    EXPECT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sql;
    sqlite3_close(db);
    EXPECT_EQ(UDM::getString("k", "gone"), sql[0] == 'U' ? "theirs" : "gone");
  }
}

TEST_F(UserDefaultManagerTest, PersistsAcrossProcessesAndSurvivesKill) {
  UDM::setString("parent", "1");
  int status = testing::runInChild([] {
    bool sawParent = UDM::getString("parent", "") == "1";
    for (int i = 0; i < 300; ++i) UDM::setInt("n" + std::to_string(i), i);
    // Killed without any clean-up, right after the last write returned.
    if (sawParent) kill(getpid(), SIGKILL);
    return 3;
  });
  ASSERT_TRUE(WIFSIGNALED(status)) << "child exit " << WEXITSTATUS(status);
  for (int i = 0; i < 300; ++i) ASSERT_EQ(UDM::getInt64("n" + std::to_string(i), -1), i) << i;
}

// Each process maps the other's WAL index; losing SQLite's lock on it once
// let a writer truncate the index under the other (SIGBUS, failed writes).
TEST_F(UserDefaultManagerTest, TwoProcessesWritingAtOnceNeverFail) {
  LogCapture log;
  constexpr int kWrites = 200;
  UDM::getBool("create the suite before forking");
  detail::resetCurrentStore();
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    for (int i = 0; i < kWrites; ++i) UDM::setInt("child" + std::to_string(i), i);
    _exit(0);
  }
  for (int i = 0; i < kWrites; ++i) UDM::setInt("parent" + std::to_string(i), i);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_FALSE(log.contains("Failed to write preference"));
  EXPECT_EQ(UDM::allEntries().size(), 2u * kWrites);
}

TEST_F(UserDefaultManagerTest, ConcurrentWritersFromThreads) {
  constexpr int kThreads = 8, kWrites = 100;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kWrites; ++i) {
        std::string key = "t" + std::to_string(t) + "-" + std::to_string(i);
        UDM::setString(key, key);
        EXPECT_EQ(UDM::getString(key, ""), key);
        UDM::setPurposeConsent("shared", ConsentStatus::granted);
        UDM::getPurposeConsent("shared", ConsentStatus::declined);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(UDM::allEntries().size(), kThreads * kWrites + 1u);
}

TEST_F(UserDefaultManagerTest, CorruptSuiteIsMovedAsideNotWiped) {
  UDM::setString("k", "v");
  detail::resetCurrentStore();
  std::filesystem::remove(suiteFile().string() + "-wal");
  std::filesystem::remove(suiteFile().string() + "-shm");
  std::ofstream(suiteFile(), std::ios::binary | std::ios::trunc) << std::string(8192, 'Z');
  LogCapture log;
  EXPECT_EQ(UDM::getString("k", "fresh"), "fresh");
  EXPECT_TRUE(log.contains("Preference suite was unreadable; moved it to "));
  int movedAside = 0;
  for (const auto& entry : std::filesystem::directory_iterator(scoped_.dataDirectory())) {
    if (entry.path().filename().string().find(".corrupt-") == std::string::npos) continue;
    ++movedAside;
    EXPECT_EQ(std::filesystem::file_size(entry.path()), 8192u);
  }
  EXPECT_EQ(movedAside, 1);
  UDM::setString("k", "again");
  EXPECT_EQ(UDM::getString("k", ""), "again");
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
    UDM::setString("k", "v");
    EXPECT_EQ(UDM::getString("k", "default"), "default");
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
