// The Linux path monitor against a real kernel: a network namespace of the
// test's own with a veth pair brought up and down. Needs root (skipped
// otherwise); no packet leaves the namespace.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <vector>

#include "platform/netlink_path_monitor.h"

namespace pactivo::detail {
namespace {

constexpr int kSkipped = 77;

class Recorder {
 public:
  void record(NetworkPathStatus status) {
    std::lock_guard lock(mutex_);
    statuses_.push_back(status);
    changed_.notify_all();
  }
  bool waitFor(std::size_t count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(5),
                             [&] { return statuses_.size() >= count; });
  }
  NetworkPathStatus at(std::size_t index) {
    std::lock_guard lock(mutex_);
    return statuses_.at(index);
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<NetworkPathStatus> statuses_;
};

bool run(const char* command) {
  std::string quiet = std::string(command) + " >/dev/null 2>&1";
  return std::system(quiet.c_str()) == 0;
}

// Runs in a child process of its own namespace; the exit code says which
// step failed.
int childBody() {
  if (unshare(CLONE_NEWNET) != 0 || !run("ip link set lo up")) return kSkipped;
  Recorder recorder;
  NetlinkPathMonitor monitor;
  monitor.start([&](NetworkPathStatus status) { recorder.record(status); });
  if (!recorder.waitFor(1) || recorder.at(0) != NetworkPathStatus::unsatisfied) return 1;

  if (!run("ip link add pv0 type veth peer name pv1") ||
      !run("ip addr add 10.254.0.1/30 dev pv0") || !run("ip link set pv1 up") ||
      !run("ip link set pv0 up") || !run("ip route add default via 10.254.0.2 dev pv0")) {
    return kSkipped;
  }
  if (!recorder.waitFor(2) || recorder.at(1) != NetworkPathStatus::satisfied) return 2;

  if (!run("ip link set pv1 down")) return kSkipped;  // pv0 loses its carrier
  if (!recorder.waitFor(3) || recorder.at(2) != NetworkPathStatus::unsatisfied) return 3;

  if (!run("ip link set pv1 up")) return kSkipped;
  if (!recorder.waitFor(4) || recorder.at(3) != NetworkPathStatus::satisfied) return 4;
  monitor.cancel();
  return 0;
}

TEST(NetlinkPathMonitorTest, FollowsAVethPairDownAndUp) {
  if (geteuid() != 0) GTEST_SKIP() << "a network namespace needs root";
  if (std::system("command -v ip >/dev/null 2>&1") != 0) GTEST_SKIP() << "iproute2 missing";
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) _exit(childBody());
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == kSkipped) GTEST_SKIP() << "network namespaces are not available";
  EXPECT_EQ(WEXITSTATUS(status), 0) << "failed at step " << WEXITSTATUS(status);
}

TEST(NetlinkPathMonitorTest, CancelIsPromptAndRepeatable) {
  NetlinkPathMonitor monitor;
  Recorder recorder;
  monitor.start([&](NetworkPathStatus status) { recorder.record(status); });
  ASSERT_TRUE(recorder.waitFor(1));
  auto start = std::chrono::steady_clock::now();
  monitor.cancel();
  monitor.cancel();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
}

}  // namespace
}  // namespace pactivo::detail
