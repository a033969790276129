// The facade end to end: the default-value prefill, the recurring check and
// its uploads, reconnection, re-consent, banner selection, readiness and
// teardown, against servers on 127.0.0.1.
#include <thread>

#include "pactivo/sdk_listener.h"
#include "support/sdk_fixture.h"

namespace pactivo {
namespace {

using namespace std::chrono_literals;
using testing::eventually;
using testing::reply;
using testing::TestServer;
using S = ConsentStatus;

class CheckCycleTest : public testing::SdkTest {
 protected:
  static Purpose purpose(std::int64_t id, bool essential = false) {
    Purpose p;
    p.purposeId = id;
    p.disableOptOut = essential;
    return p;
  }
};

TEST_F(CheckCycleTest, PrefillUploadsTheDefaultsOfAUserWhoHasNotChosen) {
  setupThroughPrefill();
  const auto request = app_.requests().at(0);
  EXPECT_EQ(request.method + " " + request.path, "POST /lumari/v1/consent/mobile/singleupload");
  EXPECT_EQ(request.header("X-Auth-Token"), "demo-upload-token-5d1e");
  PostConsentsRequest body = upload(0);
  EXPECT_EQ(body.uuid, UserDefaultManager::getString(keys::kSubjectId, "?"));
  // DE is a GDPR location: opt-in.
  EXPECT_EQ(std::tie(body.appUUID, body.device, body.implicitConsent, body.version, body.adId,
                     body.bannerInfo, body.sdkVersion, body.testingMode),
            std::make_tuple("a", "Test Device", true, 3, "", "opt-in", "9.8.7", false));
  // Declined unless essential; the tracking-mapped purpose 3 follows the
  // (missing) tracking authorization.
  std::string purposes;
  for (const auto& c : body.purposeConsents) {
    purposes += std::to_string(c.purposeID) + (c.isEssential ? "!" : "") + "=" +
                std::string(rawValue(c.consentStatus)) + "@" + std::to_string(c.timestamp) + " ";
  }
  EXPECT_EQ(purposes,
            "1!=granted@1700000000 3=declined@1700000000 2=declined@1700000000 "
            "10=declined@1700000000 4=declined@1700000000 ");
  ASSERT_EQ(body.permissions.size(), 4u);
  for (const auto& permission : body.permissions) {
    EXPECT_EQ(permission.consentStatus, S::notDetermined);
  }
  EXPECT_EQ(UserDefaultManager::getString(keys::kConsentGivenType, ""), kConsentImplicit);
  EXPECT_FALSE(UserDefaultManager::getBool(keys::kUploadConsentRequestPending));
  EXPECT_TRUE(UserDefaultManager::getPendingPurposes().empty());
  EXPECT_TRUE(log_.contains("uploadConsents(url:request:) - Consents saved"));
  EXPECT_EQ(UserDefaultManager::getString(keys::kBannerInterval, ""), "6 month");
}

TEST_F(CheckCycleTest, ExplicitChoicesAreReportedWithinSecondsAndOnce) {
  setupThroughPrefill();
  Purpose analytics = sdk_->getPurposeConsents().at(2);  // essential, tracking-mapped, then by name
  ASSERT_EQ(analytics.purposeId, 2);
  EXPECT_EQ(analytics.consentStatus, S::declined);
  // A burst of choices is one upload, two seconds after the first.
  ASSERT_TRUE(sdk_->set(analytics, S::granted));
  clock_->advance(1s);
  ASSERT_TRUE(sdk_->set(analytics, S::granted));
  EXPECT_EQ(sdk_->get(2), S::granted);
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(app_.requestCount(), 1u);
  clock_->advance(1s);
  ASSERT_TRUE(eventually([&] { return app_.requestCount() == 2; })) << log_.text();
  PostConsentsRequest body = upload(1);
  EXPECT_FALSE(body.implicitConsent);
  ASSERT_EQ(body.purposeConsents.size(), 1u);
  EXPECT_EQ(body.purposeConsents[0].purposeID, 2);
  EXPECT_EQ(body.purposeConsents[0].consentStatus, S::granted);
  ASSERT_TRUE(eventually([&] { return UserDefaultManager::getPendingPurposes().empty(); }));
  // Reported: later checks have nothing to send.
  for (int i = 0; i < 10; ++i) sdk_->checkConsents();
  EXPECT_EQ(app_.requestCount(), 2u);
}

TEST_F(CheckCycleTest, UploadResponses) {
  setupThroughPrefill();
  struct Case {
    const char* name;
    int httpStatus;
    std::string body;
    bool pendingAfter;
    bool listsCleared;
    std::string log;
  } cases[] = {
      {"status 0", 200, reply(0, "saved"), false, true, "[INFO] [consent_sdk_public_methods.cc"},
      {"status 1", 200, reply(1, "rejected"), true, false,
       "uploadConsents(url:request:) - rejected"},
      {"status 1, no message", 200, reply(1, ""), true, false,
       "uploadConsents(url:request:) - Failed to Upload Consents"},
      {"status 2", 200, reply(2, "ignored"), false, false,
       "uploadConsents(url:request:) - ignored"},
      {"server error", 500, "{}", true, false,
       "uploadConsents(url:request:) - Failed with Status (500)"},
      {"refused", 0, "", true, false, "[ERROR] [consent_sdk_public_methods.cc"},
  };
  // Purpose 5 goes out granted; purpose 6 changed while the upload was on its
  // way, so it stays pending whatever the answer.
  PostConsentsRequest request(
      "u", "a", "d", false, 3,
      {PurposeConsent(5, S::granted, 1, false), PurposeConsent(6, S::granted, 1, false)}, {}, false,
      "", "opt-in");
  UserDefaultManager::setPurposeConsent("5", S::granted);
  UserDefaultManager::setPurposeConsent("6", S::declined);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    app_.respond(c.httpStatus, c.body);
    UserDefaultManager::addPendingPurpose(5);
    UserDefaultManager::addPendingPurpose(6);
    log_.clear();
    impl_.uploadConsents(c.httpStatus ? app_.baseUrl() : "http://127.0.0.1:9/", request);
    EXPECT_EQ(UserDefaultManager::getBool(keys::kUploadConsentRequestPending), c.pendingAfter);
    const std::vector<std::int64_t> left =
        c.listsCleared ? std::vector<std::int64_t>{6} : std::vector<std::int64_t>{5, 6};
    EXPECT_EQ(UserDefaultManager::getPendingPurposes(), left);
    EXPECT_TRUE(log_.contains(c.log)) << log_.text();
    EXPECT_EQ(log_.contains("[ERROR]"), c.pendingAfter);
    EXPECT_TRUE(eventually([&] { return clock_->sleepers() == 1; }));  // one live timer
  }
}

TEST_F(CheckCycleTest, FailedUploadIsRetriedAtTheNextTickEvenWithoutChanges) {
  setupThroughPrefill();
  app_.respond(500, "{}");
  UserDefaultManager::setBool(keys::kUploadConsentRequestPending, true);
  clock_->advance(120s);
  ASSERT_TRUE(eventually([&] { return app_.requestCount() == 2; }));
  ASSERT_TRUE(eventually([&] { return clock_->sleepers() == 1; }));
  impl_.waitUntilIdle();
  app_.respond(200, reply(0, "ok"));
  clock_->advance(120s);
  ASSERT_TRUE(eventually([&] { return app_.requestCount() == 3; }));
  impl_.waitUntilIdle();
  EXPECT_FALSE(UserDefaultManager::getBool(keys::kUploadConsentRequestPending));
  // Nothing changed and nothing pending: a tick uploads nothing and does not
  // touch the main thread.
  const int mainThreadCalls = platform().mainThreadCalls();
  clock_->advance(120s);
  ASSERT_TRUE(eventually([&] { return log_.count("Purposes consent checks executed") >= 3; }));
  impl_.waitUntilIdle();
  EXPECT_EQ(app_.requestCount(), 3u);
  EXPECT_EQ(platform().mainThreadCalls(), mainThreadCalls);
}

TEST_F(CheckCycleTest, ReconnectionStartsACheckOnlyAfterBeingOffline) {
  using P = NetworkPathStatus;
  struct Case {
    std::vector<P> paths;
    std::size_t checks;
  } cases[] = {
      {{P::satisfied}, 0},
      {{P::unsatisfied, P::satisfied}, 1},
      {{P::satisfied, P::unsatisfied, P::satisfied}, 1},
      {{P::unsatisfied, P::requiresConnection}, 0},
      {{P::unsatisfied, P::requiresConnection, P::satisfied}, 0},
      {{P::satisfied, P::satisfied}, 0},
      {{P::unsatisfied, P::satisfied, P::unsatisfied, P::satisfied}, 2},
  };
  setupThroughPrefill();
  for (const auto& c : cases) {
    impl_.startNetworkMonitoring();  // a fresh monitor: no previous path
    impl_.waitUntilIdle();
    log_.clear();
    for (P path : c.paths) ASSERT_TRUE(platform().reportPath(path));
    impl_.waitUntilIdle();
    EXPECT_EQ(log_.count("Purposes consent checks executed"), c.checks) << &c - cases;
  }
}

TEST_F(CheckCycleTest, ReConsentWhenTheServerPublishesANewVersion) {
  setupThroughPrefill();
  UserDefaultManager::setString(keys::kConsentGivenType, kConsentExplicit);
  MainConfiguration next = testing::exampleConfiguration();
  next.version = 4;
  next.reConsentEnabled = true;
  cdn_.respond(200, encode(next), "\"v4\"");
  platform().advance(3601);
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
    std::this_thread::sleep_for(3s);
    response.set_content(reply(0, "late"), "application/json");
  };
  cdn_.setHandler(slow);
  app_.setHandler(slow);
  platform().advance(3601);  // the next check fetches
  UserDefaultManager::setBool(keys::kUploadConsentRequestPending, true);
  clock_->advance(120s);                                               // a check
  sdk_->uploadConsents(app_.baseUrl(), PostConsentsRequest{}, [] {});  // an upload
  ASSERT_TRUE(eventually([&] { return cdn_.requestCount() >= 2 && app_.requestCount() >= 2; }));
  auto start = std::chrono::steady_clock::now();
  sdk_.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
}

TEST_F(CheckCycleTest, TheTimerWaitsForAFirstAnswerAndIsArmedOnce) {
  MainConfiguration silent = testing::exampleConfiguration();
  for (auto& [name, category] : silent.bannerConfig->categories) {
    category.recordConsentUponAppStart = false;
  }
  cdn_.respond(200, encode(silent));
  setup();
  EXPECT_EQ(UserDefaultManager::getString(keys::kConsentGivenType, kConsentNoAction),
            kConsentNoAction);
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(clock_->sleepers(), 0);
  UserDefaultManager::setString(keys::kConsentGivenType, kConsentExplicit);
  for (int i = 0; i < 3; ++i) setup();
  EXPECT_TRUE(eventually([&] { return clock_->sleepers() == 1; }));
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(clock_->sleepers(), 1);
  EXPECT_TRUE(platform().reportPath(NetworkPathStatus::satisfied));  // one monitor
}

TEST_F(CheckCycleTest, HostThreadsAndTheCycleAtOnce) {
  setupThroughPrefill();
  platform().setStandardPreference("ARE_PURPOSES_CHANGED", true);
  std::atomic<bool> stop{false};
  std::vector<std::thread> hosts;
  for (int t = 0; t < 3; ++t) {
    hosts.emplace_back([&, t] {
      for (int i = 0; !stop; ++i) {
        sdk_->set(purpose(2 + t), i % 2 ? S::granted : S::declined);
        sdk_->get(2 + t);
        sdk_->get(LumariKey::cameraUsageDescription);
        if (i % 10 == 0) sdk_->getPurposeConsents();
        sdk_->getStatus();
      }
    });
  }
  for (int round = 0; round < 10; ++round) {
    clock_->advance(120s);
    platform().reportPath(NetworkPathStatus::unsatisfied);
    platform().reportPath(NetworkPathStatus::satisfied);
    std::this_thread::sleep_for(20ms);
  }
  stop = true;
  for (auto& host : hosts) host.join();
  impl_.waitUntilIdle();
  EXPECT_GE(app_.requestCount(), 2u);
  EXPECT_EQ(sdk_->getStatus(), SDKStatus::available);
}

class BannerTest : public CheckCycleTest {
 protected:
  std::optional<std::string> banner(std::optional<std::string> location) {
    impl_.waitUntilIdle();
    setup({.location = std::move(location)});
    auto selected = sdk_->getBannerConfig(std::nullopt);
    return selected ? selected->name : std::nullopt;
  }
  static std::string located(const std::string& country, const std::string& location) {
    CurrentLocationResponse::Data data;
    data.countryISOCode["code"] = country;
    data.location["code"] = location;
    return encode(CurrentLocationResponse{0, "ok", data});
  }
};

TEST_F(BannerTest, HostLocationCandidates) {
  for (auto [location, name] : {std::pair{"DE", "GDPR"},
                                {"US-CA", "CCPA"},
                                {"FR-75", "GDPR"},
                                {"JP", "Notice"},
                                {"", "Notice"}}) {
    EXPECT_EQ(banner(location), name) << location;
  }
}

TEST_F(BannerTest, LookedUpLocationIsKeptForAnHour) {
  app_.respond(200, located("DE", "DE-BY"));
  EXPECT_EQ(banner(std::nullopt), "GDPR");
  ASSERT_GE(app_.requestCount(), 1u);
  EXPECT_EQ(app_.requests().front().path, "/core/v1/utils/geo/location");
  EXPECT_EQ(app_.requests().front().header("If-None-Match"), "\"v1\"");  // the stored ETag
  EXPECT_EQ(UserDefaultManager::getStoredCountryCode(), "DE");
  EXPECT_EQ(UserDefaultManager::getStoredLocation(), "DE-BY");

  platform().advance(3599);
  app_.respond(200, located("US-CA", "US-CA"));
  app_.clearRequests();
  EXPECT_EQ(banner(std::nullopt), "GDPR");  // fresh: no lookup
  EXPECT_EQ(app_.requestCount(), 0u);
  platform().advance(2);
  EXPECT_EQ(banner(std::nullopt), "CCPA");

  // Stamped while the clock ran ahead: looked up again once it is corrected.
  app_.respond(200, located("DE", "DE-BY"));
  platform().advance(-86400);
  EXPECT_EQ(banner(std::nullopt), "GDPR");
}

TEST_F(BannerTest, FailedLookupsFallBackToDefault) {
  app_.respond(200, R"({"status": 1, "message": "unknown"})");
  EXPECT_EQ(banner(std::nullopt), "Notice");
  EXPECT_TRUE(log_.contains("getCurrentLocation() - Failed to current location\n"));
  app_.respond(503, "{}");
  log_.clear();
  EXPECT_EQ(banner(std::nullopt), "Notice");
  EXPECT_TRUE(
      log_.contains("getCurrentLocation() - Failed to current location: Failed with Status (503)"));

  // A stale location is a better guess than none.
  app_.respond(200, located("US-CA", "US-CA"));
  EXPECT_EQ(banner(std::nullopt), "CCPA");
  platform().advance(7200);
  app_.respond(503, "{}");
  EXPECT_EQ(banner(std::nullopt), "CCPA");
  EXPECT_EQ(UserDefaultManager::getComplianceType(), ComplianceType::optOut);
}

TEST_F(BannerTest, SelectionRules) {
  setupThroughPrefill();
  MainConfiguration document = testing::exampleConfiguration();
  auto selected = sdk_->getBannerConfig(document);
  ASSERT_TRUE(selected);
  EXPECT_EQ(selected->translations, document.translations);
  document.bannerConfig->categories["gdpr"].bannerReappearanceTime.reset();
  document.bannerConfig->categories["gdpr"].complianceType.reset();
  sdk_->getBannerConfig(document);
  EXPECT_EQ(UserDefaultManager::getString(keys::kBannerInterval, ""), "12 month");
  EXPECT_EQ(UserDefaultManager::getComplianceType(), ComplianceType::noticeOnly);
  document.bannerConfig->locations.erase("default");
  document.bannerConfig->locations["DE"] = "missing-category";
  UserDefaultManager::setString(keys::kBannerInterval, "kept");
  EXPECT_FALSE(sdk_->getBannerConfig(document));
  document.bannerConfig.reset();
  EXPECT_FALSE(sdk_->getBannerConfig(document));
  // A miss writes nothing.
  EXPECT_EQ(UserDefaultManager::getString(keys::kBannerInterval, ""), "kept");
  EXPECT_EQ(UserDefaultManager::getComplianceType(), ComplianceType::noticeOnly);
}

TEST_F(CheckCycleTest, DocumentQueries) {
  {
    ConsentSDK offline;  // no document yet
    EXPECT_TRUE(offline.getPurposeConsents().empty());
    EXPECT_TRUE(offline.getPermissionConsents().empty());
    EXPECT_FALSE(offline.getGCMConfig() || offline.getSettingsPrompt());
    EXPECT_TRUE(offline.getGCMConsents().empty());
    EXPECT_FALSE(offline.getBannerConfig(std::nullopt));
    EXPECT_EQ(offline.get(99), S::granted);
    UserDefaultManager::setComplianceType(ComplianceType::optIn);
    EXPECT_EQ(offline.get(99), S::declined);
  }
  setupThroughPrefill();
  EXPECT_EQ(sdk_->getPermissionConsents().size(), 4u);
  ASSERT_TRUE(sdk_->getSettingsPrompt());
  EXPECT_TRUE(sdk_->getSettingsPrompt()->permissions->at("NSCameraUsageDescription"));
  ASSERT_TRUE(sdk_->getGCMConfig());
  // Location DE overrides: analytics needs purposes 2 and 4, which are
  // declined under opt-in.
  EXPECT_EQ(sdk_->getGCMConsents().at(GoogleConsentType::analyticsStorage), S::declined);
  for (std::int64_t id : {2, 4}) {
    sdk_->set(purpose(id), S::granted);
    EXPECT_EQ(sdk_->get(id), S::granted);
  }
  EXPECT_EQ(sdk_->getGCMConsents().at(GoogleConsentType::analyticsStorage), S::granted);

  impl_.waitUntilIdle();  // the choices' consent-mode updates write too: last writer wins
  sdk_->removeConsents();
  EXPECT_TRUE(UserDefaultManager::allEntries().empty());
}

TEST_F(CheckCycleTest, GoogleConsentModeHearsAcceptedChoicesAndEveryCheck) {
  std::atomic<int> handed{0};
  platform().setConsentModeHandler([&](const std::map<std::string, std::string>&) { ++handed; });
  setupThroughPrefill();
  EXPECT_FALSE(sdk_->set(purpose(1, true), S::declined));
  impl_.waitUntilIdle();
  EXPECT_EQ(handed, 0);
  EXPECT_TRUE(sdk_->set(purpose(1, true), S::granted));
  impl_.waitUntilIdle();
  EXPECT_EQ(handed, 1);
  // A check hands its result over too: consent can change without a choice.
  sdk_->checkConsents();
  EXPECT_EQ(handed, 2);
}

TEST_F(CheckCycleTest, ReadinessCallbacks) {
  SDKListener& status = *impl_.sdkListener;
  std::vector<SDKStatus> first, second;  // written on this thread only
  sdk_->isReady([&](SDKStatus s) { first.push_back(s); });
  EXPECT_EQ(first, (std::vector{SDKStatus::unavailable}));
  status.setIsReady(SDKStatus::fetching);
  status.setIsReady(SDKStatus::fetching);
  status.setIsReady(SDKStatus::available);
  EXPECT_EQ(first,
            (std::vector{SDKStatus::unavailable, SDKStatus::fetching, SDKStatus::available}));
  // A second callback ends the first; its immediate call does not count as a
  // delivery, so re-delivering `available` is suppressed. It may re-enter.
  sdk_->isReady([&](SDKStatus s) {
    second.push_back(sdk_->getStatus());
    if (s == SDKStatus::unavailable) sdk_->removeListeners();
  });
  status.setIsReady(SDKStatus::available);
  status.setIsReady(SDKStatus::unavailable);
  status.setIsReady(SDKStatus::fetching);
  EXPECT_EQ(first.size(), 3u);
  EXPECT_EQ(second, (std::vector{SDKStatus::available, SDKStatus::unavailable}));
  EXPECT_EQ(sdk_->getStatus(), SDKStatus::fetching);

  // The raw observation sees every write, with the status before it, until
  // invalidated.
  auto listener = std::make_shared<SDKListener>();
  std::vector<SDKStatus> changes;
  auto observation = SDKListener::observe(listener, [&](SDKStatus before, SDKStatus after) {
    changes.insert(changes.end(), {before, after});
  });
  listener->setIsReady(SDKStatus::fetching);
  listener->setIsReady(SDKStatus::fetching);
  observation.invalidate();
  listener->setIsReady(SDKStatus::available);
  EXPECT_EQ(changes, (std::vector{SDKStatus::unavailable, SDKStatus::fetching, SDKStatus::fetching,
                                  SDKStatus::fetching}));
}

TEST(RepeatingTimerTest, TicksEveryIntervalWithoutCatchingUp) {
  testing::ManualClock clock;
  std::atomic<int> ticks{0};
  detail::RepeatingTimer timer(clock, 120s, [&] { ++ticks; });
  struct Step {
    std::chrono::seconds advance;
    int ticks;
  } steps[] = {
      {119s, 0}, {1s, 1},  // the first deadline, taken when armed
      {119s, 1}, {1s, 2},  // then exactly one interval later
      {504s, 3},           // frozen for 4.2 intervals: one tick, no catching up
      {119s, 3}, {1s, 4},  // and a whole interval after that wake-up
  };
  for (const auto& step : steps) {
    ASSERT_TRUE(eventually([&] { return clock.sleepers() == 1; }));
    clock.advance(step.advance);
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(ticks.load(), step.ticks) << "after +" << step.advance.count() << " s";
  }
}

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
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s) << round;
  }
  installPlatform(nullptr);
}

}  // namespace
}  // namespace pactivo
