// Network reachability on Linux, from the kernel's routing tables.
#ifndef PACTIVO_SRC_PLATFORM_NETLINK_PATH_MONITOR_H_
#define PACTIVO_SRC_PLATFORM_NETLINK_PATH_MONITOR_H_

#include <functional>
#include <thread>

#include "pactivo/platform.h"

namespace pactivo::detail {

// Listens on a netlink route socket for link, address and route changes and
// reports `satisfied` while a non-loopback interface is up and running with
// an address and a default route exists, `unsatisfied` otherwise. Updates run
// on the monitor's own thread; a status is reported only when it changed.
class NetlinkPathMonitor : public NetworkPathMonitor {
 public:
  NetlinkPathMonitor() = default;
  ~NetlinkPathMonitor() override;

  void start(std::function<void(NetworkPathStatus)> handler) override;
  void cancel() override;

  // The status right now, as this monitor would report it.
  static NetworkPathStatus currentStatus();

 private:
  void run(std::function<void(NetworkPathStatus)> handler);

  int netlink_ = -1;
  int wake_ = -1;  // eventfd that ends the thread
  std::thread thread_;
};

}  // namespace pactivo::detail

#endif  // PACTIVO_SRC_PLATFORM_NETLINK_PATH_MONITOR_H_
