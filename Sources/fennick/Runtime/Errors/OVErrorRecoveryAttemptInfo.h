#pragma once
// The recovery attempt of an error record: the action to run for the option
// a person chooses, whether a presentation of the error is under way or was
// dismissed without recovery, and a group that callers wait on for the end of
// the attempt.
//
// An error carries its attempt in its user info under
// OVErrorRecoveryAttemptInfoKey; the Error members in the "Recovery attempts"
// section of fennick/Runtime/Error.h build such errors and drive the attempt.
//
// Thread safety: every operation may be called from any thread. The flags are
// atomic and the transitions are serialised, so an attempt ended from several
// threads at once leaves its group once and calls its cancellation block once.
// Key-value observers of "launched" and "cancelled" are told synchronously on
// the thread that made the change, with no lock of the attempt held: they may
// read or drive the attempt, from their own thread or another.
#include "fennick/Dispatch/Group.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/ObjectModel/Object.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>

namespace fennick {

/// The user-info key under which an error keeps its recovery attempt.
inline constexpr const char* OVErrorRecoveryAttemptInfoKey =
    "com.pellora.DesktopClient.error-recovery.Attempt-info";

class OVErrorRecoveryAttemptInfo : public Object {
  FENNICK_DECLARE_CLASS(OVErrorRecoveryAttemptInfo, Object)

 public:
  /// Runs the recovery for the option at `optionIndex` (0 for the first
  /// option) and returns a follow-up error to present, or nullptr.
  using RecoveryAttemptBlock = Error::RecoveryAttemptBlock;
  /// Closes a running presentation; given the attempt that was dismissed.
  using CancellationBlock = std::function<void(const Ref<OVErrorRecoveryAttemptInfo>& attempt)>;
  /// Told at the end of the attempt: true when it ended without a dismissal.
  using CompletionBlock = std::function<void(bool finishedWithoutDismissal)>;

  /// A new attempt; its group is entered once.
  static Ref<OVErrorRecoveryAttemptInfo> init();
  /// A new attempt that recovers with `block` (which may be empty).
  static Ref<OVErrorRecoveryAttemptInfo> recoveryAttemptInfoWithBlock(RecoveryAttemptBlock block);
  /// Leaves the group if the attempt never ended, releasing every waiter.
  ~OVErrorRecoveryAttemptInfo() override;

  /// True while a presentation of the error is running (observable).
  bool isLaunched() const noexcept { return launched_.load(std::memory_order_acquire); }
  void setLaunched(bool launched);
  /// True once the attempt ended without recovery (observable).
  bool isCancelled() const noexcept { return cancelled_->load(std::memory_order_acquire); }
  void setCancelled(bool cancelled);
  /// Entered at creation, left when the attempt ends; nullptr afterwards.
  Ref<dispatch::Group> recoveryFinishAwaitingGroup() const;
  RecoveryAttemptBlock recoveryAttemptBlock() const;
  void setRecoveryAttemptBlock(RecoveryAttemptBlock block);
  CancellationBlock cancellationBlock() const;
  void setCancellationBlock(CancellationBlock block);

  /// A presentation of `error` began: marks this attempt and the attempt of
  /// the error's underlying error launched, and keeps `cancellationBlock` to
  /// close the presentation if the recovery turns out not to be needed.
  void startRecoveryOfError_cancellationBlock(const Ref<Error>& error, CancellationBlock cancellationBlock);
  /// The person chose an option: clears `launched` here and on the underlying
  /// error's attempt, then runs the recovery block; without one the choice
  /// goes on to the underlying error. Returns the follow-up error, or nullptr.
  /// The attempt does not end here: waiters wait for noNeedForRecoveryOfError.
  Ref<Error> finishRecoveryOfError_indexOfRecoveryOption(const Ref<Error>& error, std::uint64_t optionIndex);
  /// Ends the attempt. A running presentation is dismissed first: `launched`
  /// is cleared and `cancelled` set here and on the underlying error's
  /// attempt, and the cancellation block is called. Then the group is left,
  /// once, however often this is called.
  void noNeedForRecoveryOfError(const Ref<Error>& error);
  /// Runs `block` on the main queue once the attempt has ended, with true
  /// when it ended without a dismissal. After the end, it is submitted at once.
  void notifyRecoveryCompletionWithBlock(CompletionBlock block);

 protected:
  OVErrorRecoveryAttemptInfo();

 private:
  class FlagChange;
  static void mirrorOnUnderlyingAttempt(const Ref<Error>& error, bool launched, bool cancelled);

  // Written under mutex_, read without it.
  std::atomic<bool> launched_{false};
  // Shared with pending completion blocks, which read it after the attempt
  // itself may be gone.
  const Ref<std::atomic<bool>> cancelled_ = std::make_shared<std::atomic<bool>>(false);
  // Serialises the transitions. Never held while observers, recovery,
  // cancellation or completion blocks run.
  mutable std::mutex mutex_;
  Ref<dispatch::Group> group_;
  RecoveryAttemptBlock recoveryAttemptBlock_;
  CancellationBlock cancellationBlock_;
};

namespace detail {
/// Adds the observable recovery properties to the Error class record.
void describeErrorRecoveryProperties(ClassBuilder<Error>& builder);
}  // namespace detail

}  // namespace fennick
