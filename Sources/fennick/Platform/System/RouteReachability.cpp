#include "fennick/Platform/System/RouteReachability.h"

#include "fennick/Platform/System/Internal/NetlinkMessages.h"

#include <algorithm>
#include <chrono>
#include <cerrno>
#include <cstring>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace fennick::platform {

namespace {

using netlink::Route;

// How long a lookup waits for the kernel's answer before giving up on it.
constexpr auto kAnswerTimeout = std::chrono::seconds(2);

// Sockets that lookups reuse: each thread keeps its own, since a change can
// cause several lookups in a row and opening sockets costs more than asking.
// A socket that failed is closed and opened afresh on the next use.
class ThreadSocket {
 public:
  ThreadSocket(int domain, int type, int protocol) : domain_(domain), type_(type), protocol_(protocol) {}
  ~ThreadSocket() { reset(); }
  ThreadSocket(const ThreadSocket&) = delete;
  ThreadSocket& operator=(const ThreadSocket&) = delete;
  int get() {
    if (fd_ >= 0) return fd_;
    fd_ = ::socket(domain_, type_ | SOCK_CLOEXEC, protocol_);
    // No single wait for an answer outlasts the lookup's own deadline.
    const timeval timeout{.tv_sec = std::chrono::seconds(kAnswerTimeout).count(), .tv_usec = 0};
    if (fd_ >= 0) ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    return fd_;
  }
  void reset() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  int domain_, type_, protocol_;
  int fd_ = -1;
};

ThreadSocket& interfaceProbe() {
  thread_local ThreadSocket probe(AF_INET, SOCK_DGRAM, 0);
  return probe;
}

ThreadSocket& routeSocket() {
  thread_local ThreadSocket route(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
  return route;
}

// Whether the interface is up with its carrier; nullopt when it is gone.
std::optional<bool> interfaceIsRunning(int index) {
  const int probe = interfaceProbe().get();
  if (probe < 0) return std::nullopt;
  ifreq request{};
  request.ifr_ifindex = index;
  if (::ioctl(probe, SIOCGIFNAME, &request) != 0 || ::ioctl(probe, SIOCGIFFLAGS, &request) != 0) return std::nullopt;
  const int flags = request.ifr_flags;
  return (flags & IFF_UP) && (flags & (IFF_RUNNING | IFF_LOOPBACK));
}

// One datagram: its length, 0 for one to ignore, or -1 on failure (a timeout
// included). Datagrams that other processes send to this socket's address
// are ignored: only the kernel speaks for the routes.
ssize_t receiveFromKernel(int socket, std::byte* buffer, std::size_t size) {
  sockaddr_nl sender{};
  socklen_t senderLength = sizeof sender;
  const ssize_t received = ::recvfrom(socket, buffer, size, 0, reinterpret_cast<sockaddr*>(&sender), &senderLength);
  if (received < 0) return errno == EINTR ? 0 : -1;
  if (senderLength < sizeof sender || sender.nl_pid != 0) return 0;
  return received;
}

std::uint32_t flagsForRoute(const Route& route) {
  if (route.type == RTN_LOCAL) return kReachable | kIsLocalAddress | kIsDirect;
  if (route.type != RTN_UNICAST || route.outputInterface == 0) return 0;
  const auto running = interfaceIsRunning(route.outputInterface);
  if (!running) return 0;
  std::uint32_t flags = route.hasGateway ? 0 : kIsDirect;
  if (*running && !(route.flags & RTNH_F_LINKDOWN)) return flags | kReachable;
  return flags | kConnectionRequired;
}

// Sends one request and calls `visit` with each answer until the kernel is
// done; false when the socket fails, the kernel answers with an error, or the
// answer is malformed, too long or too slow. The socket is then closed, so
// that what is left of the answer never reaches the next request.
bool exchange(nlmsghdr* request, const netlink::AnswerReader::Visit& visit) {
  thread_local std::uint32_t sequence = 0;
  ThreadSocket& route = routeSocket();
  const int socket = route.get();
  if (socket < 0) return false;
  request->nlmsg_seq = ++sequence;
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  if (::sendto(socket, request, request->nlmsg_len, 0, reinterpret_cast<sockaddr*>(&kernel), sizeof kernel) < 0) {
    route.reset();
    return false;
  }
  netlink::AnswerReader answer(request->nlmsg_seq);
  const auto deadline = std::chrono::steady_clock::now() + kAnswerTimeout;
  alignas(nlmsghdr) std::byte buffer[32768];
  while (answer.state() == netlink::AnswerReader::State::More) {
    const ssize_t received = receiveFromKernel(socket, buffer, sizeof buffer);
    if (received < 0 || std::chrono::steady_clock::now() > deadline) break;
    answer.feed(std::span(buffer, static_cast<std::size_t>(received)), visit);
  }
  if (answer.state() == netlink::AnswerReader::State::Done) return true;
  route.reset();
  return false;
}

struct RouteRequest {
  nlmsghdr header;
  rtmsg message;
  char attributes[64];
};

}  // namespace

std::uint32_t flagsForAddress(const sockaddr* address) {
  RouteRequest request{};
  request.header.nlmsg_len = NLMSG_LENGTH(sizeof(rtmsg));
  request.header.nlmsg_type = RTM_GETROUTE;
  request.header.nlmsg_flags = NLM_F_REQUEST;
  request.message.rtm_family = static_cast<unsigned char>(address->sa_family);
  const void* bytes = nullptr;
  unsigned short size = 0;
  if (address->sa_family == AF_INET) {
    bytes = &reinterpret_cast<const sockaddr_in*>(address)->sin_addr;
    size = 4;
  } else if (address->sa_family == AF_INET6) {
    bytes = &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
    size = 16;
  } else {
    return 0;
  }
  request.message.rtm_dst_len = static_cast<unsigned char>(size * 8);
  auto* attribute = reinterpret_cast<rtattr*>(reinterpret_cast<char*>(&request) + NLMSG_ALIGN(request.header.nlmsg_len));
  attribute->rta_type = RTA_DST;
  attribute->rta_len = static_cast<unsigned short>(RTA_LENGTH(size));
  std::memcpy(RTA_DATA(attribute), bytes, size);
  request.header.nlmsg_len = NLMSG_ALIGN(request.header.nlmsg_len) + RTA_ALIGN(attribute->rta_len);

  std::uint32_t flags = 0;
  exchange(&request.header, [&](const nlmsghdr& header) {
    if (const auto route = netlink::parseRoute(header)) flags = flagsForRoute(*route);
  });
  return flags;
}

std::uint32_t flagsForDefaultRoute() {
  std::uint32_t best = 0;
  for (unsigned char family : {AF_INET, AF_INET6}) {
    RouteRequest request{};
    request.header.nlmsg_len = NLMSG_LENGTH(sizeof(rtmsg));
    request.header.nlmsg_type = RTM_GETROUTE;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.message.rtm_family = family;
    exchange(&request.header, [&](const nlmsghdr& header) {
      const auto route = netlink::parseRoute(header);
      if (!route || route->destinationLength != 0 || route->table != RT_TABLE_MAIN) return;
      const auto flags = flagsForRoute(*route);
      // A reachable route wins over one that needs its link brought up.
      if ((flags & kReachable) || !(best & kReachable)) best = std::max(best, flags);
    });
    if (best & kReachable) break;
  }
  return best;
}

std::shared_ptr<ReachabilityTarget> ReachabilityTarget::withAddress(const sockaddr* address) {
  if (!address || (address->sa_family != AF_INET && address->sa_family != AF_INET6)) return nullptr;
  auto target = std::make_shared<ReachabilityTarget>();
  sockaddr_storage storage{};
  std::memcpy(&storage, address, address->sa_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6));
  target->addresses_.push_back(storage);
  return target;
}

std::shared_ptr<ReachabilityTarget> ReachabilityTarget::withHostName(std::string_view name) {
  const bool usable = !name.empty() && name.size() <= 253 && std::all_of(name.begin(), name.end(), [](unsigned char c) {
                        return c > ' ' && c < 0x7f && c != '/' && c != '\\';
                      });
  if (!usable) return nullptr;
  auto target = std::make_shared<ReachabilityTarget>();
  target->hostName_ = std::string(name);
  return target;
}

bool ReachabilityTarget::resolve() {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* results = nullptr;
  if (::getaddrinfo(hostName_.c_str(), nullptr, &hints, &results) != 0) return false;
  std::vector<sockaddr_storage> addresses;
  for (const addrinfo* item = results; item; item = item->ai_next) {
    sockaddr_storage storage{};
    std::memcpy(&storage, item->ai_addr, std::min<std::size_t>(item->ai_addrlen, sizeof storage));
    addresses.push_back(storage);
  }
  ::freeaddrinfo(results);
  std::lock_guard lock(mutex_);
  addresses_ = std::move(addresses);
  return true;
}

std::uint32_t ReachabilityTarget::flags() const {
  std::vector<sockaddr_storage> addresses;
  {
    std::lock_guard lock(mutex_);
    addresses = addresses_;
  }
  std::uint32_t best = 0;
  for (const auto& storage : addresses) {
    const auto* address = reinterpret_cast<const sockaddr*>(&storage);
    const bool anyIPv4 = address->sa_family == AF_INET &&
                         reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr == htonl(INADDR_ANY);
    const std::uint32_t flags = anyIPv4 && !isHostName() ? flagsForDefaultRoute() : flagsForAddress(address);
    if (flags & kReachable) return flags;
    best |= flags;
  }
  return best;
}

int openRouteChangeSocket() {
  const int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
  if (fd < 0) return -1;
  sockaddr_nl local{};
  local.nl_family = AF_NETLINK;
  local.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_IFADDR | RTMGRP_IPV6_ROUTE;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

bool drainRouteChanges(int socket) {
  bool changed = false;
  alignas(nlmsghdr) std::byte buffer[16384];
  for (;;) {
    const ssize_t received = receiveFromKernel(socket, buffer, sizeof buffer);
    // ENOBUFS: the kernel dropped messages; something changed all the same.
    if (received < 0) return changed || errno == ENOBUFS;
    changed |= netlink::reportsRouteChange(std::span(buffer, static_cast<std::size_t>(received)));
  }
}

}  // namespace fennick::platform
