#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <sstream>

#include "pactivo/consent_sdk.h"
#include "pactivo/json.h"
#include "pactivo/locale_utils.h"
#include "pactivo/logger.h"
#include "pactivo/user_default_manager.h"
#include "persistence/preference_store.h"
#include "sdk/consent_sdk_access.h"
#include "sdk/consent_sdk_impl.h"
#include "support/test_server.h"
#include "support/test_support.h"

namespace pactivo {
namespace {

using detail::ConsentSDKAccess;
using testing::LogCapture;
using testing::ScopedPlatform;
using testing::TestServer;

using testing::exampleDocument;

class CdnCacheTest : public ::testing::Test {
 protected:
  CdnCacheTest() : impl_(ConsentSDKAccess::impl(sdk_)) {
    server_.respond(200, exampleDocument(), "\"v1\"");
  }

  ConsentSDKOptions options(std::string cdnUrl = "", bool testing = false,
                            std::optional<std::string> language = "de") {
    return ConsentSDKOptions("http://127.0.0.1:9/", cdnUrl.empty() ? server_.baseUrl() : cdnUrl,
                             "t", "a", testing, LogLevel::debug, 60, std::nullopt,
                             std::move(language), std::nullopt, WebViewConfig({}, std::nullopt));
  }
  // Runs setup and waits for its load to end.
  void setup(const ConsentSDKOptions& o) {
    sdk_.setup(o);
    impl_.waitUntilIdle();
  }
  std::filesystem::path cacheFile() const {
    return scoped_.dataDirectory() / "tessarin-sdk-cdn.json";
  }
  std::vector<std::string> requestedPaths() {
    std::vector<std::string> paths;
    for (const auto& request : server_.requests()) paths.push_back(request.path);
    return paths;
  }

  ScopedPlatform scoped_;
  LogCapture log_;
  TestServer server_;
  ConsentSDK sdk_;
  ConsentSDK::Impl& impl_;
};

TEST_F(CdnCacheTest, FirstLaunchFetchesSavesAndApplies) {
  std::vector<SDKStatus> seen;
  std::mutex mutex;
  sdk_.isReady([&](SDKStatus s) {
    std::lock_guard lock(mutex);
    seen.push_back(s);
  });
  setup(options());
  {
    std::lock_guard lock(mutex);
    EXPECT_EQ(seen,
              (std::vector{SDKStatus::unavailable, SDKStatus::fetching, SDKStatus::available}));
  }
  EXPECT_EQ(requestedPaths(),
            (std::vector<std::string>{"/consent/mobile_banner/t/a/live/config_de.json"}));
  EXPECT_FALSE(server_.requests()[0].hasHeader("If-None-Match"));
  ASSERT_TRUE(std::filesystem::exists(cacheFile()));
  EXPECT_FALSE(std::filesystem::exists(scoped_.dataDirectory() / "tessarin-sdk-cdn-backup.json"));
  EXPECT_EQ(UserDefaultManager::getInt64(keys::kCdnCachedTimestamp, 0), 1700000000);
  EXPECT_EQ(UserDefaultManager::getString(keys::kCdnFileLocation, ""),
            "file://" + cacheFile().string());
  EXPECT_EQ(UserDefaultManager::getString(keys::kLanguageCode, ""), "de");
  EXPECT_EQ(UserDefaultManager::getETag(), "\"v1\"");
  EXPECT_EQ(UserDefaultManager::getString(keys::kXAuthToken, ""), "demo-upload-token-5d1e");
  EXPECT_TRUE(UserDefaultManager::getBool(keys::kIsAttEnabled));
  EXPECT_TRUE(UserDefaultManager::getBool(keys::kIsSettingsPromptEnabled));
  EXPECT_EQ(UserDefaultManager::getInt(keys::kSdkVersion), 3);
  EXPECT_TRUE(log_.contains("saveCDNToFile(config:fileName:) - CDN saved at: file://"));
  // The file holds the library's own encoding of the document.
  std::ifstream in(cacheFile());
  std::string onDisk((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(onDisk, encode(*decode<MainConfiguration>(exampleDocument()).value));
}

TEST_F(CdnCacheTest, FreshnessRule) {
  setup(options());
  struct Case {
    const char* name;
    std::optional<std::int64_t> stampAge;  // nullopt: no stamp stored
    bool zeroStamp;
    bool fetches;
  } cases[] = {
      {"3600 s old", 3600, false, false},        {"3601 s old", 3601, false, true},
      {"two days old", 2 * 86400, false, true},  {"no timestamp", std::nullopt, false, false},
      {"timestamp 0", std::nullopt, true, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    scoped_.platform().setNow(1800000000);
    if (c.stampAge) {
      UserDefaultManager::setInt64(keys::kCdnCachedTimestamp, 1800000000 - *c.stampAge);
    } else if (c.zeroStamp) {
      UserDefaultManager::setInt64(keys::kCdnCachedTimestamp, 0);
    } else {
      UserDefaultManager::setString(keys::kCdnCachedTimestamp, "not a number");
    }
    server_.clearRequests();
    auto document = impl_.getCDNFile();
    ASSERT_TRUE(document);
    EXPECT_EQ(server_.requestCount(), c.fetches ? 1u : 0u);
    EXPECT_EQ(sdk_.getStatus(), SDKStatus::available);
  }
}

TEST_F(CdnCacheTest, NotModifiedKeepsCacheAndTimestamp) {
  setup(options());
  scoped_.platform().advance(7200);
  server_.respond(304, "");
  server_.clearRequests();
  log_.clear();
  auto document = impl_.getCDNFile();
  ASSERT_TRUE(document);
  EXPECT_EQ(document->version, 3);
  EXPECT_EQ(server_.requests().at(0).header("If-None-Match"), "\"v1\"");
  EXPECT_EQ(UserDefaultManager::getInt64(keys::kCdnCachedTimestamp, 0), 1700000000);
  EXPECT_TRUE(log_.contains("[INFO] [consent_sdk_cdn_utils.cc:"));
  EXPECT_TRUE(log_.contains("getCDNFile() - CDN Configuration is up to date"));
  // The hour has passed, so every later call asks again.
  server_.clearRequests();
  impl_.getCDNFile();
  EXPECT_EQ(server_.requestCount(), 1u);
}

TEST_F(CdnCacheTest, LanguageFallbackOn404) {
  server_.setHandler([&](const httplib::Request& request, httplib::Response& response) {
    if (request.path.ends_with("/config.json")) {
      response.set_content(exampleDocument(), "application/json");
    } else {
      response.status = 404;
    }
  });
  setup(options());
  EXPECT_EQ(requestedPaths(),
            (std::vector<std::string>{"/consent/mobile_banner/t/a/live/config_de.json",
                                      "/consent/mobile_banner/t/a/live/config.json"}));
  EXPECT_TRUE(log_.contains("[ERROR] [consent_sdk_network_apis.cc:"));
  EXPECT_TRUE(
      log_.contains("getCDN(options:) - CDN Configuration with de language code not found"));
  EXPECT_EQ(sdk_.getStatus(), SDKStatus::available);
}

TEST_F(CdnCacheTest, FailuresWithoutCacheLeaveUnavailable) {
  struct Case {
    const char* name;
    std::function<void()> arrange;
    std::string expectedLog;
    std::size_t requests;
  } cases[] = {
      {"404 twice", [&] { server_.respond(404, ""); },
       "getCDNFile() - Failed to fetch CDN File: Failed with Status (404)", 2},
      {"500", [&] { server_.respond(500, "{}"); },
       "getCDNFile() - Failed to fetch CDN File: Failed with Status (500)", 1},
      {"garbage", [&] { server_.respond(200, "<html>"); },
       "getCDNFile() - Failed to fetch CDN File: Failed while Decoding Response.\nFailed to Decode "
       "MainConfiguration : invalid JSON",
       1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    c.arrange();
    server_.clearRequests();
    log_.clear();
    setup(options());
    EXPECT_EQ(sdk_.getStatus(), SDKStatus::unavailable);
    EXPECT_TRUE(log_.contains(c.expectedLog)) << log_.text();
    EXPECT_EQ(server_.requestCount(), c.requests);
    EXPECT_FALSE(std::filesystem::exists(cacheFile()));
  }
}

TEST_F(CdnCacheTest, OfflineUsesStaleCacheOrNothing) {
  setup(options());
  scoped_.platform().advance(2 * 86400);
  log_.clear();
  setup(options("http://127.0.0.1:9/"));
  EXPECT_EQ(sdk_.getStatus(), SDKStatus::available);
  EXPECT_TRUE(log_.contains("getCDNFile() - Failed to fetch CDN File: "));

  std::filesystem::remove(cacheFile());
  setup(options("http://127.0.0.1:9/"));
  EXPECT_EQ(sdk_.getStatus(), SDKStatus::unavailable);
}

TEST_F(CdnCacheTest, CorruptCacheFileIsRefetched) {
  setup(options());
  std::ofstream(cacheFile(), std::ios::trunc) << "{\"version\": \"three\"}";
  log_.clear();
  EXPECT_FALSE(impl_.readCDNFile(true));
  EXPECT_FALSE(log_.contains("Error reading or decoding CDN"));
  EXPECT_FALSE(impl_.readCDNFile(false));
  EXPECT_TRUE(
      log_.contains("readCDNFile(isCache:) - Error reading or decoding CDN: version: expected "
                    "integer, found string"));
  server_.clearRequests();
  ASSERT_TRUE(impl_.getCDNFile());
  EXPECT_EQ(server_.requestCount(), 1u);
}

TEST_F(CdnCacheTest, UnchangedFileIsNotParsedAgain) {
  setup(options());
  auto first = impl_.readCDNFile(true);
  auto second = impl_.readCDNFile(true);
  EXPECT_EQ(first.get(), second.get());  // the same decoded document
  // A rewritten file with other content is read again.
  MainConfiguration changed = *first;
  changed.version = 42;
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  std::ofstream(cacheFile(), std::ios::trunc) << encode(changed);
  auto third = impl_.readCDNFile(true);
  ASSERT_TRUE(third);
  EXPECT_EQ(third->version, 42);
}

TEST_F(CdnCacheTest, BackupThatCannotBeMadeKeepsOldDocument) {
  setup(options());
  scoped_.platform().advance(7200);
  MainConfiguration newer = *decode<MainConfiguration>(exampleDocument()).value;
  newer.version = 4;
  server_.respond(200, encode(newer));
  // A directory in the backup's place: the move fails even for root.
  std::filesystem::create_directories(scoped_.dataDirectory() / "tessarin-sdk-cdn-backup.json" /
                                      "x");
  log_.clear();
  auto document = impl_.getCDNFile();
  ASSERT_TRUE(document);
  EXPECT_EQ(document->version, 3);
  EXPECT_TRUE(log_.contains("saveCDNToFile(config:fileName:) - Error creating backup: "));
  EXPECT_EQ(UserDefaultManager::getInt64(keys::kCdnCachedTimestamp, 0), 1700000000);
  EXPECT_EQ(sdk_.getStatus(), SDKStatus::available);
}

TEST_F(CdnCacheTest, ReadOnlyDirectoryKeepsOldDocument) {
  setup(options());
  scoped_.platform().advance(7200);
  MainConfiguration newer = *decode<MainConfiguration>(exampleDocument()).value;
  newer.version = 4;
  server_.respond(200, encode(newer));
  std::filesystem::permissions(scoped_.dataDirectory(), std::filesystem::perms::owner_write,
                               std::filesystem::perm_options::remove);
  if (::access(scoped_.dataDirectory().c_str(), W_OK) == 0) {
    GTEST_SKIP() << "running as a user that ignores directory permissions";
  }
  log_.clear();
  auto document = impl_.getCDNFile();
  ASSERT_TRUE(document);
  EXPECT_EQ(document->version, 3);
  EXPECT_TRUE(log_.contains("saveCDNToFile(config:fileName:) - Error creating backup: "));
}

TEST_F(CdnCacheTest, FailedWriteKeepsTheOldDocument) {
  setup(options());
  // In a child: a file-size limit makes the new document's write fail.
  MainConfiguration newer = *decode<MainConfiguration>(exampleDocument()).value;
  newer.version = 4;
  // Larger than the limit below, which the suite's own files stay under.
  newer.description = std::string(9 << 20, 'x');
  detail::resetCurrentStore();
  int logPipe[2];
  ASSERT_EQ(pipe(logPipe), 0);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(logPipe[0]);
    SDKLogger::shared().setSink([fd = logPipe[1]](std::string_view text) {
      if (write(fd, text.data(), text.size()) < 0) _exit(3);
    });
    std::signal(SIGXFSZ, SIG_IGN);
    struct rlimit limit {
      8 << 20, 8 << 20
    };
    setrlimit(RLIMIT_FSIZE, &limit);
    ConsentSDK sdk;
    ConsentSDKAccess::impl(sdk).saveCDNToFile(newer, "tessarin-sdk-cdn.json");
    _exit(0);
  }
  close(logPipe[1]);
  std::string childLog;
  char buffer[4096];
  ssize_t n;
  while ((n = read(logPipe[0], buffer, sizeof buffer)) > 0) childLog.append(buffer, n);
  close(logPipe[0]);
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFEXITED(status)) << "signal " << (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
  EXPECT_NE(childLog.find("[ERROR] [consent_sdk_cdn_utils.cc:"), std::string::npos) << childLog;
  EXPECT_NE(childLog.find("saveCDNToFile(config:fileName:) - Error saving CDN: File too large"),
            std::string::npos)
      << childLog;
  EXPECT_EQ(childLog.find("Backup created"), std::string::npos) << childLog;
  EXPECT_FALSE(std::filesystem::exists(cacheFile().string() + ".tmp"));
  auto document = impl_.readCDNFile(false);
  ASSERT_TRUE(document);
  EXPECT_EQ(document->version, 3);
  EXPECT_FALSE(std::filesystem::exists(scoped_.dataDirectory() / "tessarin-sdk-cdn-backup.json"));
  EXPECT_EQ(UserDefaultManager::getInt64(keys::kCdnCachedTimestamp, 0), 1700000000);
}

TEST_F(CdnCacheTest, ReConsentRule) {
  struct Case {
    const char* name;
    std::optional<std::int64_t> stored;
    std::optional<std::int64_t> version;
    std::optional<bool> reConsent;
    bool reset;
    std::int64_t storedAfter;
  } cases[] = {
      {"first apply never re-consents", std::nullopt, 5, true, false, 5},
      {"higher version with re-consent", 2, 3, true, true, 3},
      {"higher version without re-consent", 2, 3, false, false, 3},
      {"re-consent flag absent", 2, 3, std::nullopt, false, 3},
      {"same version", 3, 3, true, false, 3},
      {"lower version", 4, 3, true, false, 3},
      {"no version counts as 1", 1, std::nullopt, true, false, 1},
      {"no version after 0", 0, std::nullopt, true, false, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    MainConfiguration config;
    config.version = c.version;
    config.reConsentEnabled = c.reConsent;
    server_.respond(200, encode(config));
    UserDefaultManager::removeAllConsents();
    std::filesystem::remove(cacheFile());
    if (c.stored) UserDefaultManager::setInt(keys::kSdkVersion, *c.stored);
    UserDefaultManager::setString(keys::kConsentGivenType, kConsentExplicit);
    setup(options());
    EXPECT_EQ(UserDefaultManager::getString(keys::kConsentGivenType, ""),
              c.reset ? kConsentNoAction : kConsentExplicit);
    EXPECT_EQ(UserDefaultManager::getInt(keys::kSdkVersion), c.storedAfter);
    EXPECT_EQ(UserDefaultManager::getString(keys::kXAuthToken, "unset"), "");
    EXPECT_FALSE(UserDefaultManager::getBool(keys::kIsAttEnabled));
  }
}

TEST_F(CdnCacheTest, LanguageAndModeSwitchDiscardCacheAndETag) {
  setup(options());
  ASSERT_TRUE(std::filesystem::exists(cacheFile()));
  server_.clearRequests();
  setup(options("", false, "fr"));
  ASSERT_EQ(server_.requestCount(), 1u);
  EXPECT_EQ(server_.requests()[0].path, "/consent/mobile_banner/t/a/live/config_fr.json");
  EXPECT_FALSE(server_.requests()[0].hasHeader("If-None-Match"));

  server_.clearRequests();
  setup(options("", true, "fr"));
  ASSERT_EQ(server_.requestCount(), 1u);
  EXPECT_EQ(server_.requests()[0].path, "/consent/mobile_banner/t/a/draft/config_fr.json");
  EXPECT_FALSE(server_.requests()[0].hasHeader("If-None-Match"));
}

TEST_F(CdnCacheTest, NoOptionsUsesCacheAsItIs) {
  setup(options());
  ConsentSDK fresh;
  server_.clearRequests();
  scoped_.platform().advance(86400);
  EXPECT_TRUE(ConsentSDKAccess::impl(fresh).getCDNFile());
  EXPECT_EQ(server_.requestCount(), 0u);
}

}  // namespace
}  // namespace pactivo
