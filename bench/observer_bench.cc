// How soon an observer hears of a consent change, and what an idle observer
// costs: the time from set returning to the callback, in this process and in
// another one sharing the suite (median and p99 over 1,000 changes), then the
// context switches of all the observing process's threads while nothing
// changes.
//   observer_bench [CHANGES] [IDLE_SECONDS]    (defaults: 1000, 60)
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "pactivo/consent_sdk.h"
#include "pactivo/user_default_manager.h"
#include "persistence/preference_store.h"
#include "support/test_support.h"

namespace pactivo {
namespace {

using Clock = std::chrono::steady_clock;  // CLOCK_MONOTONIC: one clock for every process

std::int64_t nowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
      .count();
}

ConsentStatus nth(int i) { return i % 2 ? ConsentStatus::declined : ConsentStatus::granted; }

void report(const char* what, std::vector<double> ms) {
  std::sort(ms.begin(), ms.end());
  std::printf("%-32s median %7.3f ms   p99 %7.3f ms   max %7.3f ms   (%zu changes)\n", what,
              ms[ms.size() / 2], ms[ms.size() * 99 / 100], ms.back(), ms.size());
}

// Every change waits for its delivery before the next one, so none is folded
// into another.
std::vector<double> inThisProcess(ConsentSDK& sdk, int changes) {
  std::mutex mutex;
  std::condition_variable delivered;
  std::int64_t heardAt = 0;
  ConsentObservation observation = sdk.observeConsents([&](const ConsentChanges& c) {
    if (c.cause != ConsentChangeCause::host) return;
    std::lock_guard lock(mutex);
    heardAt = nowNs();
    delivered.notify_all();
  });
  std::vector<double> latencies;
  for (int i = 0; i < changes; ++i) {
    UserDefaultManager::setPurposeConsent("7", nth(i));
    const std::int64_t returnedAt = nowNs();
    std::unique_lock lock(mutex);
    delivered.wait(lock, [&] { return heardAt != 0; });
    latencies.push_back(std::max<std::int64_t>(0, heardAt - returnedAt) / 1e6);
    heardAt = 0;
  }
  return latencies;
}

std::vector<double> fromAnotherProcess(ConsentSDK& sdk, int changes) {
  int stamps[2], acks[2];
  if (pipe(stamps) != 0 || pipe(acks) != 0) return {};
  std::vector<double> latencies;
  ConsentObservation observation = sdk.observeConsents([&](const ConsentChanges& c) {
    if (c.cause != ConsentChangeCause::otherProcess) return;
    const std::int64_t heardAt = nowNs();
    std::int64_t returnedAt = 0;
    if (read(stamps[0], &returnedAt, sizeof returnedAt) != sizeof returnedAt) return;
    latencies.push_back(std::max<std::int64_t>(0, heardAt - returnedAt) / 1e6);
    (void)!write(acks[1], "x", 1);
  });
  detail::resetCurrentStore();
  const pid_t child = fork();
  if (child == 0) {
    char ack;
    for (int i = 0; i < changes; ++i) {
      UserDefaultManager::setPurposeConsent("8", nth(i));
      const std::int64_t returnedAt = nowNs();
      if (write(stamps[1], &returnedAt, sizeof returnedAt) < 0 || read(acks[0], &ack, 1) != 1) {
        _exit(1);
      }
    }
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  observation.cancel();
  return latencies;
}

long contextSwitches() {
  long total = 0;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream in(task.path() / "status");
    for (std::string line; std::getline(in, line);) {
      if (line.find("ctxt_switches:") != std::string::npos) {
        total += std::stol(line.substr(line.find(':') + 1));
      }
    }
  }
  return total;
}

}  // namespace
}  // namespace pactivo

int main(int argc, char** argv) {
  using namespace pactivo;
  const int changes = argc > 1 ? std::atoi(argv[1]) : 1000;
  const int idleSeconds = argc > 2 ? std::atoi(argv[2]) : 60;
  testing::ScopedPlatform scoped;
  SDKLogger::shared().setLogLevel(LogLevel::error);
  ConsentSDK sdk;
  report("set() to callback, same process", inThisProcess(sdk, changes));
  report("set() to callback, other process", fromAnotherProcess(sdk, changes));

  ConsentObservation idle = sdk.observeConsents([](const ConsentChanges&) {});
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  const long before = contextSwitches();
  std::this_thread::sleep_for(std::chrono::seconds(idleSeconds));
  // The main thread's own sleep accounts for one.
  std::printf("idle observer: %ld context switches in %d s, all threads\n",
              contextSwitches() - before - 1, idleSeconds);
  return 0;
}
