// The configuration document's life on disk and on the wire: fetch, cache,
// freshness, ETag revalidation, fallbacks, failed writes, re-consent, and how
// setup reconciles mode, language and subject with what is stored.
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
  static std::int64_t stamp() { return UserDefaultManager::getInt64(keys::kCdnCachedTimestamp, 0); }
  // A newer document on the server, past the cache's freshness.
  void publish(std::int64_t version) {
    MainConfiguration document = exampleConfiguration();
    document.version = version;
    cdn_.respond(200, encode(document));
    platform().advance(7200);
  }
  // getCDNFile() on cleared requests and log: the version it gives, 0 for none.
  std::int64_t refetch() {
    cdn_.clearRequests();
    log_.clear();
    auto document = impl_.getCDNFile();
    return document ? document->version.value_or(1) : 0;
  }
};

TEST_F(CdnCacheTest, FirstLaunchFetchesSavesAndApplies) {
  std::vector<SDKStatus> seen;  // written by the setup task, read once it is idle
  const auto watch = [&] {
    seen.clear();
    sdk_->isReady([&](SDKStatus s) { seen.push_back(s); });
  };
  watch();
  setup({.language = "de"});
  EXPECT_EQ(seen, (std::vector{SDKStatus::unavailable, SDKStatus::fetching, SDKStatus::available}));
  EXPECT_EQ(cdnPaths(),
            (std::vector<std::string>{"/consent/mobile_banner/t/a/live/config_de.json"}));
  EXPECT_EQ(std::tuple(stamp(), UserDefaultManager::getString(keys::kCdnFileLocation, ""),
                       UserDefaultManager::getString(keys::kLanguageCode, ""),
                       UserDefaultManager::getBool(keys::kIsAttEnabled),
                       UserDefaultManager::getBool(keys::kIsSettingsPromptEnabled)),
            std::tuple(1700000000, "file://" + cacheFile().string(), "de", true, true));
  EXPECT_TRUE(log_.contains("saveCDNToFile(config:fileName:) - CDN saved at: file://"));
  // The file holds the library's own encoding of the document.
  std::ifstream in(cacheFile());
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), encode(exampleConfiguration()));

  // A fresh cache is available without passing through `fetching`.
  sdk_ = std::make_unique<ConsentSDK>();
  watch();
  sdk_->setup(options({.language = "de"}));
  detail::ConsentSDKAccess::impl(*sdk_).waitUntilIdle();
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
    EXPECT_EQ(refetch(), 3);
    EXPECT_EQ(cdn_.requestCount(), c.fetches ? 1u : 0u);
    EXPECT_EQ(sdk_->getStatus(), SDKStatus::available);
  }
  // Without options a facade uses the cache as it is, however old.
  UserDefaultManager::setInt64(keys::kCdnCachedTimestamp, 0);
  ConsentSDK fresh;
  cdn_.clearRequests();
  EXPECT_TRUE(detail::ConsentSDKAccess::impl(fresh).getCDNFile());
  EXPECT_EQ(cdn_.requestCount(), 0u);
}

TEST_F(CdnCacheTest, NotModifiedKeepsCacheAndTimestamp) {
  setup();
  platform().advance(7200);
  cdn_.respond(304, "");
  EXPECT_EQ(refetch(), 3);
  EXPECT_EQ(cdn_.requests().at(0).header("If-None-Match"), "\"v1\"");
  EXPECT_EQ(stamp(), 1700000000);
  EXPECT_TRUE(log_.contains("[INFO] [consent_sdk_cdn_utils.cc:"));
  EXPECT_TRUE(log_.contains("getCDNFile() - CDN Configuration is up to date"));
  // The hour has passed, so every later call asks again.
  refetch();
  EXPECT_EQ(cdn_.requestCount(), 1u);
}

// A missing translation falls back to the language-neutral document; any
// other failure, or both missing, leaves the facade without a document.
TEST_F(CdnCacheTest, FetchFailuresAndTheLanguageFallback) {
  const std::string failed = "getCDNFile() - Failed to fetch CDN File: ";
  struct Case {
    int status, neutralStatus;  // for config_de.json, and for config.json
    std::string body, log;
    std::size_t requests;
  } cases[] = {
      {404, 404, "", failed + "Failed with Status (404)", 2},
      {500, 200, "{}", failed + "Failed with Status (500)", 1},
      {200, 200, "<html>",
       failed + "Failed while Decoding Response.\nFailed to Decode "
                "MainConfiguration : invalid JSON",
       1},
      // Last, as it leaves a document behind.
      {404, 200, exampleDocument(),
       "getCDN(options:) - CDN Configuration with de language code not found", 2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.log);
    const bool fellBack = c.status == 404 && c.neutralStatus == 200;
    cdn_.setHandler([&](const httplib::Request& request, httplib::Response& response) {
      response.status = request.path.ends_with("/config.json") ? c.neutralStatus : c.status;
      response.set_header("ETag", "\"x\"");
      response.set_content(c.body, "application/json");
    });
    cdn_.clearRequests();
    log_.clear();
    setup({.language = "de"});
    EXPECT_EQ(sdk_->getStatus(), fellBack ? SDKStatus::available : SDKStatus::unavailable);
    EXPECT_TRUE(log_.contains(c.log)) << log_.text();
    EXPECT_TRUE(log_.contains(std::string("[ERROR] [consent_sdk_") +
                              (fellBack ? "network_apis" : "cdn_utils") + ".cc:"));
    EXPECT_EQ(cdn_.requestCount(), c.requests);
    EXPECT_EQ(std::filesystem::exists(cacheFile()), fellBack);
    // A 2xx reply's ETag is kept even when its body does not decode.
    EXPECT_EQ(UserDefaultManager::getETag().has_value(), c.status == 200 || fellBack);
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
  auto reread = impl_.readCDNFile(true);
  ASSERT_TRUE(reread);
  EXPECT_EQ(reread->version, 42);

  std::ofstream(cacheFile(), std::ios::trunc) << "{\"version\": \"three\"}";
  log_.clear();
  EXPECT_FALSE(impl_.readCDNFile(true));
  EXPECT_FALSE(log_.contains("Error reading or decoding CDN"));  // quiet when probing the cache
  EXPECT_FALSE(impl_.readCDNFile(false));
  EXPECT_TRUE(
      log_.contains("readCDNFile(isCache:) - Error reading or decoding CDN: version: expected "
                    "integer, found string"));
  EXPECT_EQ(refetch(), 3);
  EXPECT_EQ(cdn_.requestCount(), 1u);

  // Cut short (a damaged card): logged once, and fetched without the ETag,
  // which would get a 304 for a document that is no longer here.
  std::filesystem::resize_file(cacheFile(), 100);
  ASSERT_TRUE(UserDefaultManager::getETag());
  EXPECT_EQ(refetch(), 3);
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
  // Killed between the save's two renames, which the timer rarely hits: only
  // the backup is left, and it is put back.
  std::filesystem::rename(cacheFile(), backupFile());
  ASSERT_TRUE(impl_.readCDNFile(false));
  EXPECT_TRUE(std::filesystem::exists(cacheFile()) && !std::filesystem::exists(backupFile()));
  EXPECT_TRUE(log_.contains("readCDNFile(isCache:) - Backup restored to original: file://"));
}

TEST_F(CdnCacheTest, BackupThatCannotBeMadeKeepsOldDocument) {
  std::int64_t newer = 10;
  for (bool readOnly : {false, true}) {
    SCOPED_TRACE(readOnly ? "read-only directory" : "directory in the backup's place");
    setup();
    const std::int64_t kept = *impl_.readCDNFile(true)->version, before = stamp();
    publish(newer++);
    if (readOnly) {
      std::filesystem::permissions(scoped_.dataDirectory(), std::filesystem::perms::owner_write,
                                   std::filesystem::perm_options::remove);
      if (::access(scoped_.dataDirectory().c_str(), W_OK) == 0) continue;  // root ignores it
    } else {
      std::filesystem::create_directories(backupFile() / "x");  // the move fails even for root
    }
    EXPECT_EQ(refetch(), kept);
    // A read-only directory refuses the new file before the old one is moved.
    EXPECT_TRUE(log_.contains(readOnly
                                  ? "saveCDNToFile(config:fileName:) - Error saving CDN: "
                                  : "saveCDNToFile(config:fileName:) - Error creating backup: "))
        << log_.text();
    EXPECT_EQ(stamp(), before);
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
        const rlimit limit{8 << 20, 8 << 20};
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
  EXPECT_FALSE(std::filesystem::exists(backupFile()));
  auto document = impl_.readCDNFile(false);
  ASSERT_TRUE(document);
  EXPECT_EQ(document->version, 3);
  EXPECT_EQ(stamp(), 1700000000);
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
    EXPECT_EQ(!std::filesystem::exists(cacheFile()) && !UserDefaultManager::getETag(), c.discarded);
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
  const auto subject = [&](std::optional<std::string> host) {
    setup({.cdnUrl = kRefused, .subject = host});
    return UserDefaultManager::getString(keys::kSubjectId, "");
  };
  const std::string created = subject(std::nullopt);
  EXPECT_EQ(created.size(), 36u);
  EXPECT_EQ(subject(std::nullopt), created);
  EXPECT_EQ(subject("host-subject"), "host-subject");
  // An empty host identity is stored, then replaced by a generated one.
  const std::string regenerated = subject("");
  EXPECT_EQ(regenerated.size(), 36u);
  EXPECT_NE(regenerated, created);
}

TEST_F(CdnCacheTest, LeftoverBackupIsReplacedAndNoDirectoryMeansNoCache) {
  setup();
  std::ofstream(backupFile()) << "left by an earlier run";
  publish(4);
  ASSERT_EQ(refetch(), 4);
  EXPECT_FALSE(std::filesystem::exists(backupFile()));

  installPlatform(std::make_shared<testing::FakePlatform>(""));
  ConsentSDK::Impl& impl = detail::ConsentSDKAccess::impl(*sdk_);
  impl.saveCDNToFile(exampleConfiguration(), "tessarin-sdk-cdn.json");
  impl.discardCachedConfiguration();
  EXPECT_FALSE(impl.readCDNFile(false));
  EXPECT_FALSE(impl.getCDNFile());
}

// Percent-encoded, so that an unusual directory reads back as the same path.
TEST(FileUrlTest, EscapesWhatAUrlWouldReadOtherwise) {
  EXPECT_EQ(ConsentSDK::Impl::fileUrl("/data/a b%#c/tessarin-sdk-cdn.json"),
            "file:///data/a%20b%25%23c/tessarin-sdk-cdn.json");
}

}  // namespace
}  // namespace pactivo
