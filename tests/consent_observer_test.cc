// Consent changes reach observers once, in commit order, with their cause,
// from this process and from another one sharing the suite.
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "pactivo/pactivo_c.h"
#include "support/sdk_fixture.h"

namespace pactivo {
namespace {

using namespace std::chrono_literals;
using testing::eventually;
using S = ConsentStatus;
using U = UserDefaultManager;

// The deliveries an observer received, as JSON lines; a C callback's state too.
struct Deliveries {
  static void add(const char* json, void* self) {
    auto* deliveries = static_cast<Deliveries*>(self);
    std::lock_guard lock(deliveries->mutex);
    deliveries->json.emplace_back(json);
  }
  ConsentObservation observe(ConsentSDK& sdk,
                             std::function<void(const ConsentChanges&)> also = {}) {
    return sdk.observeConsents([this, also](const ConsentChanges& changes) {
      add(encode(changes).c_str(), this);
      if (also) also(changes);
    });
  }
  std::vector<std::string> lines() const {
    std::lock_guard lock(mutex);
    return json;
  }
  bool reach(std::size_t count) const {
    return eventually([&] { return lines().size() >= count; });
  }

  mutable std::mutex mutex;
  std::vector<std::string> json;
};

bool threadNamed(const std::string& name) {
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream comm(task.path() / "comm");
    std::string line;
    if (std::getline(comm, line) && line == name) return true;
  }
  return false;
}

Purpose purpose(std::int64_t id) {
  Purpose p;
  p.purposeId = id;
  return p;
}

class ConsentObserverTest : public testing::SdkTest {};

TEST_F(ConsentObserverTest, EveryCommitOnceWithItsCause) {
  // 700 purposes: the prefill records them in one commit, one delivery.
  MainConfiguration large = testing::exampleConfiguration();
  std::vector<Purpose>& purposes = *large.purposes;
  for (std::int64_t id = 100; purposes.size() < 700; ++id) {
    purposes.push_back(purposes.at(1));
    purposes.back().purposeId = id;
  }
  cdn_.respond(200, encode(large));
  // Without an observer, writes start no thread (unless an earlier test in
  // this process observed).
  if (!threadNamed("pactivo-events")) {
    U::setString(keys::kBannerInterval, "1 month");
    EXPECT_FALSE(threadNamed("pactivo-events"));
  }
  Deliveries seen;
  ConsentObservation observation = seen.observe(*sdk_);
  ASSERT_TRUE(seen.reach(1));
  EXPECT_TRUE(threadNamed("pactivo-events"));
  sdk_->setup(options());
  // 700 purposes take a while under emulation.
  ASSERT_TRUE(eventually([&] { return app_.requestCount() == 1; }, 60s)) << log_.text();
  impl_.waitUntilIdle();
  ASSERT_TRUE(seen.reach(2));
  ASSERT_TRUE(sdk_->set(purpose(2), S::granted));
  ASSERT_TRUE(sdk_->set(purpose(2), S::granted));  // no change, no delivery
  U::setPermissionConsent(LumariKey::cameraUsageDescription, S::granted);
  // A later observer starts from what is stored now.
  Deliveries late;
  ConsentObservation second = late.observe(*sdk_);
  ASSERT_TRUE(late.reach(1));
  EXPECT_NE(late.lines()[0].find(R"({"purpose_id":2,"before":null,"after":"granted"})"),
            std::string::npos);
  sdk_->removeConsents();
  ASSERT_TRUE(seen.reach(5));
  const auto lines = seen.lines();
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines[0], R"({"cause":"current_state","changes":[]})");
  EXPECT_EQ(
      lines[1].rfind(R"({"cause":"check_cycle","changes":[{"purpose_id":1,"before":null,)", 0), 0u);
  EXPECT_EQ(std::count(lines[1].begin(), lines[1].end(), '{'), 1 + 700 + 4);
  EXPECT_EQ(
      lines[2],
      R"({"cause":"host","changes":[{"purpose_id":2,"before":"declined","after":"granted"}]})");
  EXPECT_EQ(lines[3], R"({"cause":"host","changes":[{"permission":"NSCameraUsageDescription",)"
                      R"("before":"not_determined","after":"granted"}]})");
  EXPECT_EQ(
      lines[4].rfind(R"({"cause":"removal","changes":[{"purpose_id":1,"before":"granted",)", 0),
      0u);
}

TEST_F(ConsentObserverTest, CallbacksMayCallInCancelThemselvesAndThrow) {
  setupThroughPrefill();
  // The first observer answers a change with a choice of its own, then
  // cancels itself from inside its callback; the second throws every time; the
  // third, through the C interface, is cancelled before the last change.
  ConsentObservation first;
  Deliveries answered, thrown, viaC;
  first = answered.observe(*sdk_, [&](const ConsentChanges& changes) {
    if (changes.cause != ConsentChangeCause::host) return;
    EXPECT_TRUE(sdk_->set(purpose(4), S::granted));
    first.cancel();
  });
  ConsentObservation second =
      thrown.observe(*sdk_, [](const ConsentChanges&) { throw std::runtime_error("boom"); });
  pactivo_sdk* sdk = nullptr;
  pactivo_observation* third = nullptr;
  ASSERT_EQ(pactivo_sdk_new(&sdk), PACTIVO_OK);
  EXPECT_EQ(pactivo_observe_consents(sdk, nullptr, &viaC, &third), PACTIVO_MISUSE);
  EXPECT_EQ(pactivo_observe_consents(nullptr, Deliveries::add, &viaC, &third), PACTIVO_MISUSE);
  ASSERT_EQ(pactivo_observe_consents(sdk, Deliveries::add, &viaC, &third), PACTIVO_OK);
  ASSERT_TRUE(thrown.reach(1) && viaC.reach(1));
  ASSERT_TRUE(sdk_->set(purpose(2), S::granted));
  // Current state, purpose 2, then purpose 4 from the first callback.
  ASSERT_TRUE(thrown.reach(3) && viaC.reach(3));
  EXPECT_EQ(pactivo_observation_cancel(third), PACTIVO_OK);
  EXPECT_EQ(pactivo_observation_cancel(nullptr), PACTIVO_OK);
  ASSERT_TRUE(sdk_->set(purpose(10), S::granted));
  ASSERT_TRUE(thrown.reach(4));
  EXPECT_EQ(sdk_->get(4), S::granted);
  EXPECT_EQ(answered.lines().size(), 2u);
  const auto lines = thrown.lines();
  EXPECT_EQ(viaC.lines(), std::vector(lines.begin(), lines.begin() + 3));  // the same JSON
  // The fourth delivery is recorded before its callback throws.
  EXPECT_TRUE(eventually([&] { return log_.count("[ERROR] [consent_feed.cc") == 4; }))
      << log_.text();
  EXPECT_TRUE(log_.contains("observeConsents(_:) - Consent observer threw: boom"));
  EXPECT_EQ(pactivo_sdk_destroy(sdk), PACTIVO_OK);
}

TEST_F(ConsentObserverTest, TeardownWaitsForTheDeliveryInFlight) {
  setupThroughPrefill();
  std::atomic<bool> inside{false}, finished{false};
  std::atomic<int> calls{0};
  ConsentObservation observation = sdk_->observeConsents([&](const ConsentChanges&) {
    if (++calls != 2) return;
    inside = true;
    std::this_thread::sleep_for(200ms);
    finished = true;
  });
  ASSERT_TRUE(sdk_->set(purpose(2), S::granted));
  ASSERT_TRUE(eventually([&] { return inside.load(); }));
  sdk_.reset();
  EXPECT_TRUE(finished);
  U::setPurposeConsent("2", S::declined);
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(calls, 2);  // the observation ended with its facade
}

TEST_F(ConsentObserverTest, AnotherProcessesChangesArriveOnceAndInOrder) {
  setupThroughPrefill();
  // The child makes its next change only once the parent saw the last one.
  int seenPipe[2];
  ASSERT_EQ(pipe(seenPipe), 0);
  Deliveries seen;
  ConsentObservation observation = seen.observe(*sdk_, [&](const ConsentChanges& changes) {
    if (changes.cause == ConsentChangeCause::otherProcess) (void)!write(seenPipe[1], "x", 1);
  });
  ASSERT_TRUE(seen.reach(1));
  const char* values[] = {"null", R"("granted")", R"("declined")"};
  std::vector<std::string> expected = seen.lines();
  const int status = testing::runInChild([&] {
    char byte;
    for (int i = 0; i < 6; ++i) {
      U::setPurposeConsent("7", i % 2 ? S::declined : S::granted);
      if (read(seenPipe[0], &byte, 1) != 1) return 1;
    }
    return 0;
  });
  EXPECT_EQ(status, 0);
  for (int i = 0; i < 6; ++i) {
    expected.push_back(std::string(R"({"cause":"other_process","changes":[{"purpose_id":7,)") +
                       "\"before\":" + values[i == 0 ? 0 : 2 - i % 2] +
                       ",\"after\":" + values[1 + i % 2] + "}]}");
  }
  EXPECT_EQ(seen.lines(), expected);
  // The suite deleted under the observer: it follows the new, empty one.
  for (const char* suffix : {"", "-wal", "-shm"}) {
    std::filesystem::remove(scoped_.dataDirectory() /
                            ("tessarin-cmp-sdk.sqlite" + std::string(suffix)));
  }
  ASSERT_TRUE(seen.reach(expected.size() + 1));
  EXPECT_NE(seen.lines().back().find(R"({"purpose_id":7,"before":"declined","after":null})"),
            std::string::npos);
  observation.cancel();  // its callback writes to the pipe
  close(seenPipe[0]);
  close(seenPipe[1]);
}

}  // namespace
}  // namespace pactivo
