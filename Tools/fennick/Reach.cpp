// `fennick reach [HOST|ADDRESS]`: whether a host, an address or the network
// in general can be reached now, then one line per change until interrupted.
#include "Command.h"

#include <fennick/Fennick.h>

#include <arpa/inet.h>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <string>

namespace fennick::tool {

namespace {

std::string describe(std::uint32_t flags) {
  std::string text = OVReachability::statusForFlags(flags) ? "reachable" : "not reachable";
  std::string details;
  if (flags & platform::kConnectionRequired) details += ", connection required";
  if (flags & platform::kIsLocalAddress) details += ", local address";
  if (flags & platform::kIsDirect) details += ", direct";
  return details.empty() ? text : text + " (" + details.substr(2) + ")";
}

Ref<OVReachability> reachabilityFor(const std::string& target) {
  if (target.empty()) return OVReachability::initForInternetConnection();
  sockaddr_in v4{};
  if (inet_pton(AF_INET, target.c_str(), &v4.sin_addr) == 1) {
    v4.sin_family = AF_INET;
    return OVReachability::initWithAddress(reinterpret_cast<const sockaddr*>(&v4));
  }
  sockaddr_in6 v6{};
  if (inet_pton(AF_INET6, target.c_str(), &v6.sin6_addr) == 1) {
    v6.sin6_family = AF_INET6;
    return OVReachability::initWithAddress(reinterpret_cast<const sockaddr*>(&v6));
  }
  return OVReachability::initWithHostName(target);
}

int runReach(const Arguments& arguments) {
  const std::string target = arguments.positional().empty() ? std::string() : arguments.positional()[0];
  const std::string name = target.empty() ? "internet" : target;
  auto reachability = reachabilityFor(target);
  if (!reachability) return fail("reach", "'" + target + "' is not a host name or an address");
  if (reachability->reachabilityRef()->isHostName() && !reachability->reachabilityRef()->resolve())
    std::fprintf(stderr, "fennick reach: %s does not resolve (yet); watching for changes\n", name.c_str());

  // Wait for Ctrl-C (or a termination request) on this thread only.
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);

  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  std::printf("%s: %s\n", name.c_str(), describe(reachability->reachabilityFlags()).c_str());
  auto token = reachability->subscribeForChangesWithBlock([reachability, name](std::int64_t) {
    std::printf("%s: %s\n", name.c_str(), describe(reachability->reachabilityFlags()).c_str());
  });
  int received = 0;
  sigwait(&stop, &received);
  reachability->unsubscribeForChangesWithToken(token);
  return kExitOK;
}

}  // namespace

FENNICK_TOOL_COMMAND({.name = "reach",
                      .summary = "watch whether a host, an address or the internet can be reached",
                      .usage = "usage: fennick reach [HOST|ADDRESS]\n\n"
                               "Prints whether HOST (a name), ADDRESS (IPv4 or IPv6) or, without an\n"
                               "argument, the internet (the default route) can be reached now, then one\n"
                               "line each time that changes, until interrupted with Ctrl-C. Changes are\n"
                               "those of the routing table, links and addresses of this machine.\n",
                      .maxArguments = 1,
                      .run = runReach});

}  // namespace fennick::tool
