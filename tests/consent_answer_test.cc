// The answer the user gave is the answer stored, uploaded and reported:
// against slow location services, full disks, processes that end early and
// sibling processes opening the same suite.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <thread>

#include "pactivo/consent_sdk.h"
#include "pactivo/json.h"
#include "pactivo/user_default_manager.h"
#include "persistence/preference_store.h"
#include "sdk/consent_sdk_access.h"
#include "sdk/consent_sdk_impl.h"
#include "sdk/default_urls.h"
#include "support/test_server.h"
#include "support/test_support.h"

namespace pactivo {
namespace {

using detail::ConsentSDKAccess;
using testing::eventually;
using testing::exampleDocument;

class ConsentAnswerTest : public ::testing::Test {
 protected:
  ConsentAnswerTest() {
    cdn_.respond(200, exampleDocument(), "\"v3\"");
    app_.respond(200, R"({"status": 0, "message": "Consents saved"})");
  }
  ~ConsentAnswerTest() override { detail::overrideDefaultApplicationServerBaseUrl(""); }

  std::unique_ptr<ConsentSDK> start(std::optional<std::string> location = "DE",
                                    bool testing = false) {
    auto sdk = std::make_unique<ConsentSDK>();
    ConsentSDKAccess::impl(*sdk).setClock(clock_);
    sdk->setup(ConsentSDKOptions(app_.baseUrl(), cdn_.baseUrl(), "t", "a", testing, LogLevel::debug,
                                 120, std::nullopt, "en", std::move(location),
                                 WebViewConfig({}, std::nullopt)));
    return sdk;
  }

  std::vector<PostConsentsRequest> uploads() {
    std::vector<PostConsentsRequest> bodies;
    for (const auto& request : app_.requests()) {
      bodies.push_back(decode<PostConsentsRequest>(request.body).value.value());
    }
    return bodies;
  }

  static Purpose purpose(std::int64_t id) {
    Purpose p;
    p.purposeId = id;
    return p;
  }

  testing::ScopedPlatform scoped_;
  testing::LogCapture log_;
  testing::TestServer cdn_;
  testing::TestServer app_;
  std::shared_ptr<testing::ManualClock> clock_ = std::make_shared<testing::ManualClock>();
};

TEST_F(ConsentAnswerTest, PrefillNeverRecordsOverAChoiceMadeWhileItWaits) {
  // The location service answers only after the host has recorded a choice.
  testing::TestServer geo;
  std::promise<void> chosen;
  std::shared_future<void> released = chosen.get_future().share();
  geo.setHandler([released](const httplib::Request&, httplib::Response& response) {
    released.wait();
    response.set_content(
        R"({"status": 0, "message": "ok", "data": {"CountryISOCode": {"code": "DE"}}})",
        "application/json");
  });
  detail::overrideDefaultApplicationServerBaseUrl(geo.baseUrl());
  auto sdk = start(std::nullopt);
  ASSERT_TRUE(eventually([&] { return geo.requestCount() == 1; })) << log_.text();
  ASSERT_TRUE(sdk->set(purpose(2), ConsentStatus::granted));
  chosen.set_value();
  ConsentSDKAccess::impl(*sdk).waitUntilIdle();
  clock_->advance(std::chrono::seconds(2));  // the choice's report is due
  ASSERT_TRUE(eventually([&] { return app_.requestCount() >= 1; })) << log_.text();
  ConsentSDKAccess::impl(*sdk).waitUntilIdle();

  EXPECT_EQ(sdk->get(2), ConsentStatus::granted);
  EXPECT_EQ(UserDefaultManager::getString(keys::kConsentGivenType, ""), kConsentExplicit);
  for (const PostConsentsRequest& body : uploads()) {
    EXPECT_FALSE(body.implicitConsent);
    for (const PurposeConsent& consent : body.purposeConsents) {
      if (consent.purposeID == 2) {
        EXPECT_EQ(consent.consentStatus, ConsentStatus::granted);
      }
    }
  }
}

TEST_F(ConsentAnswerTest, AChoiceTheStoreCannotWriteIsNotRecorded) {
  int firebaseCalls = 0;
  scoped_.platform().setConsentModeHandler([&](const auto&) { ++firebaseCalls; });
  auto sdk = start();
  ASSERT_TRUE(eventually([&] { return app_.requestCount() == 1; }));
  ConsentSDKAccess::impl(*sdk).waitUntilIdle();
  const ConsentStatus before = sdk->get(2);
  const int firebaseBefore = firebaseCalls;
  // The file may not grow: fill what room is left, as a full disk would.
  auto store = detail::currentStore();
  store->pragma("max_page_count=" + std::to_string(*store->pragma("page_count")));
  std::string error;
  for (std::size_t size = 4096, i = 0; size > 0; size /= 2) {
    while (store->put("filler" + std::to_string(i++), std::string(size, 'x'), &error)) {
    }
  }
  ASSERT_NE(error.find("full"), std::string::npos) << error;

  EXPECT_FALSE(sdk->set(purpose(2), ConsentStatus::granted));
  EXPECT_EQ(sdk->get(2), before);
  EXPECT_EQ(UserDefaultManager::getPendingPurposes(), std::vector<std::int64_t>{});
  clock_->advance(std::chrono::seconds(2));
  ConsentSDKAccess::impl(*sdk).waitUntilIdle();
  EXPECT_EQ(app_.requestCount(), 1u);
  EXPECT_EQ(firebaseCalls, firebaseBefore);
  EXPECT_TRUE(log_.contains("Failed to write preference 2: database or disk is full"));
}

TEST_F(ConsentAnswerTest, AChoiceLeftUnreportedIsReportedByTheNextStart) {
  {
    auto sdk = start();
    ASSERT_TRUE(eventually([&] { return app_.requestCount() == 1; }));
    ConsentSDKAccess::impl(*sdk).waitUntilIdle();
    ASSERT_TRUE(sdk->set(purpose(2), ConsentStatus::granted));
  }  // ended before the report was due
  EXPECT_EQ(app_.requestCount(), 1u);
  auto sdk = start();
  ASSERT_TRUE(eventually([&] { return app_.requestCount() == 2; })) << log_.text();
  const PostConsentsRequest body = uploads().back();
  EXPECT_FALSE(body.implicitConsent);
  ASSERT_EQ(body.purposeConsents.size(), 1u);
  EXPECT_EQ(body.purposeConsents[0].consentStatus, ConsentStatus::granted);
}

TEST_F(ConsentAnswerTest, AForgottenUserIsUploadedWithANewIdentity) {
  auto sdk = start();
  ASSERT_TRUE(eventually([&] { return app_.requestCount() == 1; }));
  ConsentSDKAccess::impl(*sdk).waitUntilIdle();
  const std::string old = uploads()[0].uuid;
  sdk->removeConsents();
  UserDefaultManager::setBool(keys::kUploadConsentRequestPending, true);
  sdk->checkConsents();  // the check's upload, and the new user's defaults
  const auto bodies = uploads();
  ASSERT_GE(bodies.size(), 2u);
  const std::string renewed = bodies[1].uuid;
  EXPECT_NE(renewed, old);
  EXPECT_EQ(renewed.size(), 36u);
  EXPECT_EQ(renewed.find_first_of("abcdef"), std::string::npos) << renewed;
  for (std::size_t i = 1; i < bodies.size(); ++i) EXPECT_EQ(bodies[i].uuid, renewed);
}

TEST_F(ConsentAnswerTest, ATestingRunLeavesAnEmptySuiteEvenWithAnUploadInFlight) {
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  app_.setHandler([released](const httplib::Request&, httplib::Response& response) {
    released.wait_for(std::chrono::seconds(5));
    response.set_content(R"({"status": 0, "message": "late"})", "application/json");
  });
  auto sdk = start("DE", /*testing=*/true);
  ASSERT_TRUE(eventually([&] { return app_.requestCount() == 1; }));
  sdk.reset();
  release.set_value();
  EXPECT_EQ(UserDefaultManager::allEntries().size(), 0u);
}

TEST_F(ConsentAnswerTest, OptionsWrittenAfterConstructionObeyTheRules) {
  ConsentSDKOptions options(app_.baseUrl(), cdn_.baseUrl(), "t", "a", false, LogLevel::debug, 120,
                            std::nullopt, "en", "DE", WebViewConfig({}, std::nullopt));
  options.consentsCheckInterval = 0;
  options.testingMode = true;
  options.languageCode = "EN";
  ConsentSDK sdk;
  sdk.setup(options);
  ASSERT_TRUE(eventually([&] { return cdn_.requestCount() >= 1; }));
  EXPECT_NE(cdn_.requests()[0].path.find("/draft/config_en.json"), std::string::npos)
      << cdn_.requests()[0].path;
  EXPECT_EQ(sdk.options()->consentsCheckInterval, 60);
  EXPECT_EQ(sdk.options()->mode, Mode::draft);
}

TEST_F(ConsentAnswerTest, ChecksNeverOverlap) {
  std::atomic<int> inFlight{0};
  std::atomic<int> most{0};
  app_.setHandler([&](const httplib::Request&, httplib::Response& response) {
    const int now = ++inFlight;
    most = std::max(most.load(), now);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    --inFlight;
    response.set_content(R"({"status": 1, "message": "try again"})", "application/json");
  });
  auto sdk = start();
  ASSERT_TRUE(eventually([&] { return app_.requestCount() == 1; }));
  auto& impl = ConsentSDKAccess::impl(*sdk);
  impl.waitUntilIdle();
  // Every tick finds an upload pending; ticks come faster than checks end.
  for (int i = 0; i < 20; ++i) {
    impl.scheduleConsentCheck();
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  impl.waitUntilIdle();
  EXPECT_EQ(most.load(), 1);
  EXPECT_LE(app_.requestCount(), 4u);  // the prefill, a check, at most one follow-up
}

TEST(SuiteOpeningTest, ProcessesStartedTogetherAllOpenOneFreshSuite) {
  constexpr int kProcesses = 8;
  constexpr int kRounds = 30;
  for (int round = 0; round < kRounds; ++round) {
    testing::TempDir dir;
    std::vector<pid_t> children;
    for (int child = 0; child < kProcesses; ++child) {
      pid_t pid = fork();
      ASSERT_GE(pid, 0);
      if (pid == 0) {
        installPlatform(std::make_shared<testing::FakePlatform>(dir.path()));
        if (!UserDefaultManager::isAvailable()) _exit(2);
        UserDefaultManager::setInt("child" + std::to_string(child), child);
        // Every sibling's write becomes visible here.
        for (int waited = 0; waited < 500; ++waited) {
          int seen = 0;
          for (int other = 0; other < kProcesses; ++other) {
            seen += UserDefaultManager::getInt64("child" + std::to_string(other), -1) == other;
          }
          if (seen == kProcesses) _exit(0);
          usleep(10000);
        }
        _exit(3);
      }
      children.push_back(pid);
    }
    for (pid_t pid : children) {
      int status = 0;
      waitpid(pid, &status, 0);
      ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
          << "round " << round << ": status " << status;
    }
  }
}

TEST(SuiteOpeningTest, CommitsAreSyncedInFull) {
  testing::ScopedPlatform scoped;
  UserDefaultManager::setBool("k", true);
  EXPECT_EQ(detail::currentStore()->pragma("synchronous"), 2);  // FULL
}

}  // namespace
}  // namespace pactivo
