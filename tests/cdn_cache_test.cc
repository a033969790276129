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

using std::filesystem::exists;
using testing::exampleConfiguration;
using U = UserDefaultManager;
using S = SDKStatus;

constexpr const char* kFile = "tessarin-sdk-cdn.json";
constexpr const char* kRefused = "http://127.0.0.1:9/";  // nothing listens there

class CdnCacheTest : public testing::SdkTest {
 protected:
  std::filesystem::path backupFile() const {
    return scoped_.dataDirectory() / "tessarin-sdk-cdn-backup.json";
  }
  static std::int64_t stamp() { return U::getInt64(keys::kCdnCachedTimestamp, 0); }
  // A newer document of 9 MiB on the server, past the cache's freshness.
  void publish(std::int64_t version) {
    MainConfiguration document = exampleConfiguration();
    document.version = version;
    document.description = std::string(9 << 20, 'x');
    cdn_.respond(200, encode(document));
    platform().advance(7200);
  }
  // getCDNFile() on cleared requests and log: "v" and the version it gives
  // (0: none), then the If-None-Match of each request ("-": none).
  std::string refetch() {
    cdn_.clearRequests();
    log_.clear();
    auto document = impl_.getCDNFile();
    // Appended piece by piece: GCC 12 at -O2 warns on "text" + std::string&&.
    std::string got = "v";
    got += std::to_string(document ? document->version.value_or(1) : 0);
    for (const auto& r : cdn_.requests()) {
      got += ' ';
      got += r.hasHeader("If-None-Match") ? r.header("If-None-Match") : "-";
    }
    return got;
  }
};

// Requests also name the box and its languages, and setup reports a broken
// client certificate once.
TEST_F(CdnCacheTest, FirstLaunchFetchesSavesAndApplies) {
  std::vector<SDKStatus> seen;  // written by the setup task, read once it is idle
  sdk_->isReady([&](SDKStatus s) { seen.push_back(s); });
  platform().setNetworkSettings({.clientCertificate = "/nonexistent/box.pem"});
  // At most six languages are named.
  platform().setPreferredLanguages({"de-DE", "de", "en", "b", "c", "d", "e"});
  platform().setInfo("CFBundleShortVersionString", "4.2");
  setup({.language = "de"});
  ASSERT_EQ(cdn_.requestCount(), 1u);
  const auto r = cdn_.requests()[0];
  EXPECT_EQ(r.path + " " + r.header("User-Agent") + " " + r.header("Accept-Language"),
            "/consent/mobile_banner/t/a/live/config_de.json Pactivo/" +
                *LinuxPlatform().libraryVersion() +
                " (Linux; Fake TV/4.2) de-DE, de;q=0.9, en;q=0.8, b;q=0.7, c;q=0.6, d;q=0.5");
  EXPECT_EQ(log_.count("client certificate /nonexistent/box.pem cannot be read"), 1u);
  EXPECT_TRUE(log_.contains("saveCDNToFile(config:fileName:) - CDN saved at: file://"));
  EXPECT_EQ(
      std::tuple(stamp(), U::getString(keys::kCdnFileLocation, ""),
                 U::getString(keys::kLanguageCode, ""), U::getBool(keys::kIsAttEnabled),
                 U::getBool(keys::kIsSettingsPromptEnabled), U::getString(keys::kXAuthToken, "")),
      std::tuple(1700000000, "file://" + cacheFile().string(), "de", true, true,
                 "demo-upload-token-5d1e"));
  // The file holds the library's own encoding of the document.
  std::ifstream in(cacheFile());
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), encode(exampleConfiguration()));

  // A fresh cache is available without passing through `fetching`.
  sdk_ = std::make_unique<ConsentSDK>();
  sdk_->isReady([&](SDKStatus s) { seen.push_back(s); });
  sdk_->setup(options({.language = "de"}));
  detail::ConsentSDKAccess::impl(*sdk_).waitUntilIdle();
  EXPECT_EQ(seen,
            (std::vector{S::unavailable, S::fetching, S::available, S::unavailable, S::available}));
}

TEST_F(CdnCacheTest, FreshnessRule) {
  setup();
  const std::string kept = "v3", fetched = "v3 \"v1\"";
  const std::pair<std::optional<std::int64_t>, std::string> cases[] = {
      {1800000000 - 3600, kept},
      {1800000000 - 3601, fetched},
      {std::nullopt, kept},  // a timestamp that is not a number
      {0, fetched},
      // Stamped while the clock ran ahead: stale once it is corrected.
      {1800000000 + 1, fetched}};
  platform().setNow(1800000000);
  for (const auto& [at, got] : cases) {
    SCOPED_TRACE(at.value_or(-1));
    at ? U::setInt64(keys::kCdnCachedTimestamp, *at)
       : U::setString(keys::kCdnCachedTimestamp, "not a number");
    EXPECT_EQ(refetch(), got);
  }
  // Without options a facade uses the cache as it is, however old.
  U::setInt64(keys::kCdnCachedTimestamp, 0);
  ConsentSDK fresh;
  cdn_.clearRequests();
  EXPECT_TRUE(detail::ConsentSDKAccess::impl(fresh).getCDNFile());
  EXPECT_EQ(cdn_.requestCount(), 0u);
}

TEST_F(CdnCacheTest, NotModifiedKeepsCacheAndTimestamp) {
  setup();
  platform().advance(7200);
  cdn_.respond(304, "");
  EXPECT_EQ(refetch(), "v3 \"v1\"");
  EXPECT_EQ(stamp(), 1700000000);
  EXPECT_TRUE(log_.contains("[INFO] [consent_sdk_cdn_utils.cc:"));
  EXPECT_TRUE(log_.contains("getCDNFile() - CDN Configuration is up to date"));
  // The hour has passed, so every later call asks again.
  EXPECT_EQ(refetch(), "v3 \"v1\"");
}

// A missing translation falls back to the language-neutral document; any
// other failure, or both missing, leaves the facade without a document. That
// a 2xx reply's ETag is kept even when its body does not decode is pinned in
// NetworkManagerTest.RepliesByStatus.
TEST_F(CdnCacheTest, FetchFailuresAndTheLanguageFallback) {
  struct Case {
    int status, neutralStatus;  // for config_de.json, and for config.json
    std::string body, log;
    std::size_t requests;
  } cases[] = {
      {404, 404, "", "getCDNFile() - Failed to fetch CDN File: Failed with Status (404)", 2},
      {500, 200, "{}", "CDN File: Failed with Status (500)", 1},
      {200, 200, "<", "Decoding Response.\nFailed to Decode MainConfiguration : invalid JSON", 1},
      // Last, as it leaves a document behind.
      {404, 200, testing::exampleDocument(),
       "getCDN(options:) - CDN Configuration with de language code not found", 2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.log);
    const bool fellBack = c.status == 404 && c.neutralStatus == 200;
    cdn_.setHandler([&](const httplib::Request& request, httplib::Response& response) {
      response.status = request.path.ends_with("/config.json") ? c.neutralStatus : c.status;
      response.set_content(c.body, "application/json");
    });
    cdn_.clearRequests();
    log_.clear();
    setup({.language = "de"});
    EXPECT_TRUE(log_.contains(c.log)) << log_.text();
    EXPECT_TRUE(log_.contains(std::string("[ERROR] [consent_sdk_") +
                              (fellBack ? "network_apis" : "cdn_utils") + ".cc:"));
    EXPECT_EQ(std::tuple(sdk_->getStatus(), cdn_.requestCount(), exists(cacheFile())),
              std::tuple(fellBack ? S::available : S::unavailable, c.requests, fellBack));
  }
}

TEST_F(CdnCacheTest, CorruptRewrittenOrMissingCache) {
  setup();
  const auto first = impl_.readCDNFile(true);
  EXPECT_EQ(impl_.readCDNFile(true), first);  // unchanged: not parsed again
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  std::ofstream(cacheFile(), std::ios::trunc) << R"({"version": 42})";
  EXPECT_EQ(refetch(), "v42");  // rewritten: read again, and still fresh

  std::ofstream(cacheFile(), std::ios::trunc) << "{\"version\": \"three\"}";
  log_.clear();
  EXPECT_FALSE(impl_.readCDNFile(true));
  EXPECT_FALSE(log_.contains("Error reading or decoding CDN"));  // quiet when probing the cache
  EXPECT_FALSE(impl_.readCDNFile(false));
  EXPECT_TRUE(
      log_.contains("readCDNFile(isCache:) - Error reading or decoding CDN: version: "
                    "expected integer, found string"));
  // Fetched without the ETag, which would get a 304 for a document that is
  // no longer here.
  EXPECT_EQ(refetch(), "v3 -");
  // Cut short (a damaged card): logged once.
  std::filesystem::resize_file(cacheFile(), 100);
  EXPECT_EQ(refetch(), "v3 -");
  EXPECT_EQ(log_.count("[ERROR] [consent_sdk_cdn_utils.cc"), 1u) << log_.text();

  // Offline, a stale cache is used as it is; a damaged one is removed,
  // leaving nothing.
  platform().advance(2 * 86400);
  setup({.cdnUrl = kRefused});
  EXPECT_EQ(sdk_->getStatus(), S::available);
  EXPECT_TRUE(log_.contains("getCDNFile() - Failed to fetch CDN File: "));
  std::filesystem::resize_file(cacheFile(), 100);
  setup({.cdnUrl = kRefused});
  EXPECT_EQ(sdk_->getStatus(), S::unavailable);
  EXPECT_FALSE(exists(cacheFile()));

  // Without a directory nothing is saved, read or removed.
  installPlatform(std::make_shared<testing::FakePlatform>(""));
  impl_.saveCDNToFile(exampleConfiguration(), kFile);
  impl_.discardCachedConfiguration();
  EXPECT_FALSE(impl_.readCDNFile(false) || impl_.getCDNFile());
  // Percent-encoded, so that an unusual directory reads back as the same path.
  EXPECT_EQ(ConsentSDK::Impl::fileUrl("/data/a b%#c/tessarin-sdk-cdn.json"),
            "file:///data/a%20b%25%23c/tessarin-sdk-cdn.json");
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
      for (int i = 0;; ++i) impl_.saveCDNToFile(i % 2 ? large : exampleConfiguration(), kFile);
      return 0;
    });
    ASSERT_TRUE(WIFSIGNALED(status)) << status;
    ASSERT_TRUE(impl_.readCDNFile(false)) << "round " << round << "\n" << log_.text();
  }
  // Killed between the save's two renames, which the timer rarely hits: only
  // the backup is left, and it is put back.
  std::filesystem::rename(cacheFile(), backupFile());
  ASSERT_TRUE(impl_.readCDNFile(false));
  EXPECT_TRUE(exists(cacheFile()) && !exists(backupFile()));
  EXPECT_TRUE(log_.contains("readCDNFile(isCache:) - Backup restored to original: file://"));
}

// A save that cannot finish keeps the document and the time it was saved:
// a directory in the backup's place, a read-only directory, a file-size
// limit. A backup left by an earlier run is replaced.
TEST_F(CdnCacheTest, SavesThatFailKeepTheOldDocument) {
  const std::pair<std::string, std::string> cases[] = {
      {"backup", "creating backup: Is a directory"},   // the move fails even for root
      {"read-only", "saving CDN: Permission denied"},  // refused before the old file moves
      {"size limit", "saving CDN: File too large"}};
  std::int64_t newer = 10;
  rlimit unlimited{};
  getrlimit(RLIMIT_FSIZE, &unlimited);
  const rlimit limit{8 << 20, unlimited.rlim_max};  // under the published document
  for (const auto& [way, error] : cases) {
    SCOPED_TRACE(way);
    setup();
    const auto before = std::tuple(stamp(), impl_.readCDNFile(true)->version, S::available);
    publish(newer++);
    if (way == "backup") std::filesystem::create_directories(backupFile() / "x");
    if (way == "read-only") {
      std::filesystem::permissions(scoped_.dataDirectory(), std::filesystem::perms::owner_write,
                                   std::filesystem::perm_options::remove);
      if (::access(scoped_.dataDirectory().c_str(), W_OK) == 0) continue;  // root ignores it
    }
    std::signal(SIGXFSZ, way == "size limit" ? SIG_IGN : SIG_DFL);
    setrlimit(RLIMIT_FSIZE, way == "size limit" ? &limit : &unlimited);
    EXPECT_EQ(refetch(), std::string("v").append(std::to_string(*std::get<1>(before))) + " \"v1\"");
    setrlimit(RLIMIT_FSIZE, &unlimited);
    std::signal(SIGXFSZ, SIG_DFL);
    std::filesystem::permissions(scoped_.dataDirectory(), std::filesystem::perms::owner_all);
    // The last line: nothing is saved, backed up or restored after it.
    const std::string log = log_.text();
    const std::size_t at = log.rfind("[ERROR] [consent_sdk_cdn_utils.cc:");
    EXPECT_EQ(log.substr(log.find("] ", at + 8)),
              "] saveCDNToFile(config:fileName:) - Error " + error + "\n")
        << log;
    EXPECT_EQ(std::tuple(stamp(), impl_.readCDNFile(false)->version, sdk_->getStatus()), before);
    EXPECT_EQ(std::tuple(exists(cacheFile().string() + ".tmp"), exists(backupFile())),
              std::tuple(false, way == "backup"));
    std::filesystem::remove_all(backupFile());
  }
  std::ofstream(backupFile()) << "left by an earlier run";
  publish(4);
  EXPECT_EQ(refetch(), "v4 \"v1\"");
  EXPECT_FALSE(exists(backupFile()));
}

// Rows: the version stored, the document's version and re-consent flag, then
// whether the user's choice is reset and the version stored after.
TEST_F(CdnCacheTest, ReConsentRule) {
  using Version = std::optional<std::int64_t>;
  const std::tuple<Version, Version, std::optional<bool>, bool, std::int64_t> cases[] = {
      {std::nullopt, 5, true, false, 5},  // a first apply never re-consents
      {2, 3, true, true, 3},
      {2, 3, false, false, 3},
      {2, 3, std::nullopt, false, 3},
      {3, 3, true, false, 3},
      {4, 3, true, false, 3},
      {1, std::nullopt, true, false, 1},  // no version counts as 1
      {0, std::nullopt, true, false, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c));
    const auto& [stored, version, reConsent, reset, after] = c;
    MainConfiguration config;
    config.version = version;
    config.reConsentEnabled = reConsent;
    cdn_.respond(200, encode(config));
    std::filesystem::remove(cacheFile());
    if (stored) U::setInt(keys::kSdkVersion, *stored);
    U::setString(keys::kConsentGivenType, kConsentExplicit);
    setup();
    // An empty document applies no token and no ATT.
    EXPECT_EQ(std::tuple(U::getString(keys::kConsentGivenType, ""), U::getInt(keys::kSdkVersion),
                         U::getString(keys::kXAuthToken, "unset"), U::getBool(keys::kIsAttEnabled)),
              std::tuple(reset ? kConsentNoAction : kConsentExplicit, after, "", false));
  }
}

// Rows: the mode and the language stored (none: a number, which is no
// language), whether setup is in testing mode and the language it names, and
// whether the cache and its ETag go.
TEST_F(CdnCacheTest, SetupReconcilesModeLanguageAndSubject) {
  using Text = std::optional<std::string>;
  const std::tuple<Text, Text, bool, Text, bool> cases[] = {
      {std::nullopt, std::nullopt, false, std::nullopt, false},  // first launch
      {"live", "en", false, std::nullopt, false},
      {"draft", "en", false, std::nullopt, true},
      {"live", "en", true, std::nullopt, true},
      {"draft", "en", true, std::nullopt, true},  // testing always discards
      {"live", "en", false, "DE", true},
      {"live", "de", false, "DE", false},  // the same language in another case
      {"live", "en", false, "", false},    // empty keeps the current one
      {"live", std::nullopt, false, std::nullopt, false},
  };
  std::filesystem::create_directories(scoped_.dataDirectory());
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c));
    const auto& [lastMode, storedLanguage, testingMode, language, discarded] = c;
    LocaleUtils::setCurrentLanguageCode("en");
    if (lastMode) U::setString(keys::kLastModeUsed, *lastMode);
    // A stored language that is not a string is no language.
    storedLanguage ? U::setString(keys::kLanguageCode, *storedLanguage)
                   : U::setInt(keys::kLanguageCode, 4);
    std::ofstream(cacheFile()) << "{}";
    U::setETag("\"v1\"");
    SDKLogger::shared().setLogLevel(LogLevel::error);
    setup({.language = language, .testing = testingMode, .cdnUrl = kRefused});
    EXPECT_EQ(
        std::tuple(!exists(cacheFile()) && !U::getETag(), U::getString(keys::kLastModeUsed, ""),
                   U::getBool(keys::kIsBannerPresent), SDKLogger::shared().logLevel()),
        std::tuple(discarded, testingMode ? "draft" : "live", false, LogLevel::debug));
  }

  // The language exception applies only when the host names no language.
  platform().setPreferredLanguages({"mni-Beng-IN"});
  LocaleUtils::setCurrentLanguageCode(LocaleUtils::preferredLanguage().substr(0, 3));
  setup({.language = std::nullopt, .cdnUrl = kRefused});
  EXPECT_EQ(LocaleUtils::currentLanguageCode(), "mni-mtei");
  LocaleUtils::setCurrentLanguageCode("mni");
  setup({.language = "FR", .cdnUrl = kRefused});
  EXPECT_EQ(LocaleUtils::currentLanguageCode(), "fr");

  // The subject: generated once, or the host's; an empty one is stored, then
  // replaced by a generated one.
  const auto subject = [&](std::optional<std::string> host) {
    setup({.cdnUrl = kRefused, .subject = host});
    return U::getString(keys::kSubjectId, "");
  };
  const std::string made = subject(std::nullopt), again = subject(std::nullopt),
                    host = subject("h"), remade = subject("");
  EXPECT_EQ(std::tuple(made.size(), again, host, remade.size(), remade == made),
            std::tuple(36u, made, "h", 36u, false));
}

// Without a directory nothing is saved, read or removed.
}  // namespace
}  // namespace pactivo
