#include "fennick/Runtime/Errors/OVErrorRecoveryAttemptInfo.h"

#include "fennick/Dispatch/Main.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"

#include <optional>
#include <utility>

namespace fennick {
namespace {

constexpr const char* kLaunchedKey = "launched";
constexpr const char* kCancelledKey = "cancelled";

}  // namespace

FENNICK_DEFINE_CLASS(OVErrorRecoveryAttemptInfo) {
  builder.property(kLaunchedKey, &OVErrorRecoveryAttemptInfo::isLaunched, &OVErrorRecoveryAttemptInfo::setLaunched);
  builder.property(kCancelledKey, &OVErrorRecoveryAttemptInfo::isCancelled, &OVErrorRecoveryAttemptInfo::setCancelled);
  builder.property("recoveryFinishAwaitingGroup", [](const OVErrorRecoveryAttemptInfo& attempt) -> Id {
    // The group is no runtime object; key-value coding tells only whether it is there.
    return Number::of(attempt.recoveryFinishAwaitingGroup() != nullptr);
  });
}

OVErrorRecoveryAttemptInfo::OVErrorRecoveryAttemptInfo() : group_(dispatch::Group::create()) { group_->enter(); }

OVErrorRecoveryAttemptInfo::~OVErrorRecoveryAttemptInfo() {
  if (group_) group_->leave();
}

Ref<OVErrorRecoveryAttemptInfo> OVErrorRecoveryAttemptInfo::init() { return make<OVErrorRecoveryAttemptInfo>(); }

Ref<OVErrorRecoveryAttemptInfo> OVErrorRecoveryAttemptInfo::recoveryAttemptInfoWithBlock(RecoveryAttemptBlock block) {
  auto attempt = init();
  attempt->recoveryAttemptBlock_ = std::move(block);
  return attempt;
}

// One observable flag changed by a transition. Observers hear will-change
// before the attempt's lock is taken and did-change after it is released, so
// that they may call back into the attempt, or wait for a thread that does.
class OVErrorRecoveryAttemptInfo::FlagChange {
 public:
  /// `announce`: whether the transition is expected to change the flag.
  FlagChange(OVErrorRecoveryAttemptInfo& attempt, const char* key, bool announce) : attempt_(attempt), key_(key) {
    if (announce) scope_.emplace(attempt, key);
  }
  /// After the lock was released: tells the observers if the flag changed.
  /// An announced change that did not happen (another thread was first) is
  /// dropped; one that was not announced is told without an old value.
  void finish(bool changed) {
    if (!changed) {
      scope_.reset();
    } else if (scope_) {
      scope_->commit();
    } else {
      attempt_.didChangeValueForKey(key_);
    }
  }

 private:
  OVErrorRecoveryAttemptInfo& attempt_;
  const char* const key_;
  std::optional<ValueChangeScope> scope_;
};

void OVErrorRecoveryAttemptInfo::setLaunched(bool launched) {
  FlagChange change(*this, kLaunchedKey, true);
  {
    std::lock_guard lock(mutex_);
    launched_.store(launched, std::memory_order_release);
  }
  change.finish(true);
}

void OVErrorRecoveryAttemptInfo::setCancelled(bool cancelled) {
  FlagChange change(*this, kCancelledKey, true);
  {
    std::lock_guard lock(mutex_);
    cancelled_->store(cancelled, std::memory_order_release);
  }
  change.finish(true);
}

Ref<dispatch::Group> OVErrorRecoveryAttemptInfo::recoveryFinishAwaitingGroup() const {
  std::lock_guard lock(mutex_);
  return group_;
}

OVErrorRecoveryAttemptInfo::RecoveryAttemptBlock OVErrorRecoveryAttemptInfo::recoveryAttemptBlock() const {
  std::lock_guard lock(mutex_);
  return recoveryAttemptBlock_;
}

void OVErrorRecoveryAttemptInfo::setRecoveryAttemptBlock(RecoveryAttemptBlock block) {
  {
    std::lock_guard lock(mutex_);
    recoveryAttemptBlock_.swap(block);
  }
  // The block replaced goes here, unlocked: what it captured may call back.
}

OVErrorRecoveryAttemptInfo::CancellationBlock OVErrorRecoveryAttemptInfo::cancellationBlock() const {
  std::lock_guard lock(mutex_);
  return cancellationBlock_;
}

void OVErrorRecoveryAttemptInfo::setCancellationBlock(CancellationBlock block) {
  {
    std::lock_guard lock(mutex_);
    cancellationBlock_.swap(block);
  }
  // The block replaced goes here, unlocked, as in setRecoveryAttemptBlock.
}

void OVErrorRecoveryAttemptInfo::mirrorOnUnderlyingAttempt(const Ref<Error>& error, bool launched, bool cancelled) {
  const Ref<Error> underlying = error ? error->underlyingError() : nullptr;
  const Ref<OVErrorRecoveryAttemptInfo> attempt = underlying ? underlying->recoveryAttemptInfo() : nullptr;
  if (!attempt) return;
  attempt->setLaunched(launched);
  if (cancelled) attempt->setCancelled(true);
}

void OVErrorRecoveryAttemptInfo::startRecoveryOfError_cancellationBlock(const Ref<Error>& error,
                                                                       CancellationBlock cancellationBlock) {
  FlagChange launched(*this, kLaunchedKey, true);
  {
    // One step: a dismissal from another thread finds the block of the
    // presentation that it sees launched. The block replaced is dropped
    // after the lock, with the argument.
    std::lock_guard lock(mutex_);
    cancellationBlock_.swap(cancellationBlock);
    launched_.store(true, std::memory_order_release);
  }
  launched.finish(true);
  mirrorOnUnderlyingAttempt(error, true, false);
}

Ref<Error> OVErrorRecoveryAttemptInfo::finishRecoveryOfError_indexOfRecoveryOption(const Ref<Error>& error,
                                                                                    std::uint64_t optionIndex) {
  setLaunched(false);
  mirrorOnUnderlyingAttempt(error, false, false);
  // The recovery runs unlocked: it may present, end or wait for other attempts.
  if (const RecoveryAttemptBlock block = recoveryAttemptBlock()) return block(error, optionIndex);
  const Ref<Error> underlying = error ? error->underlyingError() : nullptr;
  return underlying ? underlying->recoverWithIndexOfOption(optionIndex) : nullptr;
}

void OVErrorRecoveryAttemptInfo::noNeedForRecoveryOfError(const Ref<Error>& error) {
  const bool looksLaunched = isLaunched();
  FlagChange launched(*this, kLaunchedKey, looksLaunched), cancelled(*this, kCancelledKey, looksLaunched);
  bool dismissed = false;
  CancellationBlock dismiss;
  Ref<dispatch::Group> group;
  {
    // Whoever finds the presentation launched dismisses it, once.
    std::lock_guard lock(mutex_);
    if (launched_.load(std::memory_order_acquire)) {
      dismissed = true;
      launched_.store(false, std::memory_order_release);
      cancelled_->store(true, std::memory_order_release);
      dismiss = cancellationBlock_;
    }
    group = std::exchange(group_, nullptr);
  }
  launched.finish(dismissed);
  cancelled.finish(dismissed);
  if (dismissed) mirrorOnUnderlyingAttempt(error, false, true);
  if (dismiss) dismiss(std::static_pointer_cast<OVErrorRecoveryAttemptInfo>(self()));
  if (group) group->leave();
}

void OVErrorRecoveryAttemptInfo::notifyRecoveryCompletionWithBlock(CompletionBlock block) {
  if (!block) return;
  // The block reads the flag when it runs, after the group was left; it holds
  // the flag, not the attempt, so that waiting does not keep the attempt alive.
  auto completion = [cancelled = cancelled_, block = std::move(block)] {
    block(!cancelled->load(std::memory_order_acquire));
  };
  if (const Ref<dispatch::Group> group = recoveryFinishAwaitingGroup()) {
    group->notify(dispatch::mainQueue(), std::move(completion));
  } else {
    dispatch::mainQueue()->async(std::move(completion));
  }
}

}  // namespace fennick
