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

// The statuses a monitor reports, a letter each: 'u'nsatisfied, 's'atisfied.
struct Recorder {
  std::function<void(NetworkPathStatus)> callback() {
    return [this](NetworkPathStatus status) {
      std::lock_guard lock(mutex);
      seen += status == satisfied ? 's' : 'u';
    };
  }
  // Whether the reports are `expected` within five seconds.
  bool saw(const std::string& expected) {
    return testing::eventually([&] { return std::lock_guard(mutex), seen == expected; },
                               std::chrono::seconds(5));
  }
  std::mutex mutex;
  std::string seen;
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
  // The first report comes with no link but loopback; then pv0 gains, loses
  // and regains its carrier.
  const char* steps[] = {
      "true",
      ("ip link add pv0 type veth peer name pv1 && ip addr add 10.254.0.1/30 dev pv0 && "
       "ip link set pv1 up && ip link set pv0 up && ip route add default via 10.254.0.2 dev pv0"),
      "ip link set pv1 down", "ip link set pv1 up"};
  for (std::size_t i = 0; i < std::size(steps); ++i) {
    if (!quietly(steps[i])) return kSkipped;
    if (!recorder.saw(std::string("usus").substr(0, i + 1))) return static_cast<int>(i) + 1;
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
  ASSERT_TRUE(
      testing::eventually([&] { return std::lock_guard(recorder.mutex), recorder.seen != ""; }));
  auto start = std::chrono::steady_clock::now();
  monitor.cancel();
  monitor.cancel();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
}

}  // namespace
}  // namespace pactivo::detail
