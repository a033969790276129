// The Linux path monitor against a real kernel: a network namespace of the
// test's own with a veth pair brought up and down. Needs root (skipped
// otherwise); no packet leaves the namespace.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <mutex>
#include <vector>

#include "platform/netlink_path_monitor.h"
#include "support/test_support.h"

namespace pactivo::detail {
namespace {

using enum NetworkPathStatus;
constexpr int kSkipped = 77;

// The statuses a monitor reports, in order.
struct Recorder {
  std::function<void(NetworkPathStatus)> callback() {
    return [this](NetworkPathStatus status) {
      std::lock_guard lock(mutex);
      seen.push_back(status);
    };
  }
  // Whether report `index` arrives within five seconds and is `expected`.
  bool saw(std::size_t index, NetworkPathStatus expected) {
    auto at = [&]() -> std::optional<NetworkPathStatus> {
      std::lock_guard lock(mutex);
      return index < seen.size() ? std::optional(seen[index]) : std::nullopt;
    };
    testing::eventually([&] { return at().has_value(); }, std::chrono::seconds(5));
    return at() == expected;
  }
  std::mutex mutex;
  std::vector<NetworkPathStatus> seen;
};

bool quietly(const std::string& commands) {
  return std::system(("(" + commands + ") >/dev/null 2>&1").c_str()) == 0;
}

// Runs in a child process of its own namespace; the exit code says which
// step failed.
int childBody() {
  if (unshare(CLONE_NEWNET) != 0 || !quietly("ip link set lo up")) return kSkipped;
  Recorder recorder;
  NetlinkPathMonitor monitor;
  monitor.start(recorder.callback());
  struct Step {
    const char* commands;
    NetworkPathStatus then;
  } steps[] = {
      {"true", unsatisfied},  // the first report, with no link but loopback
      {"ip link add pv0 type veth peer name pv1 && ip addr add 10.254.0.1/30 dev pv0 && "
       "ip link set pv1 up && ip link set pv0 up && ip route add default via 10.254.0.2 dev pv0",
       satisfied},
      {"ip link set pv1 down", unsatisfied},  // pv0 loses its carrier
      {"ip link set pv1 up", satisfied},
  };
  for (std::size_t i = 0; i < std::size(steps); ++i) {
    if (!quietly(steps[i].commands)) return kSkipped;
    if (!recorder.saw(i, steps[i].then)) return static_cast<int>(i) + 1;
  }
  monitor.cancel();
  return 0;
}

TEST(NetlinkPathMonitorTest, FollowsAVethPairDownAndUp) {
  if (geteuid() != 0) GTEST_SKIP() << "a network namespace needs root";
  if (!quietly("command -v ip")) GTEST_SKIP() << "iproute2 missing";
  int status = testing::runInChild(childBody);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == kSkipped) GTEST_SKIP() << "network namespaces are not available";
  EXPECT_EQ(WEXITSTATUS(status), 0) << "failed at step " << WEXITSTATUS(status);
}

TEST(NetlinkPathMonitorTest, CancelIsPromptAndRepeatable) {
  Recorder recorder;
  NetlinkPathMonitor monitor;
  monitor.start(recorder.callback());
  ASSERT_TRUE(recorder.saw(0, unsatisfied) || recorder.saw(0, satisfied));
  auto start = std::chrono::steady_clock::now();
  monitor.cancel();
  monitor.cancel();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
}

}  // namespace
}  // namespace pactivo::detail
