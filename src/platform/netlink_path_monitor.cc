#include "platform/netlink_path_monitor.h"

#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>

namespace pactivo::detail {
namespace {

// Changes come in bursts (a link, then its address, then its routes); one
// evaluation after the burst is enough.
constexpr int kSettleMilliseconds = 50;

bool hasUsableInterface() {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return false;
  bool found = false;
  for (ifaddrs* entry = list; entry != nullptr && !found; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr) continue;
    const unsigned flags = entry->ifa_flags;
    if (!(flags & IFF_UP) || !(flags & IFF_RUNNING) || (flags & IFF_LOOPBACK)) continue;
    const int family = entry->ifa_addr->sa_family;
    found = family == AF_INET || family == AF_INET6;
  }
  freeifaddrs(list);
  return found;
}

bool hasDefaultRoute() {
  // IPv4: destination and mask 0, on an interface other than "lo".
  std::ifstream v4("/proc/net/route");
  std::string line;
  std::getline(v4, line);  // header
  while (std::getline(v4, line)) {
    std::istringstream fields(line);
    std::string iface, destination, gateway, flags, refcnt, use, metric, mask;
    fields >> iface >> destination >> gateway >> flags >> refcnt >> use >> metric >> mask;
    if (iface != "lo" && destination == "00000000" && mask == "00000000") return true;
  }
  // IPv6: a ::/0 route on an interface other than "lo".
  std::ifstream v6("/proc/net/ipv6_route");
  while (std::getline(v6, line)) {
    std::istringstream fields(line);
    std::string destination, prefix, source, sourcePrefix, next, metric, refcnt, use, flags, iface;
    fields >> destination >> prefix >> source >> sourcePrefix >> next >> metric >> refcnt >> use >>
        flags >> iface;
    if (iface != "lo" && prefix == "00" && destination == std::string(32, '0')) return true;
  }
  return false;
}

}  // namespace

NetworkPathStatus NetlinkPathMonitor::currentStatus() {
  return hasUsableInterface() && hasDefaultRoute() ? NetworkPathStatus::satisfied
                                                   : NetworkPathStatus::unsatisfied;
}

NetlinkPathMonitor::~NetlinkPathMonitor() { cancel(); }

void NetlinkPathMonitor::start(std::function<void(NetworkPathStatus)> handler) {
  netlink_ = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
  if (netlink_ >= 0) {
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE |
                        RTMGRP_IPV6_ROUTE;
    if (bind(netlink_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      close(netlink_);
      netlink_ = -1;
    }
  }
  wake_ = eventfd(0, EFD_CLOEXEC);
  thread_ = std::thread([this, handler = std::move(handler)] {
    pthread_setname_np(pthread_self(), "NetworkMonitor");
    run(handler);
  });
}

void NetlinkPathMonitor::cancel() {
  if (thread_.joinable()) {
    std::uint64_t one = 1;
    if (write(wake_, &one, sizeof one) < 0) {
      // The eventfd cannot be full with one write; nothing else can fail here.
    }
    thread_.join();
  }
  if (netlink_ >= 0) close(netlink_);
  if (wake_ >= 0) close(wake_);
  netlink_ = wake_ = -1;
}

void NetlinkPathMonitor::run(std::function<void(NetworkPathStatus)> handler) {
  NetworkPathStatus last = currentStatus();
  handler(last);
  if (netlink_ < 0) {
    // No events to wait for: report the one status and wait to be cancelled.
    pollfd wake{wake_, POLLIN, 0};
    poll(&wake, 1, -1);
    return;
  }
  char buffer[8192];
  while (true) {
    pollfd fds[2] = {{wake_, POLLIN, 0}, {netlink_, POLLIN, 0}};
    if (poll(fds, 2, -1) < 0) continue;
    if (fds[0].revents & POLLIN) return;
    // Drain the burst, then let it settle before looking.
    do {
      while (recv(netlink_, buffer, sizeof buffer, 0) > 0) {
      }
    } while (poll(fds, 2, kSettleMilliseconds) > 0 && !(fds[0].revents & POLLIN));
    if (fds[0].revents & POLLIN) return;
    NetworkPathStatus now = currentStatus();
    if (now != last) {
      last = now;
      handler(now);
    }
  }
}

}  // namespace pactivo::detail
