#pragma once
// The fixed rule table of a proactor action's state machine, and the routines
// its rules run. Every routine runs on the proactor's internal queue, inside
// the machine's performAction_userInfo.
//
//   action                  from      to  effect
//   start                   idle      run start the work
//   restart                 idle      run start the work
//   restart                 completed run reset, then start the work
//   complete                run, cmpl cmpl run the next hook, or finish
//   finish                  cmpl      done deliver the outcome
//   add completion handler  idle      -   add on a later turn (and maybe start)
//   add completion handler  run, cmpl -   append to the handlers
//   add completion handler  done      -   call it at once with a copy
//   add completion hook     any       -   append to the hooks
//   reset                   done      idle reset
#include "fennick/Helpers/Proactor/OVProactorAction.h"
#include "fennick/Runtime/Values/String.h"

namespace fennick {

/// User info key of the add-completion-handler action: the handler.
const Ref<String>& OVProactorCompletionHandlerKey();
/// User info key of the add-completion-hook action: the hook.
const Ref<String>& OVProactorCompletionHookKey();

/// Installs the action's rule table (twelve rules) on its state machine.
void OVProactorAction_setupStateMachine(const Ref<OVProactorAction>& action);
/// Dispatches the group's handler with the action on the invocation queue.
void OVProactorAction_start(const Ref<OVProactorAction>& action);
/// setup(): fresh result, handler and hook lists.
void OVProactorAction_reset(const Ref<OVProactorAction>& action);

}  // namespace fennick
