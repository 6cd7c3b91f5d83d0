#pragma once
// Watches whether a host, an address or the network in general can be
// reached, and tells subscribers the new status when it changes.
//
// Linux stand-in for the platform's reachability service: the routing table
// over rtnetlink (see fennick/Platform/RouteReachability.h for how the flags
// are derived). A host name is resolved once, asynchronously on the utility
// queue; until it resolves its status is "not reachable". Link, address and
// route changes of the process's network namespace arrive on one netlink
// socket read on the class's serial queue "reachability"; when they change
// the target's flags, every subscriber is called with the new status.
//
// Threading: subscribe and unsubscribe return at once and take effect, in
// order, on the "reachability" queue; callbacks run on the global utility
// queue, concurrently and in no promised order. status(), connectionRequired()
// and reachabilityFlags() may be called from any thread; isNotifierRunning()
// must not be called from the "reachability" queue. The change socket is
// open only while there is at least one subscription.
//
// When the flags cannot be read (no descriptor left for a socket, no answer
// from the kernel), the status is "not reachable" and no connection is
// required. A notifier that cannot be started for the first subscription is
// a programming error, as on the platform: the process stops on the
// assertion "didSchedule".
#include "fennick/Platform/System/RouteReachability.h"
#include "fennick/Runtime/ObjectModel/Object.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace fennick {

namespace dispatch {
class Queue;
class Source;
}  // namespace dispatch
class UUID;

enum OVReachabilityStatus : std::int64_t {
  OVReachabilityStatusNotReachable = 0,
  OVReachabilityStatusReachable = 1,
};

class OVReachability : public Object {
  FENNICK_DECLARE_CLASS(OVReachability, Object)

 public:
  using Target = std::shared_ptr<platform::ReachabilityTarget>;
  using ChangesBlock = std::function<void(std::int64_t status)>;

  /// Aborts the process for a null target.
  static Ref<OVReachability> initWithReachabilityRef(Target target);
  /// Nil for a name that cannot be a host name.
  static Ref<OVReachability> initWithHostName(std::string_view hostName);
  /// Nil for an address that is neither IPv4 nor IPv6.
  static Ref<OVReachability> initWithAddress(const sockaddr* address);
  /// The address 0.0.0.0, which stands for the default route.
  static Ref<OVReachability> initForInternetConnection();

  ~OVReachability() override;

  const Target& reachabilityRef() const noexcept { return target_; }

  /// A new token at once; the callback is stored (and the notifier started
  /// for the first subscription) asynchronously. No status is delivered now.
  Ref<UUID> subscribeForChangesWithBlock(ChangesBlock block);
  /// Removes the subscription asynchronously; the last one stops the notifier.
  void unsubscribeForChangesWithToken(const Ref<UUID>& token);

  /// 0 or 1 from freshly read flags.
  std::int64_t status() const { return statusForFlags(reachabilityFlags()); }
  bool connectionRequired() const { return reachabilityFlags() & platform::kConnectionRequired; }
  std::uint32_t reachabilityFlags() const { return target_->flags(); }
  static std::int64_t statusForFlags(std::uint32_t flags);

  /// Calls every subscriber with the current status; runs on the queue.
  void notifySubscribers();
  /// Whether the change socket is open (for diagnostics and tests).
  bool isNotifierRunning() const;
  /// How many times the notifier was started, over the object's life.
  int notifierStarts() const;

 protected:
  explicit OVReachability(Target target) : target_(std::move(target)) {}

 private:
  static const Ref<dispatch::Queue>& queue();
  void startNotifier();
  void stopNotifier();
  /// Notifies when the flags differ from the last ones seen.
  void flagsMayHaveChanged();
  void notifySubscribersOfStatus(std::int64_t status);

  const Target target_;
  // Touched only on queue():
  std::vector<std::pair<Ref<UUID>, ChangesBlock>> changesBlockByToken_;
  Ref<dispatch::Source> source_;
  std::uint32_t lastFlags_ = 0;
  int notifierStarts_ = 0;
};

}  // namespace fennick
