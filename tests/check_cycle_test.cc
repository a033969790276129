#include <gtest/gtest.h>

#include <fstream>
#include <future>
#include <sstream>
#include <thread>

#include "pactivo/consent_sdk.h"
#include "pactivo/json.h"
#include "pactivo/user_default_manager.h"
#include "sdk/consent_sdk_access.h"
#include "sdk/consent_sdk_impl.h"
#include "sdk/default_urls.h"
#include "support/test_server.h"
#include "support/test_support.h"

namespace pactivo {
namespace {

using detail::ConsentSDKAccess;
using testing::eventually;
using testing::LogCapture;
using testing::ManualClock;
using testing::ScopedPlatform;
using testing::TestServer;

using testing::exampleDocument;

std::string reply(int status, const std::string& message) {
  return "{\"status\": " + std::to_string(status) + ", \"message\": \"" + message + "\"}";
}

class CheckCycleTest : public ::testing::Test {
 protected:
  CheckCycleTest() : impl_(ConsentSDKAccess::impl(*sdk_)) {
    cdn_.respond(200, exampleDocument(), "\"v3\"");
    app_.respond(200, reply(0, "Consents saved"));
    impl_.setClock(clock_);
  }

  ConsentSDKOptions options(std::optional<std::string> location = "DE", std::string appUrl = "") {
    return ConsentSDKOptions(appUrl.empty() ? app_.baseUrl() : appUrl, cdn_.baseUrl(), "t", "a",
                             false, LogLevel::debug, 120, std::nullopt, "en", std::move(location),
                             WebViewConfig({}, std::nullopt));
  }

  // Setup, then wait for the prefill upload and for the timer it re-arms.
  void setupThroughPrefill() {
    sdk_->setup(options());
    ASSERT_TRUE(eventually([&] { return app_.requestCount() == 1; })) << log_.text();
    ASSERT_TRUE(eventually([&] { return clock_->sleepers() == 1; }));
    impl_.waitUntilIdle();
  }

  PostConsentsRequest upload(std::size_t index) {
    auto decoded = decode<PostConsentsRequest>(app_.requests().at(index).body);
    EXPECT_TRUE(decoded.ok()) << decoded.error;
    return decoded.value.value_or(PostConsentsRequest{});
  }

  std::size_t count(const std::string& fragment) {
    std::size_t n = 0;
    for (const auto& message : log_.messages()) n += message.find(fragment) != std::string::npos;
    return n;
  }

  ScopedPlatform scoped_;
  LogCapture log_;
  TestServer cdn_;
  TestServer app_;
  std::shared_ptr<ManualClock> clock_ = std::make_shared<ManualClock>();
  std::unique_ptr<ConsentSDK> sdk_ = std::make_unique<ConsentSDK>();
  ConsentSDK::Impl& impl_;
};

TEST_F(CheckCycleTest, PrefillUploadsTheDefaultsOfAUserWhoHasNotChosen) {
  setupThroughPrefill();
  const auto request = app_.requests().at(0);
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.path, "/lumari/v1/consent/mobile/singleupload");
  EXPECT_EQ(request.header("X-Auth-Token"), "demo-upload-token-5d1e");
  EXPECT_NE(request.body.find("\"platform\":\"ios\""), std::string::npos);
  PostConsentsRequest body = upload(0);
  EXPECT_EQ(body.uuid, UserDefaultManager::getString(keys::kSubjectId, "?"));
  EXPECT_EQ(body.appUUID, "a");
  EXPECT_EQ(body.device, "Test Device");
  EXPECT_TRUE(body.implicitConsent);
  EXPECT_EQ(body.version, 3);
  EXPECT_EQ(body.bannerInfo, "opt-in");  // DE is a GDPR location
  EXPECT_EQ(body.adId, "");
  EXPECT_EQ(body.sdkVersion, "9.8.7");
  EXPECT_FALSE(body.testingMode);
  // Opt-in: declined unless essential; the tracking-mapped purpose 3 follows
  // the (missing) tracking authorization.
  std::map<std::int64_t, ConsentStatus> purposes;
  for (const auto& consent : body.purposeConsents) {
    purposes[consent.purposeID] = consent.consentStatus;
    EXPECT_EQ(consent.timestamp, 1700000000);
    EXPECT_EQ(consent.isEssential, consent.purposeID == 1);
  }
  EXPECT_EQ(purposes, (std::map<std::int64_t, ConsentStatus>{{1, ConsentStatus::granted},
                                                             {2, ConsentStatus::declined},
                                                             {3, ConsentStatus::declined},
                                                             {4, ConsentStatus::declined},
                                                             {10, ConsentStatus::declined}}));
  ASSERT_EQ(body.permissions.size(), 4u);
  for (const auto& permission : body.permissions) {
    EXPECT_EQ(permission.consentStatus, ConsentStatus::notDetermined);
  }
  EXPECT_EQ(UserDefaultManager::getString(keys::kConsentGivenType, ""), kConsentImplicit);
  EXPECT_FALSE(UserDefaultManager::getBool(keys::kUploadConsentRequestPending));
  EXPECT_TRUE(UserDefaultManager::getPendingPurposes().empty());
  EXPECT_TRUE(log_.contains("uploadConsents(url:request:) - Consents saved"));
  EXPECT_EQ(UserDefaultManager::getString(keys::kBannerInterval, ""), "6 month");
  EXPECT_EQ(UserDefaultManager::getComplianceType(), ComplianceType::optIn);
}

TEST_F(CheckCycleTest, ExplicitChoicesAreReportedWithinSecondsAndOnce) {
  setupThroughPrefill();
  auto purposes = sdk_->getPurposeConsents();
  auto analytics = std::find_if(purposes.begin(), purposes.end(),
                                [](const Purpose& p) { return p.purposeId == 2; });
  ASSERT_NE(analytics, purposes.end());
  EXPECT_EQ(analytics->consentStatus, ConsentStatus::declined);
  // A burst of choices is one upload, two seconds after the first.
  ASSERT_TRUE(sdk_->set(*analytics, ConsentStatus::granted));
  clock_->advance(std::chrono::seconds(1));
  ASSERT_TRUE(sdk_->set(*analytics, ConsentStatus::granted));
  EXPECT_EQ(sdk_->get(2), ConsentStatus::granted);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(app_.requestCount(), 1u);
  clock_->advance(std::chrono::seconds(1));
  ASSERT_TRUE(eventually([&] { return app_.requestCount() == 2; })) << log_.text();
  PostConsentsRequest body = upload(1);
  EXPECT_FALSE(body.implicitConsent);
  ASSERT_EQ(body.purposeConsents.size(), 1u);
  EXPECT_EQ(body.purposeConsents[0].purposeID, 2);
  EXPECT_EQ(body.purposeConsents[0].consentStatus, ConsentStatus::granted);
  ASSERT_TRUE(eventually([&] { return UserDefaultManager::getPendingPurposes().empty(); }));
  // Reported: later checks have nothing to send.
  for (int i = 0; i < 10; ++i) sdk_->checkConsents();
  EXPECT_EQ(app_.requestCount(), 2u);
}

TEST_F(CheckCycleTest, UploadResponses) {
  setupThroughPrefill();
  struct Case {
    const char* name;
    std::function<void()> arrange;
    bool pendingAfter;
    bool listsCleared;
    std::string log;
  } cases[] = {
      {"status 0", [&] { app_.respond(200, reply(0, "saved")); }, false, true,
       "[INFO] [consent_sdk_public_methods.cc"},
      {"status 1", [&] { app_.respond(200, reply(1, "rejected")); }, true, false,
       "uploadConsents(url:request:) - rejected"},
      {"status 1, no message", [&] { app_.respond(200, reply(1, "")); }, true, false,
       "uploadConsents(url:request:) - Failed to Upload Consents"},
      {"status 2", [&] { app_.respond(200, reply(2, "ignored")); }, false, false,
       "uploadConsents(url:request:) - ignored"},
      {"server error", [&] { app_.respond(500, "{}"); }, true, false,
       "uploadConsents(url:request:) - Failed with Status (500)"},
  };
  PostConsentsRequest request("u", "a", "d", false, 3, {}, {}, false, "", "opt-in");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    c.arrange();
    UserDefaultManager::addPendingPurpose(5);
    log_.clear();
    impl_.uploadConsents(app_.baseUrl(), request);
    EXPECT_EQ(UserDefaultManager::getBool(keys::kUploadConsentRequestPending), c.pendingAfter);
    EXPECT_EQ(UserDefaultManager::getPendingPurposes().empty(), c.listsCleared);
    EXPECT_TRUE(log_.contains(c.log)) << log_.text();
    if (c.pendingAfter) {
      EXPECT_TRUE(log_.contains("[ERROR]"));
    }
    EXPECT_TRUE(eventually([&] { return clock_->sleepers() == 1; }));  // one live timer
  }
  log_.clear();
  impl_.uploadConsents("http://127.0.0.1:9/", request);
  EXPECT_TRUE(UserDefaultManager::getBool(keys::kUploadConsentRequestPending));
  EXPECT_TRUE(log_.contains("uploadConsents(url:request:) - "));
}

TEST_F(CheckCycleTest, FailedUploadIsRetriedAtTheNextTickEvenWithoutChanges) {
  setupThroughPrefill();
  app_.respond(500, "{}");
  UserDefaultManager::setBool(keys::kUploadConsentRequestPending, true);
  clock_->advance(std::chrono::seconds(120));
  ASSERT_TRUE(eventually([&] { return app_.requestCount() == 2; }));
  ASSERT_TRUE(eventually([&] { return clock_->sleepers() == 1; }));
  impl_.waitUntilIdle();
  app_.respond(200, reply(0, "ok"));
  clock_->advance(std::chrono::seconds(120));
  ASSERT_TRUE(eventually([&] { return app_.requestCount() == 3; }));
  impl_.waitUntilIdle();
  EXPECT_FALSE(UserDefaultManager::getBool(keys::kUploadConsentRequestPending));
  // Nothing changed and nothing pending: a tick uploads nothing and does not
  // touch the main thread.
  const int mainThreadCalls = scoped_.platform().mainThreadCalls();
  clock_->advance(std::chrono::seconds(120));
  ASSERT_TRUE(eventually([&] { return count("Purposes consent checks executed") >= 3; }));
  impl_.waitUntilIdle();
  EXPECT_EQ(app_.requestCount(), 3u);
  EXPECT_EQ(scoped_.platform().mainThreadCalls(), mainThreadCalls);
}

TEST_F(CheckCycleTest, ReconnectionStartsACheckOnlyAfterBeingOffline) {
  using S = NetworkPathStatus;
  struct Case {
    std::vector<S> paths;
    std::size_t checks;
  } cases[] = {
      {{S::satisfied}, 0},
      {{S::unsatisfied, S::satisfied}, 1},
      {{S::satisfied, S::unsatisfied, S::satisfied}, 1},
      {{S::unsatisfied, S::requiresConnection}, 0},
      {{S::unsatisfied, S::requiresConnection, S::satisfied}, 0},
      {{S::satisfied, S::satisfied}, 0},
      {{S::unsatisfied, S::satisfied, S::unsatisfied, S::satisfied}, 2},
  };
  setupThroughPrefill();
  for (const auto& c : cases) {
    impl_.startNetworkMonitoring();  // a fresh monitor: no previous path
    impl_.waitUntilIdle();
    log_.clear();
    for (S path : c.paths) ASSERT_TRUE(scoped_.platform().reportPath(path));
    impl_.waitUntilIdle();
    EXPECT_EQ(count("Purposes consent checks executed"), c.checks) << c.paths.size();
  }
}

TEST_F(CheckCycleTest, ReConsentWhenTheServerPublishesANewVersion) {
  setupThroughPrefill();
  UserDefaultManager::setString(keys::kConsentGivenType, kConsentExplicit);
  MainConfiguration next = *decode<MainConfiguration>(exampleDocument()).value;
  next.version = 4;
  next.reConsentEnabled = true;
  cdn_.respond(200, encode(next), "\"v4\"");
  scoped_.platform().advance(3601);
  ASSERT_TRUE(impl_.getCDNFile());
  EXPECT_EQ(UserDefaultManager::getInt(keys::kSdkVersion), 4);
  // The reset starts the prefill again, which records and uploads defaults.
  ASSERT_TRUE(eventually([&] { return app_.requestCount() == 2; }));
  EXPECT_EQ(upload(1).version, 4);
  EXPECT_TRUE(upload(1).implicitConsent);
  EXPECT_EQ(UserDefaultManager::getString(keys::kConsentGivenType, ""), kConsentImplicit);
}

TEST_F(CheckCycleTest, TeardownWithWorkInFlightIsPrompt) {
  setupThroughPrefill();
  auto slow = [](const httplib::Request&, httplib::Response& response) {
    std::this_thread::sleep_for(std::chrono::seconds(3));
    response.set_content(reply(0, "late"), "application/json");
  };
  cdn_.setHandler(slow);
  app_.setHandler(slow);
  scoped_.platform().advance(3601);  // the next check fetches
  UserDefaultManager::setBool(keys::kUploadConsentRequestPending, true);
  clock_->advance(std::chrono::seconds(120));                          // a check
  sdk_->uploadConsents(app_.baseUrl(), PostConsentsRequest{}, [] {});  // an upload
  ASSERT_TRUE(eventually([&] { return cdn_.requestCount() >= 2 && app_.requestCount() >= 2; }));
  auto start = std::chrono::steady_clock::now();
  sdk_.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

TEST_F(CheckCycleTest, RepeatedSetupKeepsOneTimerAndOneMonitor) {
  setupThroughPrefill();
  for (int i = 0; i < 3; ++i) {
    sdk_->setup(options());
    impl_.waitUntilIdle();
  }
  EXPECT_TRUE(eventually([&] { return clock_->sleepers() == 1; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(clock_->sleepers(), 1);
  EXPECT_TRUE(scoped_.platform().reportPath(NetworkPathStatus::satisfied));
  // Only the newest monitor listens: one report reaches one handler.
  EXPECT_EQ(UserDefaultManager::getString(keys::kSubjectId, "").size(), 36u);
}

TEST_F(CheckCycleTest, HostThreadsAndTheCycleAtOnce) {
  setupThroughPrefill();
  scoped_.platform().setStandardPreference("ARE_PURPOSES_CHANGED", true);
  std::atomic<bool> stop{false};
  std::vector<std::thread> hosts;
  for (int t = 0; t < 3; ++t) {
    hosts.emplace_back([&, t] {
      Purpose purpose;
      purpose.purposeId = 2 + t;
      int i = 0;
      while (!stop) {
        sdk_->set(purpose, i++ % 2 ? ConsentStatus::granted : ConsentStatus::declined);
        sdk_->get(2 + t);
        sdk_->get(LumariKey::cameraUsageDescription);
        if (i % 10 == 0) sdk_->getPurposeConsents();
        sdk_->getStatus();
      }
    });
  }
  for (int round = 0; round < 10; ++round) {
    clock_->advance(std::chrono::seconds(120));
    scoped_.platform().reportPath(NetworkPathStatus::unsatisfied);
    scoped_.platform().reportPath(NetworkPathStatus::satisfied);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  stop = true;
  for (auto& host : hosts) host.join();
  impl_.waitUntilIdle();
  EXPECT_GE(app_.requestCount(), 2u);
  EXPECT_EQ(sdk_->getStatus(), SDKStatus::available);
}

class BannerTest : public CheckCycleTest {
 protected:
  ~BannerTest() override { detail::overrideDefaultApplicationServerBaseUrl(""); }
  std::optional<std::string> banner(std::optional<std::string> location) {
    impl_.waitUntilIdle();
    sdk_->setup(options(std::move(location)));
    impl_.waitUntilIdle();
    auto selected = sdk_->getBannerConfig(std::nullopt);
    return selected ? selected->name : std::nullopt;
  }
  std::string locationReply(const std::string& country, const std::string& location) {
    auto map = [](const std::string& v) { return "{\"code\": \"" + v + "\"}"; };
    return R"({"status": 0, "message": "ok", "data": {"City": {}, "Continent": {}, "Country": {},)"
           R"( "CountryISOCode": )" +
           map(country) + R"(, "Language": {}, "Location": )" + map(location) +
           R"(, "RegisteredCountry": {}, "State": {}, "StateISOCode": {}}})";
  }
};

TEST_F(BannerTest, HostLocationCandidates) {
  struct Case {
    std::optional<std::string> location;
    std::optional<std::string> banner;
  } cases[] = {
      {"DE", "GDPR"}, {"US-CA", "CCPA"}, {"FR-75", "GDPR"}, {"JP", "Notice"}, {"", "Notice"}};
  for (const auto& c : cases) EXPECT_EQ(banner(c.location), c.banner) << *c.location;
}

TEST_F(BannerTest, LookedUpLocationIsKeptForAnHour) {
  TestServer geo;
  geo.respond(200, locationReply("DE", "DE-BY"));
  detail::overrideDefaultApplicationServerBaseUrl(geo.baseUrl());
  EXPECT_EQ(banner(std::nullopt), "GDPR");
  ASSERT_GE(geo.requestCount(), 1u);
  EXPECT_EQ(geo.requests().back().path, "/core/v1/utils/geo/location");
  EXPECT_EQ(UserDefaultManager::getStoredCountryCode(), "DE");
  EXPECT_EQ(UserDefaultManager::getStoredLocation(), "DE-BY");
  const std::size_t lookups = geo.requestCount();

  scoped_.platform().advance(3599);
  geo.respond(200, locationReply("US-CA", "US-CA"));
  EXPECT_EQ(banner(std::nullopt), "GDPR");  // fresh: no lookup
  EXPECT_EQ(geo.requestCount(), lookups);
  scoped_.platform().advance(2);
  EXPECT_EQ(banner(std::nullopt), "CCPA");
  EXPECT_GT(geo.requestCount(), lookups);
}

TEST_F(BannerTest, FailedLookupsFallBackToDefault) {
  TestServer geo;
  detail::overrideDefaultApplicationServerBaseUrl(geo.baseUrl());
  geo.respond(200, R"({"status": 1, "message": "unknown"})");
  EXPECT_EQ(banner(std::nullopt), "Notice");
  EXPECT_TRUE(log_.contains("getCurrentLocation() - Failed to current location\n"));
  geo.respond(503, "{}");
  log_.clear();
  EXPECT_EQ(banner(std::nullopt), "Notice");
  EXPECT_TRUE(
      log_.contains("getCurrentLocation() - Failed to current location: Failed with Status (503)"));
}

TEST_F(BannerTest, SelectionRules) {
  setupThroughPrefill();
  MainConfiguration document = *decode<MainConfiguration>(exampleDocument()).value;
  auto selected = sdk_->getBannerConfig(document);
  ASSERT_TRUE(selected);
  EXPECT_EQ(selected->translations, document.translations);
  document.bannerConfig->categories["gdpr"].bannerReappearanceTime.reset();
  document.bannerConfig->categories["gdpr"].complianceType.reset();
  selected = sdk_->getBannerConfig(document);
  EXPECT_EQ(UserDefaultManager::getString(keys::kBannerInterval, ""), "12 month");
  EXPECT_EQ(UserDefaultManager::getComplianceType(), ComplianceType::noticeOnly);
  document.bannerConfig->locations.erase("default");
  document.bannerConfig->locations["DE"] = "missing-category";
  EXPECT_FALSE(sdk_->getBannerConfig(document));
  document.bannerConfig.reset();
  EXPECT_FALSE(sdk_->getBannerConfig(document));
}

TEST_F(CheckCycleTest, QueriesWithoutADocumentAreEmpty) {
  ConsentSDK offline;
  EXPECT_TRUE(offline.getPurposeConsents().empty());
  EXPECT_TRUE(offline.getPermissionConsents().empty());
  EXPECT_FALSE(offline.getGCMConfig());
  EXPECT_FALSE(offline.getSettingsPrompt());
  EXPECT_TRUE(offline.getGCMConsents().empty());
  EXPECT_FALSE(offline.getBannerConfig(std::nullopt));
  EXPECT_EQ(offline.get(99), ConsentStatus::granted);
  UserDefaultManager::setComplianceType(ComplianceType::optIn);
  EXPECT_EQ(offline.get(99), ConsentStatus::declined);
}

TEST_F(CheckCycleTest, DocumentQueries) {
  setupThroughPrefill();
  EXPECT_EQ(sdk_->getPermissionConsents().size(), 4u);
  ASSERT_TRUE(sdk_->getSettingsPrompt());
  EXPECT_TRUE(sdk_->getSettingsPrompt()->permissions->at("NSCameraUsageDescription"));
  ASSERT_TRUE(sdk_->getGCMConfig());
  // Location DE overrides: analytics needs purposes 2 and 4, which are
  // declined under opt-in.
  auto gcm = sdk_->getGCMConsents();
  EXPECT_EQ(gcm.at(GoogleConsentType::analyticsStorage), ConsentStatus::declined);
  Purpose p2;
  p2.purposeId = 2;
  Purpose p4;
  p4.purposeId = 4;
  sdk_->set(p2, ConsentStatus::granted);
  sdk_->set(p4, ConsentStatus::granted);
  EXPECT_EQ(sdk_->get(2), ConsentStatus::granted);
  EXPECT_EQ(sdk_->get(4), ConsentStatus::granted);
  EXPECT_EQ(sdk_->getGCMConsents().at(GoogleConsentType::analyticsStorage), ConsentStatus::granted);

  std::promise<std::vector<Purpose>> purposes;
  sdk_->getPurposeConsents([&](std::vector<Purpose> list) { purposes.set_value(std::move(list)); });
  EXPECT_EQ(purposes.get_future().get().size(), 5u);

  // A permission choice must match the platform.
  AppPermission camera;
  camera.permissionId = LumariKey::cameraUsageDescription;
  EXPECT_FALSE(sdk_->set(camera, ConsentStatus::granted));
  scoped_.platform().setProbe("cameraAuthorizationStatus", 3);
  EXPECT_TRUE(sdk_->set(camera, ConsentStatus::granted));
  EXPECT_EQ(sdk_->get(LumariKey::cameraUsageDescription), ConsentStatus::granted);

  sdk_->removeConsents();
  EXPECT_TRUE(UserDefaultManager::allEntries().empty());
}

TEST_F(CheckCycleTest, SetForwardsToGoogleConsentModeOnlyWhenAccepted) {
  std::atomic<int> handed{0};
  scoped_.platform().setConsentModeHandler(
      [&](const std::map<std::string, std::string>&) { ++handed; });
  setupThroughPrefill();
  Purpose essential;
  essential.purposeId = 1;
  essential.disableOptOut = true;
  EXPECT_FALSE(sdk_->set(essential, ConsentStatus::declined));
  impl_.waitUntilIdle();
  EXPECT_EQ(handed, 0);
  EXPECT_TRUE(sdk_->set(essential, ConsentStatus::granted));
  impl_.waitUntilIdle();
  EXPECT_EQ(handed, 1);
}

}  // namespace
}  // namespace pactivo

namespace pactivo {
namespace {

// The real path monitor reports on its own thread while teardown runs; a
// report racing the teardown must not deadlock it.
TEST(TeardownTest, RacesTheLinuxPathMonitor) {
  testing::TempDir dir;
  testing::LogCapture quiet;
  for (int round = 0; round < 30; ++round) {
    installPlatform(std::make_shared<LinuxPlatform>(
        LinuxPlatform::Settings{"teardown", dir.path() / std::to_string(round), {}, {}}));
    auto start = std::chrono::steady_clock::now();
    {
      ConsentSDK sdk;
      sdk.setup(ConsentSDKOptions("http://127.0.0.1:9/", "http://127.0.0.1:9/", "t", "a", false,
                                  LogLevel::error, 60, std::nullopt, "en", "DE",
                                  WebViewConfig({}, std::nullopt)));
      std::this_thread::sleep_for(std::chrono::microseconds(200 * (round % 10)));
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2)) << round;
  }
  installPlatform(nullptr);
}

}  // namespace
}  // namespace pactivo
