// The facade end to end: the default-value prefill, the recurring check and
// its uploads, reconnection, banner selection, readiness and teardown,
// against servers on 127.0.0.1.
#include <thread>

#include "pactivo/sdk_listener.h"
#include "support/sdk_fixture.h"

namespace pactivo {
namespace {

using namespace std::chrono_literals;
using testing::eventually;
using testing::reply;
using S = ConsentStatus;
using St = SDKStatus;
using U = UserDefaultManager;
using Ids = std::vector<std::int64_t>;
constexpr std::int64_t kNow = 1700000000;  // the fake platform's clock

class CheckCycleTest : public testing::SdkTest {};

Purpose purpose(std::int64_t id, bool essential = false) {
  Purpose p;
  p.purposeId = id;
  p.disableOptOut = essential;
  return p;
}

TEST_F(CheckCycleTest, PrefillUploadsTheDefaultsOfAUserWhoHasNotChosen) {
  setupThroughPrefill();
  const auto request = app_.requests().at(0);
  EXPECT_EQ(request.method + " " + request.path + " " + request.header("X-Auth-Token"),
            "POST /lumari/v1/consent/mobile/singleupload demo-upload-token-5d1e");
  PostConsentsRequest body = upload(0);
  EXPECT_EQ(body.uuid, U::getString(keys::kSubjectId, "?"));
  // DE is a GDPR location: opt-in.
  EXPECT_EQ(std::tie(body.appUUID, body.device, body.implicitConsent, body.version, body.adId,
                     body.bannerInfo, body.sdkVersion, body.testingMode),
            std::make_tuple("a", "Test Device", true, 3, "", "opt-in", "9.8.7", false));
  // Declined unless essential; the tracking-mapped purpose 3 follows the
  // (missing) tracking authorization.
  EXPECT_EQ(body.purposeConsents, (std::vector<PurposeConsent>{{1, S::granted, kNow, true},
                                                               {3, S::declined, kNow, false},
                                                               {2, S::declined, kNow, false},
                                                               {10, S::declined, kNow, false},
                                                               {4, S::declined, kNow, false}}));
  EXPECT_EQ(body.permissions.size(), 4u);
  for (const auto& p : body.permissions) EXPECT_EQ(p.consentStatus, S::notDetermined);
  EXPECT_EQ(std::tuple(U::getString(keys::kConsentGivenType, ""),
                       U::getBool(keys::kUploadConsentRequestPending), U::getPendingPurposes(),
                       U::getString(keys::kBannerInterval, "")),
            std::tuple(kConsentImplicit, false, Ids{}, "6 month"));
  EXPECT_TRUE(log_.contains("uploadConsents(url:request:) - Consents saved"));

  // Explicit choices are reported within seconds: a burst is one upload, two
  // seconds after the first choice.
  ASSERT_TRUE(sdk_->set(purpose(2), S::granted));
  clock_->advance(1s);
  ASSERT_TRUE(sdk_->set(purpose(2), S::granted));
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(app_.requestCount(), 1u);
  clock_->advance(1s);
  ASSERT_TRUE(eventually([&] { return app_.requestCount() == 2; })) << log_.text();
  EXPECT_FALSE(upload(1).implicitConsent);
  EXPECT_EQ(upload(1).purposeConsents, std::vector{PurposeConsent(2, S::granted, kNow, false)});
}

TEST_F(CheckCycleTest, UploadResponses) {
  setupThroughPrefill();
  struct Case {
    const char* name;
    int httpStatus;
    std::string body;
    bool pendingAfter;
    bool cleared;  // of the purpose it reported
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
  U::setPurposeConsent("5", S::granted);
  U::setPurposeConsent("6", S::declined);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    app_.respond(c.httpStatus, c.body);
    U::addPendingPurpose(5);
    U::addPendingPurpose(6);
    log_.clear();
    impl_.uploadConsents(c.httpStatus ? app_.baseUrl() : "http://127.0.0.1:9/", request);
    EXPECT_EQ(U::getBool(keys::kUploadConsentRequestPending), c.pendingAfter);
    EXPECT_EQ(U::getPendingPurposes(), (c.cleared ? Ids{6} : Ids{5, 6}));
    EXPECT_TRUE(log_.contains(c.log)) << log_.text();
    EXPECT_EQ(log_.contains("[ERROR]"), c.pendingAfter);
    EXPECT_TRUE(eventually([&] { return clock_->sleepers() == 1; }));  // one live timer
  }
}

TEST_F(CheckCycleTest, FailedUploadIsRetriedAtTheNextTickEvenWithoutChanges) {
  setupThroughPrefill();
  U::setBool(keys::kUploadConsentRequestPending, true);  // as a failed upload leaves it
  clock_->advance(120s);
  ASSERT_TRUE(eventually([&] { return app_.requestCount() == 2; }));
  impl_.waitUntilIdle();
  ASSERT_TRUE(eventually([&] { return clock_->sleepers() == 1; }));
  EXPECT_FALSE(U::getBool(keys::kUploadConsentRequestPending));
  // Nothing changed and nothing pending: a tick uploads nothing and does not
  // touch the main thread.
  const int mainThreadCalls = platform().mainThreadCalls();
  log_.clear();
  clock_->advance(120s);
  ASSERT_TRUE(eventually([&] { return log_.count("Purposes consent checks executed") == 1; }));
  impl_.waitUntilIdle();
  EXPECT_EQ(app_.requestCount(), 2u);
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

TEST_F(CheckCycleTest, TeardownWithWorkInFlightIsPrompt) {
  setupThroughPrefill();
  auto slow = [](const httplib::Request&, httplib::Response& response) {
    std::this_thread::sleep_for(3s);
    response.set_content(reply(0, "late"), "application/json");
  };
  cdn_.setHandler(slow);
  app_.setHandler(slow);
  platform().advance(3601);  // the next check fetches
  U::setBool(keys::kUploadConsentRequestPending, true);
  clock_->advance(120s);                                               // a check
  sdk_->uploadConsents(app_.baseUrl(), PostConsentsRequest{}, [] {});  // an upload
  ASSERT_TRUE(eventually([&] { return cdn_.requestCount() >= 2 && app_.requestCount() >= 2; }));
  auto start = std::chrono::steady_clock::now();
  sdk_.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
}

TEST_F(CheckCycleTest, TheTimerWaitsForAFirstAnswerAndIsArmedOnce) {
  MainConfiguration silent = testing::exampleConfiguration();
  for (auto& c : silent.bannerConfig->categories) c.second.recordConsentUponAppStart = false;
  cdn_.respond(200, encode(silent));
  setup();  // no default recorded: no answer yet
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(clock_->sleepers(), 0);
  U::setString(keys::kConsentGivenType, kConsentExplicit);
  for (int i = 0; i < 3; ++i) setup();
  EXPECT_TRUE(eventually([&] { return clock_->sleepers() == 1; }));
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(clock_->sleepers(), 1);
  EXPECT_TRUE(platform().reportPath(NetworkPathStatus::satisfied));  // one monitor
}

// Host threads reading and writing while the timer and the path monitor start
// checks: no assertion here can see a data race, ThreadSanitizer does.
TEST_F(CheckCycleTest, HostThreadsAndTheCycleAtOnce) {
  setupThroughPrefill();
  platform().setStandardPreference("ARE_PURPOSES_CHANGED", true);
  std::atomic<bool> stop{false};
  std::vector<std::thread> hosts;
  for (int t = 0; t < 3; ++t) {
    hosts.emplace_back([&, t] {
      for (int i = 0; !stop; ++i) {
        sdk_->set(purpose(2 + t), i % 2 ? S::granted : S::declined);
        sdk_->get(LumariKey::cameraUsageDescription);
        if (i % 10 == 0) sdk_->getPurposeConsents();
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
  EXPECT_EQ(sdk_->getStatus(), St::available);
}

class BannerTest : public CheckCycleTest {
 protected:
  std::string banner(std::optional<std::string> location) {
    impl_.waitUntilIdle();
    setup({.location = std::move(location)});
    auto selected = sdk_->getBannerConfig(std::nullopt);
    return selected ? selected->name.value_or("?") : "none";
  }
  static std::string located(const std::string& country, const std::string& location) {
    CurrentLocationResponse::Data data;
    data.countryISOCode["code"] = country;
    data.location["code"] = location;
    return encode(CurrentLocationResponse{0, "ok", data});
  }
};

TEST_F(BannerTest, HostLocationCandidates) {
  std::string names;
  for (const char* location : {"DE", "US-CA", "FR-75", "JP", ""}) names += banner(location) + " ";
  EXPECT_EQ(names, "GDPR CCPA GDPR Notice Notice ");
}

TEST_F(BannerTest, LookedUpLocationIsKeptForAnHour) {
  app_.respond(200, located("DE", "DE-BY"));
  EXPECT_EQ(banner(std::nullopt), "GDPR");
  ASSERT_GE(app_.requestCount(), 1u);
  EXPECT_EQ(app_.requests().front().path, "/core/v1/utils/geo/location");
  EXPECT_EQ(app_.requests().front().header("If-None-Match"), "\"v1\"");  // the stored ETag
  EXPECT_EQ(std::tuple(U::getStoredCountryCode(), U::getStoredLocation()),
            std::tuple("DE", "DE-BY"));

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
  // The location is a candidate before the country.
  app_.respond(200, located("DE", "US-CA"));
  platform().advance(3601);
  EXPECT_EQ(banner(std::nullopt), "CCPA");
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
  EXPECT_EQ(U::getComplianceType(), ComplianceType::optOut);
}

TEST_F(BannerTest, SelectionRules) {
  setupThroughPrefill();
  MainConfiguration document = testing::exampleConfiguration();
  EXPECT_EQ(sdk_->getBannerConfig(document).value().translations, document.translations);
  // A category without these takes the defaults; a miss writes nothing.
  document.bannerConfig->categories["gdpr"].bannerReappearanceTime.reset();
  document.bannerConfig->categories["gdpr"].complianceType.reset();
  sdk_->getBannerConfig(document);
  const auto written = [] {
    return std::tuple(U::getString(keys::kBannerInterval, ""), U::getComplianceType());
  };
  EXPECT_EQ(written(), std::tuple("12 month", ComplianceType::noticeOnly));
  document.bannerConfig->locations.erase("default");
  document.bannerConfig->locations["DE"] = "missing-category";
  EXPECT_FALSE(sdk_->getBannerConfig(document));
  document.bannerConfig.reset();
  EXPECT_FALSE(sdk_->getBannerConfig(document));
  EXPECT_EQ(written(), std::tuple("12 month", ComplianceType::noticeOnly));
}

TEST_F(CheckCycleTest, DocumentQueriesAndGoogleConsentMode) {
  {
    ConsentSDK offline;  // no document yet: nothing to answer
    EXPECT_TRUE(offline.getPurposeConsents().empty() && offline.getPermissionConsents().empty() &&
                offline.getGCMConsents().empty());
    EXPECT_FALSE(offline.getGCMConfig() || offline.getSettingsPrompt() ||
                 offline.getBannerConfig(std::nullopt));
  }
  std::atomic<int> handed{0};
  platform().setConsentModeHandler([&](const auto&) { ++handed; });
  setupThroughPrefill();
  EXPECT_EQ(sdk_->getPermissionConsents().size(), 4u);
  EXPECT_TRUE(sdk_->getSettingsPrompt().value().permissions->at("NSCameraUsageDescription"));
  ASSERT_TRUE(sdk_->getGCMConfig());
  // Accepted choices reach Google Consent Mode, and so does a check: consent
  // can change without a choice. Location DE overrides: analytics needs
  // purposes 2 and 4, declined under opt-in until chosen.
  EXPECT_FALSE(sdk_->set(purpose(1, true), S::declined));
  for (std::int64_t id : {2, 4}) EXPECT_TRUE(sdk_->set(purpose(id), S::granted));
  EXPECT_EQ(sdk_->getGCMConsents().at(GoogleConsentType::analyticsStorage), S::granted);
  impl_.waitUntilIdle();  // the choices' consent-mode updates write too: last writer wins
  EXPECT_EQ(handed, 2);
  sdk_->checkConsents();
  EXPECT_EQ(handed, 3);
  sdk_->removeConsents();
  EXPECT_TRUE(U::allEntries().empty());
}

TEST_F(CheckCycleTest, ReadinessCallbacks) {
  SDKListener& status = *impl_.sdkListener;
  std::vector<St> first, second;  // written on this thread only
  sdk_->isReady([&](St s) { first.push_back(s); });
  for (St s : {St::fetching, St::fetching, St::available}) status.setIsReady(s);
  EXPECT_EQ(first, (std::vector{St::unavailable, St::fetching, St::available}));
  // A second callback ends the first; its immediate call does not count as a
  // delivery, so re-delivering `available` is suppressed. It may re-enter.
  sdk_->isReady([&](St s) {
    second.push_back(sdk_->getStatus());
    if (s == St::unavailable) sdk_->removeListeners();
  });
  for (St s : {St::available, St::unavailable, St::fetching}) status.setIsReady(s);
  EXPECT_EQ(std::tuple(first.size(), second, sdk_->getStatus()),
            std::tuple(3u, std::vector{St::available, St::unavailable}, St::fetching));
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
