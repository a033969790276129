// The answer the user gave is the answer stored, uploaded and reported:
// against slow location services, full disks, processes that end early and
// sibling processes opening the same suite.
#include <sys/wait.h>
#include <unistd.h>

#include <future>
#include <thread>

#include "persistence/preference_store.h"
#include "support/sdk_fixture.h"

namespace pactivo {
namespace {

using namespace std::chrono_literals;
using testing::eventually;
using testing::reply;
using S = ConsentStatus;
using U = UserDefaultManager;

class ConsentAnswerTest : public testing::SdkTest {};

Purpose purpose(std::int64_t id) {
  Purpose p;
  p.purposeId = id;
  return p;
}

TEST_F(ConsentAnswerTest, PrefillNeverRecordsOverAChoiceMadeWhileItWaits) {
  // The location service answers only after the host has recorded a choice.
  std::promise<void> chosen;
  app_.setHandler([released = chosen.get_future().share()](const httplib::Request& request,
                                                           httplib::Response& response) {
    CurrentLocationResponse::Data germany;
    germany.countryISOCode["code"] = germany.location["code"] = "DE";
    if (request.method == "GET") released.wait();
    response.set_content(request.method == "GET" ? encode(CurrentLocationResponse{0, "ok", germany})
                                                 : reply(0, "saved"),
                         "application/json");
  });
  sdk_->setup(options({.location = std::nullopt}));
  ASSERT_TRUE(eventually([&] { return app_.requestCount() == 1; })) << log_.text();
  ASSERT_TRUE(sdk_->set(purpose(2), S::granted));
  chosen.set_value();
  impl_.waitUntilIdle();
  clock_->advance(2s);  // the choice's report is due
  ASSERT_TRUE(eventually([&] { return app_.requestCount() == 2; })) << log_.text();
  impl_.waitUntilIdle();
  // An opt-in banner applies, yet the prefill neither recorded nor uploaded.
  ASSERT_EQ(U::getStoredCountryCode(), "DE");
  EXPECT_EQ(
      std::tuple(sdk_->get(2), U::getString(keys::kConsentGivenType, ""), app_.requestCount()),
      std::tuple(S::granted, kConsentExplicit, 2u));
  EXPECT_FALSE(upload(1).implicitConsent);
  EXPECT_EQ(upload(1).purposeConsents,
            std::vector{PurposeConsent(2, S::granted, 1700000000, false)});
}

TEST_F(ConsentAnswerTest, AChoiceTheStoreCannotWriteIsNotRecorded) {
  int firebaseCalls = 0;
  platform().setConsentModeHandler([&](const auto&) { ++firebaseCalls; });
  setupThroughPrefill();
  const auto before = std::tuple(sdk_->get(2), std::vector<std::int64_t>{}, 1u, firebaseCalls);
  // The file may not grow: fill what room is left, as a full disk would.
  auto store = detail::currentStore();
  store->pragma("max_page_count=" + std::to_string(*store->pragma("page_count")));
  std::string error;
  for (std::size_t size = 4096, i = 0; size > 0; size /= 2) {
    while (store->put("filler" + std::to_string(i++), std::string(size, 'x'), &error)) continue;
  }
  ASSERT_NE(error.find("full"), std::string::npos) << error;

  EXPECT_FALSE(sdk_->set(purpose(2), S::granted));
  clock_->advance(2s);
  impl_.waitUntilIdle();
  // Nothing stored, pending, uploaded or handed to Google Consent Mode.
  EXPECT_EQ(std::tuple(sdk_->get(2), U::getPendingPurposes(), app_.requestCount(), firebaseCalls),
            before);
  EXPECT_TRUE(log_.contains("Failed to write preference 2: database or disk is full"));
}

TEST_F(ConsentAnswerTest, AChoiceLeftUnreportedIsReportedByTheNextStart) {
  setupThroughPrefill();
  ASSERT_TRUE(sdk_->set(purpose(2), S::granted));
  sdk_ = std::make_unique<ConsentSDK>();  // ended before the report was due
  EXPECT_EQ(app_.requestCount(), 1u);
  sdk_->setup(options());
  ASSERT_TRUE(eventually([&] { return app_.requestCount() == 2; })) << log_.text();
  EXPECT_FALSE(upload(1).implicitConsent);
  EXPECT_EQ(upload(1).purposeConsents,
            std::vector{PurposeConsent(2, S::granted, 1700000000, false)});
}

// After removeConsents() the check's upload and the new user's defaults both
// look for an identity at once: they must agree on one new identity.
TEST_F(ConsentAnswerTest, AForgottenUserIsUploadedWithANewIdentity) {
  setupThroughPrefill();
  sdk_->removeConsents();
  UserDefaultManager::setBool(keys::kUploadConsentRequestPending, true);
  sdk_->checkConsents();
  impl_.waitUntilIdle();
  ASSERT_GE(app_.requestCount(), 2u);
  EXPECT_NE(upload(1).uuid, upload(0).uuid);
  for (std::size_t i = 2; i < app_.requestCount(); ++i) EXPECT_EQ(upload(i).uuid, upload(1).uuid);
}

TEST_F(ConsentAnswerTest, TeardownInTestingModeLeavesAnEmptySuite) {
  for (bool testing : {true, false}) {
    // An upload still in flight, cancelled by the teardown, marks itself
    // pending: the wipe must come after it.
    std::promise<void> release;
    app_.setHandler([released = release.get_future().share()](const auto&, auto& response) {
      released.wait_for(5s);
      response.set_content(reply(0, "late"), "application/json");
    });
    sdk_ = std::make_unique<ConsentSDK>();
    sdk_->setup(options({.testing = testing}));
    ASSERT_TRUE(eventually([&] { return app_.requestCount() >= 1; }));
    sdk_.reset();
    release.set_value();
    EXPECT_EQ(U::allEntries().empty(), testing);
    app_.clearRequests();
  }
}

TEST_F(ConsentAnswerTest, OptionsWrittenAfterConstructionObeyTheRules) {
  ConsentSDKOptions written = options();
  written.consentsCheckInterval = 0;
  written.testingMode = true;
  written.languageCode = "EN";
  sdk_->setup(written);
  impl_.waitUntilIdle();
  EXPECT_EQ(cdnPaths().at(0), "/consent/mobile_banner/t/a/draft/config_en.json");
  EXPECT_EQ(std::tuple(sdk_->options()->consentsCheckInterval, sdk_->options()->mode),
            std::tuple(60, Mode::draft));
}

TEST_F(ConsentAnswerTest, ChecksNeverOverlap) {
  std::atomic<int> inFlight{0}, most{0};
  setupThroughPrefill();
  app_.setHandler([&](const httplib::Request&, httplib::Response& response) {
    const int now = ++inFlight;
    most = std::max(most.load(), now);
    std::this_thread::sleep_for(100ms);
    --inFlight;
    response.set_content(reply(1, "try again"), "application/json");
  });
  // Every tick finds an upload pending; ticks come faster than checks end.
  U::setBool(keys::kUploadConsentRequestPending, true);
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 20; ++i, std::this_thread::sleep_for(10ms)) impl_.scheduleConsentCheck();
  // Each check takes 100 ms: ticks during one fold into a single follow-up.
  const auto checksPossible = (std::chrono::steady_clock::now() - start) / 100ms + 2;
  impl_.waitUntilIdle();
  EXPECT_EQ(most.load(), 1);
  EXPECT_LE(app_.requestCount(), 1u + checksPossible);
}

TEST(SuiteOpeningTest, ProcessesStartedTogetherAllOpenOneFreshSuite) {
  constexpr int kProcesses = 8;
  for (int round = 0; round < 30; ++round) {
    testing::TempDir dir;
    std::vector<pid_t> children;
    for (int child = 0; child < kProcesses; ++child) {
      pid_t pid = fork();
      ASSERT_GE(pid, 0);
      if (pid == 0) {
        installPlatform(std::make_shared<testing::FakePlatform>(dir.path()));
        if (!U::isAvailable()) _exit(2);
        U::setInt("child" + std::to_string(child), child);
        // Every sibling's write becomes visible here.
        for (int waited = 0; waited < 500; ++waited, usleep(10000)) {
          int seen = 0;
          for (int other = 0; other < kProcesses; ++other)
            seen += U::getInt64("child" + std::to_string(other), -1) == other;
          if (seen == kProcesses) _exit(0);
        }
        _exit(3);
      }
      children.push_back(pid);
    }
    for (pid_t pid : children) {
      int status = 0;
      waitpid(pid, &status, 0);
      ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << round << ": " << status;
    }
  }
  testing::ScopedPlatform scoped;
  U::setBool("k", true);
  EXPECT_EQ(detail::currentStore()->pragma("synchronous"), 2);  // FULL: survives a power cut
}

}  // namespace
}  // namespace pactivo
