// The configuration document's life on disk and on the wire: fetch, cache,
// freshness, ETag revalidation, fallbacks, failed writes, re-consent, and how
// setup reconciles mode, language and subject with what is stored.
#include <curl/curl.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include <csignal>
#include <fstream>

#include "pactivo/locale_utils.h"
#include "support/sdk_fixture.h"

namespace pactivo {
namespace {

using testing::exampleConfiguration;
using testing::exampleDocument;

constexpr const char* kRefused = "http://127.0.0.1:9/";  // nothing listens there

class CdnCacheTest : public testing::SdkTest {
 protected:
  std::filesystem::path backupFile() const {
    return scoped_.dataDirectory() / "tessarin-sdk-cdn-backup.json";
  }
  // A newer document on the server, past the cache's freshness.
  void publishVersion4(MainConfiguration document = exampleConfiguration()) {
    document.version = 4;
    cdn_.respond(200, encode(document));
    platform().advance(7200);
  }
  bool cacheDiscarded() const {
    return !std::filesystem::exists(cacheFile()) && !UserDefaultManager::getETag();
  }
};

TEST_F(CdnCacheTest, FirstLaunchFetchesSavesAndApplies) {
  std::vector<SDKStatus> seen;
  std::mutex mutex;
  sdk_->isReady([&](SDKStatus s) {
    std::lock_guard lock(mutex);
    seen.push_back(s);
  });
  setup({.language = "de"});
  {
    std::lock_guard lock(mutex);
    EXPECT_EQ(seen,
              (std::vector{SDKStatus::unavailable, SDKStatus::fetching, SDKStatus::available}));
  }
  EXPECT_EQ(cdnPaths(),
            (std::vector<std::string>{"/consent/mobile_banner/t/a/live/config_de.json"}));
  EXPECT_FALSE(cdn_.requests()[0].hasHeader("If-None-Match"));
  EXPECT_FALSE(std::filesystem::exists(backupFile()));
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
  EXPECT_EQ(onDisk, encode(exampleConfiguration()));

  // A fresh cache is available without passing through `fetching`.
  sdk_ = std::make_unique<ConsentSDK>();
  seen.clear();
  sdk_->isReady([&](SDKStatus s) {
    std::lock_guard lock(mutex);
    seen.push_back(s);
  });
  sdk_->setup(options({.language = "de"}));
  ASSERT_TRUE(testing::eventually([&] { return sdk_->getStatus() == SDKStatus::available; }));
  std::lock_guard lock(mutex);
  EXPECT_EQ(seen, (std::vector{SDKStatus::unavailable, SDKStatus::available}));
}

TEST_F(CdnCacheTest, FreshnessRule) {
  setup();
  struct Case {
    const char* name;
    std::optional<std::int64_t> stamp;  // nullopt: a stamp that is not a number
    bool fetches;
  } cases[] = {{"3600 s old", 1800000000 - 3600, false},
               {"3601 s old", 1800000000 - 3601, true},
               {"two days old", 1800000000 - 2 * 86400, true},
               {"no timestamp", std::nullopt, false},
               {"timestamp 0", 0, true},
               // Stamped while the clock ran ahead: stale once it is corrected.
               {"a second in the future", 1800000000 + 1, true},
               {"a year in the future", 1800000000 + 365 * 86400, true}};
  platform().setNow(1800000000);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.stamp) {
      UserDefaultManager::setInt64(keys::kCdnCachedTimestamp, *c.stamp);
    } else {
      UserDefaultManager::setString(keys::kCdnCachedTimestamp, "not a number");
    }
    cdn_.clearRequests();
    ASSERT_TRUE(impl_.getCDNFile());
    EXPECT_EQ(cdn_.requestCount(), c.fetches ? 1u : 0u);
    EXPECT_EQ(sdk_->getStatus(), SDKStatus::available);
  }
}

TEST_F(CdnCacheTest, NotModifiedKeepsCacheAndTimestamp) {
  setup();
  platform().advance(7200);
  cdn_.respond(304, "");
  cdn_.clearRequests();
  log_.clear();
  auto document = impl_.getCDNFile();
  ASSERT_TRUE(document);
  EXPECT_EQ(document->version, 3);
  EXPECT_EQ(cdn_.requests().at(0).header("If-None-Match"), "\"v1\"");
  EXPECT_EQ(UserDefaultManager::getInt64(keys::kCdnCachedTimestamp, 0), 1700000000);
  EXPECT_TRUE(log_.contains("[INFO] [consent_sdk_cdn_utils.cc:"));
  EXPECT_TRUE(log_.contains("getCDNFile() - CDN Configuration is up to date"));
  // The hour has passed, so every later call asks again.
  cdn_.clearRequests();
  impl_.getCDNFile();
  EXPECT_EQ(cdn_.requestCount(), 1u);
}

TEST_F(CdnCacheTest, LanguageFallbackOn404) {
  cdn_.setHandler([&](const httplib::Request& request, httplib::Response& response) {
    response.status = request.path.ends_with("/config.json") ? 200 : 404;
    if (response.status == 200) response.set_content(exampleDocument(), "application/json");
  });
  setup({.language = "de"});
  EXPECT_EQ(cdnPaths(), (std::vector<std::string>{"/consent/mobile_banner/t/a/live/config_de.json",
                                                  "/consent/mobile_banner/t/a/live/config.json"}));
  EXPECT_TRUE(log_.contains("[ERROR] [consent_sdk_network_apis.cc:"));
  EXPECT_TRUE(
      log_.contains("getCDN(options:) - CDN Configuration with de language code not found"));
  EXPECT_FALSE(log_.contains("URLRequest: {"));  // an expected 404 dumps no exchange
  EXPECT_EQ(sdk_->getStatus(), SDKStatus::available);
}

TEST_F(CdnCacheTest, FailuresWithoutCacheLeaveUnavailable) {
  struct Case {
    int status;
    std::string body;
    std::string expectedLog;
    std::size_t requests;
  } cases[] = {
      {404, "", "getCDNFile() - Failed to fetch CDN File: Failed with Status (404)", 2},
      {500, "{}", "getCDNFile() - Failed to fetch CDN File: Failed with Status (500)", 1},
      {200, "<html>",
       "getCDNFile() - Failed to fetch CDN File: Failed while Decoding Response.\nFailed to Decode "
       "MainConfiguration : invalid JSON",
       1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.status);
    cdn_.respond(c.status, c.body, "\"x\"");
    cdn_.clearRequests();
    log_.clear();
    setup();
    EXPECT_EQ(sdk_->getStatus(), SDKStatus::unavailable);
    EXPECT_TRUE(log_.contains(c.expectedLog)) << log_.text();
    EXPECT_EQ(cdn_.requestCount(), c.requests);
    EXPECT_FALSE(std::filesystem::exists(cacheFile()));
    // A 2xx reply's ETag is kept even when its body does not decode.
    EXPECT_EQ(UserDefaultManager::getETag().has_value(), c.status == 200);
  }
}

TEST_F(CdnCacheTest, OfflineUsesStaleCacheOrNothing) {
  setup();
  platform().advance(2 * 86400);
  log_.clear();
  setup({.cdnUrl = kRefused});
  EXPECT_EQ(sdk_->getStatus(), SDKStatus::available);
  EXPECT_TRUE(log_.contains("getCDNFile() - Failed to fetch CDN File: "));
  std::filesystem::remove(cacheFile());
  setup({.cdnUrl = kRefused});
  EXPECT_EQ(sdk_->getStatus(), SDKStatus::unavailable);
}

TEST_F(CdnCacheTest, CorruptOrRewrittenCacheFile) {
  setup();
  auto first = impl_.readCDNFile(true);
  EXPECT_EQ(impl_.readCDNFile(true).get(), first.get());  // unchanged: not parsed again
  MainConfiguration changed = *first;
  changed.version = 42;
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  std::ofstream(cacheFile(), std::ios::trunc) << encode(changed);
  ASSERT_TRUE(impl_.readCDNFile(true));
  EXPECT_EQ(impl_.readCDNFile(true)->version, 42);

  std::ofstream(cacheFile(), std::ios::trunc) << "{\"version\": \"three\"}";
  log_.clear();
  EXPECT_FALSE(impl_.readCDNFile(true));
  EXPECT_FALSE(log_.contains("Error reading or decoding CDN"));  // quiet when probing the cache
  EXPECT_FALSE(impl_.readCDNFile(false));
  EXPECT_TRUE(
      log_.contains("readCDNFile(isCache:) - Error reading or decoding CDN: version: expected "
                    "integer, found string"));
  cdn_.clearRequests();
  ASSERT_TRUE(impl_.getCDNFile());
  EXPECT_EQ(cdn_.requestCount(), 1u);

  // Cut short (a damaged card): logged once, and fetched without the ETag,
  // which would get a 304 for a document that is no longer here.
  std::filesystem::resize_file(cacheFile(), 100);
  ASSERT_TRUE(UserDefaultManager::getETag());
  cdn_.clearRequests();
  log_.clear();
  ASSERT_TRUE(impl_.getCDNFile());
  ASSERT_EQ(cdn_.requestCount(), 1u);
  EXPECT_FALSE(cdn_.requests()[0].hasHeader("If-None-Match"));
  EXPECT_EQ(log_.count("[ERROR] [consent_sdk_cdn_utils.cc"), 1u) << log_.text();
}

TEST_F(CdnCacheTest, ASaveKilledAtAnyInstantLeavesAWholeDocument) {
  setup();
  MainConfiguration large = exampleConfiguration();
  large.description = std::string(2 << 20, 'x');
  for (int round = 0; round < 12; ++round) {
    const int status = testing::runInChild([&] {
      // The timer's signal ends the process wherever the save is then.
      std::signal(SIGALRM, SIG_DFL);
      itimerval at{{0, 0}, {0, 1000 + 900 * round}};
      setitimer(ITIMER_REAL, &at, nullptr);
      for (int i = 0;; ++i) {
        impl_.saveCDNToFile(i % 2 ? large : exampleConfiguration(), "tessarin-sdk-cdn.json");
      }
      return 0;
    });
    ASSERT_TRUE(WIFSIGNALED(status)) << status;
    ASSERT_TRUE(impl_.readCDNFile(false)) << "round " << round << "\n" << log_.text();
  }
}

TEST_F(CdnCacheTest, BackupThatCannotBeMadeKeepsOldDocument) {
  std::int64_t newer = 10;
  for (bool readOnly : {false, true}) {
    SCOPED_TRACE(readOnly ? "read-only directory" : "directory in the backup's place");
    setup();
    const auto kept = impl_.readCDNFile(true)->version;
    const auto stamp = UserDefaultManager::getInt64(keys::kCdnCachedTimestamp, 0);
    MainConfiguration next = exampleConfiguration();
    next.version = newer++;
    cdn_.respond(200, encode(next));
    platform().advance(7200);
    if (readOnly) {
      std::filesystem::permissions(scoped_.dataDirectory(), std::filesystem::perms::owner_write,
                                   std::filesystem::perm_options::remove);
      if (::access(scoped_.dataDirectory().c_str(), W_OK) == 0) continue;  // root ignores it
    } else {
      std::filesystem::create_directories(backupFile() / "x");  // the move fails even for root
    }
    log_.clear();
    auto document = impl_.getCDNFile();
    ASSERT_TRUE(document);
    EXPECT_EQ(document->version, kept);
    // A read-only directory refuses the new file before the old one is moved.
    EXPECT_TRUE(log_.contains(readOnly
                                  ? "saveCDNToFile(config:fileName:) - Error saving CDN: "
                                  : "saveCDNToFile(config:fileName:) - Error creating backup: "))
        << log_.text();
    EXPECT_EQ(UserDefaultManager::getInt64(keys::kCdnCachedTimestamp, 0), stamp);
    EXPECT_EQ(sdk_->getStatus(), SDKStatus::available);
    std::filesystem::remove_all(backupFile());
  }
}

TEST_F(CdnCacheTest, FailedWriteKeepsTheOldDocument) {
  setup();
  // In a child: a file-size limit makes the new document's write fail.
  MainConfiguration newer = exampleConfiguration();
  newer.version = 4;
  newer.description = std::string(9 << 20, 'x');  // over the limit below
  std::string log;
  int status = testing::runInChild(
      [&] {
        std::signal(SIGXFSZ, SIG_IGN);
        struct rlimit limit {
          8 << 20, 8 << 20
        };
        setrlimit(RLIMIT_FSIZE, &limit);
        ConsentSDK sdk;
        detail::ConsentSDKAccess::impl(sdk).saveCDNToFile(newer, "tessarin-sdk-cdn.json");
        return 0;
      },
      &log);
  ASSERT_TRUE(WIFEXITED(status)) << "signal " << (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
  EXPECT_NE(log.find("[ERROR] [consent_sdk_cdn_utils.cc:"), std::string::npos) << log;
  EXPECT_NE(log.find("saveCDNToFile(config:fileName:) - Error saving CDN: File too large"),
            std::string::npos)
      << log;
  EXPECT_EQ(log.find("Backup created"), std::string::npos) << log;
  EXPECT_FALSE(std::filesystem::exists(cacheFile().string() + ".tmp"));
  auto document = impl_.readCDNFile(false);
  ASSERT_TRUE(document);
  EXPECT_EQ(document->version, 3);
  EXPECT_FALSE(std::filesystem::exists(backupFile()));
  EXPECT_EQ(UserDefaultManager::getInt64(keys::kCdnCachedTimestamp, 0), 1700000000);
}

TEST_F(CdnCacheTest, ReConsentRule) {
  struct Case {
    const char* name;
    std::optional<std::int64_t> stored, version;
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
    cdn_.respond(200, encode(config));
    UserDefaultManager::removeAllConsents();
    std::filesystem::remove(cacheFile());
    if (c.stored) UserDefaultManager::setInt(keys::kSdkVersion, *c.stored);
    UserDefaultManager::setString(keys::kConsentGivenType, kConsentExplicit);
    setup();
    EXPECT_EQ(UserDefaultManager::getString(keys::kConsentGivenType, ""),
              c.reset ? kConsentNoAction : kConsentExplicit);
    EXPECT_EQ(UserDefaultManager::getInt(keys::kSdkVersion), c.storedAfter);
    EXPECT_EQ(UserDefaultManager::getString(keys::kXAuthToken, "unset"), "");
    EXPECT_FALSE(UserDefaultManager::getBool(keys::kIsAttEnabled));
  }
}

TEST_F(CdnCacheTest, LanguageAndModeSwitchDiscardCacheAndETag) {
  setup();
  ASSERT_TRUE(std::filesystem::exists(cacheFile()));
  for (auto [testing, path] : {std::pair{false, "/consent/mobile_banner/t/a/live/config_fr.json"},
                               {true, "/consent/mobile_banner/t/a/draft/config_fr.json"}}) {
    cdn_.clearRequests();
    setup({.language = "fr", .testing = testing});
    ASSERT_EQ(cdn_.requestCount(), 1u);
    EXPECT_EQ(cdn_.requests()[0].path, path);
    EXPECT_FALSE(cdn_.requests()[0].hasHeader("If-None-Match"));
  }
  // Without options a facade uses the cache as it is, however old.
  ConsentSDK fresh;
  cdn_.clearRequests();
  platform().advance(86400);
  EXPECT_TRUE(detail::ConsentSDKAccess::impl(fresh).getCDNFile());
  EXPECT_EQ(cdn_.requestCount(), 0u);
}

TEST_F(CdnCacheTest, SetupReconcilesModeAndLanguage) {
  struct Case {
    const char* name;
    std::optional<std::string> lastMode, storedLanguage;
    bool testing;
    std::optional<std::string> language;
    bool discarded;
  } cases[] = {
      {"first launch, live", std::nullopt, std::nullopt, false, std::nullopt, false},
      {"live after live", "live", "en", false, std::nullopt, false},
      {"live after draft", "draft", "en", false, std::nullopt, true},
      {"draft after live", "live", "en", true, std::nullopt, true},
      {"testing always discards", "draft", "en", true, std::nullopt, true},
      {"language changed", "live", "en", false, "DE", true},
      {"same language, other case", "live", "de", false, "DE", false},
      {"empty language keeps current", "live", "en", false, "", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    UserDefaultManager::removeAllConsents();
    LocaleUtils::setCurrentLanguageCode("en");
    if (c.lastMode) UserDefaultManager::setString(keys::kLastModeUsed, *c.lastMode);
    if (c.storedLanguage) UserDefaultManager::setString(keys::kLanguageCode, *c.storedLanguage);
    std::filesystem::create_directories(scoped_.dataDirectory());
    std::ofstream(cacheFile()) << "{}";
    UserDefaultManager::setETag("\"v1\"");
    setup({.language = c.language, .testing = c.testing, .cdnUrl = kRefused});
    EXPECT_EQ(cacheDiscarded(), c.discarded);
    EXPECT_EQ(UserDefaultManager::getString(keys::kLastModeUsed, ""), c.testing ? "draft" : "live");
    EXPECT_FALSE(UserDefaultManager::getBool(keys::kIsBannerPresent));
  }
  // A stored language that is not a string is no language.
  UserDefaultManager::setInt(keys::kLanguageCode, 4);
  std::ofstream(cacheFile()) << "{}";
  SDKLogger::shared().setLogLevel(LogLevel::error);
  setup({.language = std::nullopt, .cdnUrl = kRefused});
  EXPECT_TRUE(std::filesystem::exists(cacheFile()));
  EXPECT_EQ(SDKLogger::shared().logLevel(), LogLevel::debug);  // the options' level
}

TEST_F(CdnCacheTest, LanguageExceptionAppliesOnlyWithoutHostLanguage) {
  platform().setPreferredLanguages({"mni-Beng-IN"});
  LocaleUtils::setCurrentLanguageCode(LocaleUtils::preferredLanguage().substr(0, 3));
  setup({.language = std::nullopt, .cdnUrl = kRefused});
  EXPECT_EQ(LocaleUtils::currentLanguageCode(), "mni-mtei");
  LocaleUtils::setCurrentLanguageCode("mni");
  setup({.language = "FR", .cdnUrl = kRefused});
  EXPECT_EQ(LocaleUtils::currentLanguageCode(), "fr");
}

TEST_F(CdnCacheTest, SubjectIdentity) {
  setup({.cdnUrl = kRefused});
  std::string created = UserDefaultManager::getString(keys::kSubjectId, "");
  EXPECT_EQ(created.size(), 36u);
  setup({.cdnUrl = kRefused});
  EXPECT_EQ(UserDefaultManager::getString(keys::kSubjectId, ""), created);
  setup({.cdnUrl = kRefused, .subject = "host-subject"});
  EXPECT_EQ(UserDefaultManager::getString(keys::kSubjectId, ""), "host-subject");
  // An empty host identity is stored, then replaced by a generated one.
  setup({.cdnUrl = kRefused, .subject = ""});
  std::string regenerated = UserDefaultManager::getString(keys::kSubjectId, "");
  EXPECT_EQ(regenerated.size(), 36u);
  EXPECT_NE(regenerated, created);
}

TEST_F(CdnCacheTest, LeftoverBackupIsReplacedAndNoDirectoryMeansNoCache) {
  setup();
  std::ofstream(backupFile()) << "left by an earlier run";
  publishVersion4();
  ASSERT_EQ(impl_.getCDNFile()->version, 4);
  EXPECT_FALSE(std::filesystem::exists(backupFile()));

  installPlatform(std::make_shared<testing::FakePlatform>(""));
  ConsentSDK::Impl& impl = detail::ConsentSDKAccess::impl(*sdk_);
  impl.saveCDNToFile(exampleConfiguration(), "tessarin-sdk-cdn.json");
  impl.discardCachedConfiguration();
  EXPECT_FALSE(impl.readCDNFile(false));
  EXPECT_FALSE(impl.getCDNFile());
}

TEST(FileUrlTest, ReadsBackAsThePath) {
  const std::string path = "/data/a b%#c/tessarin-sdk-cdn.json";
  const std::string url = ConsentSDK::Impl::fileUrl(path);
  EXPECT_EQ(url, "file:///data/a%20b%25%23c/tessarin-sdk-cdn.json");
  CURLU* parsed = curl_url();
  char* decoded = nullptr;
  ASSERT_EQ(curl_url_set(parsed, CURLUPART_URL, url.c_str(), 0), CURLUE_OK);
  ASSERT_EQ(curl_url_get(parsed, CURLUPART_PATH, &decoded, CURLU_URLDECODE), CURLUE_OK);
  EXPECT_EQ(decoded, path);
  curl_free(decoded);
  curl_url_cleanup(parsed);
}

}  // namespace
}  // namespace pactivo
