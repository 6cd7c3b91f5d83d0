#pragma once
// Reachability of addresses from the kernel's routing table, over rtnetlink.
// This is the Linux stand-in for the platform's network reachability
// service: a target (an address, a host name, or the default route) answers
// the platform's flags, and a change socket reports link, address and route
// changes of the network namespace.
//
// Flags of a target, read afresh at each call:
// - kReachable when a route to it leaves through an interface that is up and
//   has its carrier (or the address is one of this machine's);
// - kConnectionRequired when a route exists but its interface is down or has
//   lost its carrier (the route is configured, the link is not);
// - kIsLocalAddress when the address is one of this machine's own;
// - kIsDirect when the route needs no gateway.
// Linux has no connections on demand or on traffic and no intervention, so
// those flags are never set.
//
// Only the kernel's answers count: datagrams other processes send to a
// socket's address are ignored, an answer is read only as far as its
// lengths hold (see Internal/NetlinkMessages.h), and a lookup gives up
// (flags 0) after two seconds without the end of its answer. Without a
// descriptor for a socket, lookups answer 0 and openRouteChangeSocket -1.
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <vector>

namespace fennick::platform {

inline constexpr std::uint32_t kTransientConnection = 1u << 0;
inline constexpr std::uint32_t kReachable = 1u << 1;
inline constexpr std::uint32_t kConnectionRequired = 1u << 2;
inline constexpr std::uint32_t kConnectionOnTraffic = 1u << 3;
inline constexpr std::uint32_t kInterventionRequired = 1u << 4;
inline constexpr std::uint32_t kConnectionOnDemand = 1u << 5;
inline constexpr std::uint32_t kIsLocalAddress = 1u << 16;
inline constexpr std::uint32_t kIsDirect = 1u << 17;

/// Something whose reachability can be asked: an IPv4 or IPv6 address (the
/// IPv4 address 0.0.0.0 stands for the default route), or a host name whose
/// addresses come from resolve(). Thread-safe.
class ReachabilityTarget {
 public:
  /// Nil for a null address or a family other than IPv4 and IPv6.
  static std::shared_ptr<ReachabilityTarget> withAddress(const sockaddr* address);
  /// Nil for a name that cannot be a host name (empty, too long, spaces ...).
  static std::shared_ptr<ReachabilityTarget> withHostName(std::string_view name);

  bool isHostName() const noexcept { return !hostName_.empty(); }
  const std::string& hostName() const noexcept { return hostName_; }
  /// Resolves the host name (blocking; call it off the caller's thread).
  /// Answers whether the name resolved.
  bool resolve();
  /// The flags now: the best of the target's addresses; 0 while a host name
  /// is unresolved or when the routing table cannot be read.
  std::uint32_t flags() const;

 private:
  std::string hostName_;
  mutable std::mutex mutex_;  // guards addresses_
  std::vector<sockaddr_storage> addresses_;
};

/// Flags for one address from the routing table (0 when there is no route).
std::uint32_t flagsForAddress(const sockaddr* address);
/// Flags of the default route (IPv4, else IPv6): 0 without one.
std::uint32_t flagsForDefaultRoute();

/// A non-blocking rtnetlink socket subscribed to link, address and route
/// changes (IPv4 and IPv6); -1 on failure. The caller owns it.
int openRouteChangeSocket();
/// Reads every pending message; answers whether any reported a change.
bool drainRouteChanges(int socket);

}  // namespace fennick::platform
