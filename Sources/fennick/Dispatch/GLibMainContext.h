#pragma once
// The main queue served by GLib's main loop, so that a GTK program (or a Qt
// program, whose event dispatcher on Linux is GLib's) shares one main thread
// between its toolkit and Fennick.
namespace fennick::dispatch {

/// Attaches a source to GLib's default main context that runs the blocks of
/// the main queue whenever that context is iterated (g_main_loop_run,
/// gtk_application_run, g_main_context_iteration). Call it once at start-up
/// on any thread; later calls do nothing.
///
/// - Blocks submitted from any thread wake the context at once; with nothing
///   queued the source adds no timer and no polling, so an idle loop sleeps.
/// - The source has G_PRIORITY_DEFAULT: queued blocks run before idle
///   callbacks (g_idle_add) and take turns with input and timers of the same
///   priority. Each dispatch runs the work that was waiting when it began, so
///   a block that keeps re-submitting itself cannot starve the toolkit.
/// - The blocks run one at a time and in order. A block that iterates the
///   default context itself (a modal dialog's nested g_main_loop_run) is
///   suspended while the blocks behind it run inside that nested loop, as
///   they do in a nested runMainQueueUntil(); it goes on once the nested loop
///   returns. A queue that targets the main queue stays serial: while one of
///   its blocks is suspended, its later blocks wait. Loops on other contexts
///   (a private GMainContext) do not serve the main queue.
/// - The default context must be iterated on the process's main thread; a
///   block would otherwise run off it, and the process aborts instead.
///
/// dispatch::main() and runMainQueueUntil() keep working beside the source.
void attachMainQueueToGLibMainContext();

/// Whether attachMainQueueToGLibMainContext() has run.
bool isMainQueueAttachedToGLibMainContext() noexcept;

}  // namespace fennick::dispatch
