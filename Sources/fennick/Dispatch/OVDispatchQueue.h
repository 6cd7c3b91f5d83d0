#pragma once
// Queue builders, the hand-over to the interface thread and the assertions
// that mark programming errors.
//
// Every stateful Fennick object owns a serial queue built here, labelled
// "com.orvane.<name>", and touches its mutable state only there.
#include <functional>
#include <string_view>

#include "fennick/Dispatch/QoS.h"
#include "fennick/Dispatch/Queue.h"
#include "fennick/Dispatch/Ref.h"

namespace fennick {

/// A new queue labelled "com.orvane." followed directly by `name` (the name
/// brings its own separators), with the quality-of-service class `qos` (values
/// other than the QOS_CLASS_ constants count as unspecified), concurrent or
/// serial, draining on `target` when one is given and on the global queue of
/// its class otherwise. The caller owns the queue.
Ref<dispatch::Queue> OVBuildDispatchQueue(std::string_view name, qos_class_t qos,
                                          Ref<dispatch::Queue> target, bool concurrent);

/// A new serial utility queue labelled "com.orvane.<name>.internal-queue": the
/// private queue of one object.
Ref<dispatch::Queue> OVBuildInternalDispatchQueue(std::string_view name);

/// Runs `callback` on the main thread: at once, before returning, when called
/// there (so the caller may be re-entered), otherwise later, in submission
/// order, through the main queue. An empty callback is ignored.
void OVInteractWithUI(std::function<void()> callback);

/// Ends the process after showing the "Under construction" notice (message,
/// informative text and one button "Quit") modally through the installed
/// interface backend, or, without one, writing its texts to standard error.
[[noreturn]] void OVAssertUnimplemented();
/// Shows the notice of OVAssertUnimplemented modally and returns once it was
/// answered. The interface layer installs one together with its backend;
/// nullptr (the default) writes the texts to standard error instead.
using UnimplementedAlertPresenter = void (*)(const char* messageText, const char* informativeText,
                                             const char* buttonTitle);
void setUnimplementedAlertPresenter(UnimplementedAlertPresenter presenter);
/// Ends the process without a message: a branch that cannot be reached was.
[[noreturn]] void OVAssertUnreachable();
/// Ends the process without a message: a method that subclasses must override
/// was called.
[[noreturn]] void OVAssertAbstract();

// Queue assertions document which queue a method runs on. Some methods are
// called inline on the caller's thread by design, so the library and normal
// builds compile them to nothing: the exported functions below return without
// effect. Code built with FENNICK_CHECK_QUEUES gets the checked variants under
// the same names instead; they abort with a message naming the expected and
// the actual queue.
#ifndef FENNICK_CHECK_QUEUES
/// The caller runs on `queue` (directly or through its target chain).
void OVAssertOnQueue(const Ref<dispatch::Queue>& queue);
/// The caller runs on the main queue.
void OVAssertOnMainQueue();
/// The caller runs anywhere but the main queue.
void OVAssertOnBackgroundQueue();
#else
inline namespace queue_checks {
void OVAssertOnQueue(const Ref<dispatch::Queue>& queue);
void OVAssertOnMainQueue();
void OVAssertOnBackgroundQueue();
}  // namespace queue_checks
#endif

}  // namespace fennick
