#include "fennick/Runtime/OVErrorRecoveryAttemptInfo.h"

#include "fennick/Dispatch/Main.h"
#include "fennick/Runtime/ClassBuilder.h"

#include <utility>

namespace fennick {

FENNICK_DEFINE_CLASS(OVErrorRecoveryAttemptInfo) {
  builder.property("launched", &OVErrorRecoveryAttemptInfo::isLaunched, &OVErrorRecoveryAttemptInfo::setLaunched);
  builder.property("cancelled", &OVErrorRecoveryAttemptInfo::isCancelled, &OVErrorRecoveryAttemptInfo::setCancelled);
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

void OVErrorRecoveryAttemptInfo::setLaunched(bool launched) {
  std::lock_guard lock(mutex_);
  setAndNotify("launched", launched_, launched);
}

void OVErrorRecoveryAttemptInfo::setCancelled(bool cancelled) {
  std::lock_guard lock(mutex_);
  setAndNotify("cancelled", *cancelled_, cancelled);
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
  std::lock_guard lock(mutex_);
  recoveryAttemptBlock_ = std::move(block);
}

OVErrorRecoveryAttemptInfo::CancellationBlock OVErrorRecoveryAttemptInfo::cancellationBlock() const {
  std::lock_guard lock(mutex_);
  return cancellationBlock_;
}

void OVErrorRecoveryAttemptInfo::setCancellationBlock(CancellationBlock block) {
  std::lock_guard lock(mutex_);
  cancellationBlock_ = std::move(block);
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
  std::lock_guard lock(mutex_);
  setLaunched(true);
  mirrorOnUnderlyingAttempt(error, true, false);
  cancellationBlock_ = std::move(cancellationBlock);
}

Ref<Error> OVErrorRecoveryAttemptInfo::finishRecoveryOfError_indexOfRecoveryOption(const Ref<Error>& error,
                                                                                    std::uint64_t optionIndex) {
  RecoveryAttemptBlock block;
  {
    std::lock_guard lock(mutex_);
    setLaunched(false);
    mirrorOnUnderlyingAttempt(error, false, false);
    block = recoveryAttemptBlock_;
  }
  // The recovery runs unlocked: it may present, end or wait for other attempts.
  if (block) return block(error, optionIndex);
  const Ref<Error> underlying = error ? error->underlyingError() : nullptr;
  return underlying ? underlying->recoverWithIndexOfOption(optionIndex) : nullptr;
}

void OVErrorRecoveryAttemptInfo::noNeedForRecoveryOfError(const Ref<Error>& error) {
  CancellationBlock dismiss;
  Ref<dispatch::Group> group;
  {
    std::lock_guard lock(mutex_);
    if (isLaunched()) {
      setLaunched(false);
      setCancelled(true);
      mirrorOnUnderlyingAttempt(error, false, true);
      dismiss = cancellationBlock_;
    }
    group = std::exchange(group_, nullptr);
  }
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
