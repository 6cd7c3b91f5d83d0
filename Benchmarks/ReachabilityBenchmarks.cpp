// Reachability against a thread blocked on its own rtnetlink socket: the time
// from an address change to the subscriber's callback. The driver runs this
// comparison in a private user and network namespace of its own, where a veth
// pair can be made and addressed without touching the host's network.
#include "Comparison.h"

#include "fennick/Helpers/System/OVReachability.h"

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace fennick::bench {
namespace {

constexpr const char* kLink = "fnkb0";
constexpr const char* kGateway = "10.77.0.1";
constexpr const char* kOwnAddress = "10.77.0.2";

struct Deliveries {
  std::atomic<std::uint64_t> count{0};
  void signal() {
    count.fetch_add(1, std::memory_order_release);
    count.notify_one();
  }
  void waitBeyond(std::uint64_t seen) {
    while (count.load(std::memory_order_acquire) <= seen) count.wait(seen, std::memory_order_acquire);
  }
};

// Adds and removes one IPv4 address on a link through rtnetlink, waiting for
// the kernel's acknowledgement, so that an iteration costs no process launch.
class AddressToggler {
 public:
  AddressToggler(const char* link, const char* address) : index_(if_nametoindex(link)) {
    inet_pton(AF_INET, address, &address_);
    socket_ = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
  }
  ~AddressToggler() {
    if (socket_ >= 0) ::close(socket_);
  }
  bool valid() const { return socket_ >= 0 && index_ != 0; }
  bool toggle() {
    present_ = !present_;
    return request(present_ ? RTM_NEWADDR : RTM_DELADDR);
  }

 private:
  bool request(std::uint16_t type) {
    struct {
      nlmsghdr header;
      ifaddrmsg message;
      char attributes[64];
    } packet{};
    packet.header.nlmsg_type = type;
    packet.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK | (type == RTM_NEWADDR ? NLM_F_CREATE | NLM_F_EXCL : 0);
    packet.header.nlmsg_seq = ++sequence_;
    packet.message.ifa_family = AF_INET;
    packet.message.ifa_prefixlen = 24;
    packet.message.ifa_index = index_;
    packet.header.nlmsg_len = NLMSG_LENGTH(sizeof(ifaddrmsg));
    for (std::uint16_t kind : {IFA_LOCAL, IFA_ADDRESS}) {
      auto* attribute = reinterpret_cast<rtattr*>(reinterpret_cast<char*>(&packet) + NLMSG_ALIGN(packet.header.nlmsg_len));
      attribute->rta_type = kind;
      attribute->rta_len = RTA_LENGTH(sizeof address_);
      std::memcpy(RTA_DATA(attribute), &address_, sizeof address_);
      packet.header.nlmsg_len = NLMSG_ALIGN(packet.header.nlmsg_len) + RTA_ALIGN(attribute->rta_len);
    }
    if (::send(socket_, &packet, packet.header.nlmsg_len, 0) < 0) return false;
    alignas(nlmsghdr) char reply[512];
    const ssize_t got = ::recv(socket_, reply, sizeof reply, 0);
    const auto* answer = reinterpret_cast<const nlmsghdr*>(reply);
    return got >= static_cast<ssize_t>(NLMSG_LENGTH(sizeof(nlmsgerr))) && answer->nlmsg_type == NLMSG_ERROR &&
           reinterpret_cast<const nlmsgerr*>(NLMSG_DATA(answer))->error == 0;
  }

  unsigned index_;
  in_addr address_{};
  int socket_ = -1;
  std::uint32_t sequence_ = 0;
  bool present_ = false;
};

// A veth pair with its carrier up, made once per process.
bool linkIsReady() {
  static const bool ready = [] {
    if (!std::getenv("FENNICK_BENCH_IN_NETNS")) return false;
    if (std::system("ip link add fnkb0 type veth peer name fnkb1 && ip link set fnkb1 up && ip link set fnkb0 up") != 0)
      return false;
    for (int attempt = 0; attempt < 5000; ++attempt) {
      if (std::system("ip -o link show fnkb0 | grep -q LOWER_UP") == 0) return true;
      std::this_thread::yield();
    }
    return false;
  }();
  return ready;
}

template <class Wait>
void toggleAndWait(benchmark::State& state, Deliveries& deliveries, Wait&& ready) {
  AddressToggler toggler(kLink, kOwnAddress);
  if (!toggler.valid()) return state.SkipWithError("no rtnetlink socket or no test link");
  if (!ready()) return state.SkipWithError("the subscriber did not start");
  for (auto _ : state) {
    const std::uint64_t seen = deliveries.count.load(std::memory_order_acquire);
    if (!toggler.toggle()) return state.SkipWithError("the address could not be changed");
    deliveries.waitBeyond(seen);
  }
  // Leave the link without the address for the next repetition.
  if (state.iterations() % 2) toggler.toggle();
}

void reachabilityEvent(benchmark::State& state) {
  if (!linkIsReady()) return state.SkipWithError("network namespaces are unavailable here (unshare -rn failed)");
  sockaddr_in gateway{};
  gateway.sin_family = AF_INET;
  inet_pton(AF_INET, kGateway, &gateway.sin_addr);
  auto reachability = OVReachability::initWithAddress(reinterpret_cast<const sockaddr*>(&gateway));
  // Shared with the callback, which may still run after the unsubscription.
  auto deliveries = std::make_shared<Deliveries>();
  auto token = reachability->subscribeForChangesWithBlock([deliveries](std::int64_t) { deliveries->signal(); });
  toggleAndWait(state, *deliveries, [&] {
    for (int attempt = 0; attempt < 1'000'000 && !reachability->isNotifierRunning(); ++attempt) std::this_thread::yield();
    return reachability->isNotifierRunning();
  });
  reachability->unsubscribeForChangesWithToken(token);
}

void rawNetlinkEvent(benchmark::State& state) {
  if (!linkIsReady()) return state.SkipWithError("network namespaces are unavailable here (unshare -rn failed)");
  const int listener = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
  sockaddr_nl groups{};
  groups.nl_family = AF_NETLINK;
  groups.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE;
  const timeval wakeUp{0, 100'000};  // to see `stop` when nothing changes
  if (listener < 0 || ::bind(listener, reinterpret_cast<sockaddr*>(&groups), sizeof groups) != 0 ||
      ::setsockopt(listener, SOL_SOCKET, SO_RCVTIMEO, &wakeUp, sizeof wakeUp) != 0)
    return state.SkipWithError("no rtnetlink listener");
  Deliveries deliveries;
  std::atomic<bool> stop{false};
  std::thread reader([&] {
    alignas(nlmsghdr) char buffer[8192];
    while (!stop.load()) {
      ssize_t got = ::recv(listener, buffer, sizeof buffer, 0);
      if (got < 0 && (errno == EAGAIN || errno == EINTR)) continue;
      if (got <= 0) return;
      for (auto* message = reinterpret_cast<nlmsghdr*>(buffer); NLMSG_OK(message, static_cast<unsigned>(got));
           message = NLMSG_NEXT(message, got)) {
        if (message->nlmsg_type == RTM_NEWADDR || message->nlmsg_type == RTM_DELADDR) deliveries.signal();
      }
    }
  });
  toggleAndWait(state, deliveries, [] { return true; });
  stop = true;
  reader.join();
  ::close(listener);
}

}  // namespace

FENNICK_COMPARISON(reachability_event_vs_raw_netlink, reachabilityEvent, rawNetlinkEvent, .goal = 0.3,
                   .networkNamespace = true);

}  // namespace fennick::bench
