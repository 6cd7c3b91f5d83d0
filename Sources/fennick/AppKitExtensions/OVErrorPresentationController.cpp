#include "fennick/AppKitExtensions/OVErrorPresentationController.h"

#include <string>

#include "fennick/AppKitExtensions/Application.h"
#include "fennick/Dispatch/Main.h"
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/ObjectModel/BlockObject.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Values/Number.h"

namespace fennick {
namespace {

// Checked reads of user-info entries: an entry of another type is absent.
template <class T>
Ref<T> entry(const Ref<Dictionary>& info, const char* key) {
  return info ? T::dynamicCastObject(info->objectForKey(key)) : nullptr;
}

bool isTrue(const Ref<Dictionary>& info, const char* key) {
  const auto number = entry<Number>(info, key);
  return number && number->boolValue();
}

const OVErrorSuppressionCompletion* suppressionCompletion(const Ref<Dictionary>& suppression) {
  const auto block = entry<BlockObject>(suppression, OVErrorSuppressionButtonInfoCompletionKey);
  return block ? block->function<void(std::int64_t)>() : nullptr;
}

}  // namespace

FENNICK_DEFINE_CLASS(OVErrorPresentationController) {
  builder.property("arraysOfValidatorInfosByErrorDomain",
                   &OVErrorPresentationController::arraysOfValidatorInfosByErrorDomain,
                   &OVErrorPresentationController::setArraysOfValidatorInfosByErrorDomain);
}

Ref<OVErrorPresentationController> OVErrorPresentationController::init() {
  return make<OVErrorPresentationController>();
}

Ref<Dictionary> OVErrorPresentationController::arraysOfValidatorInfosByErrorDomain() const {
  std::lock_guard lock(mutex_);
  return arraysOfValidatorInfosByErrorDomain_;
}

void OVErrorPresentationController::setArraysOfValidatorInfosByErrorDomain(Ref<Dictionary> validators) {
  {
    std::lock_guard lock(mutex_);
    arraysOfValidatorInfosByErrorDomain_.swap(validators);
  }
  // The dictionary replaced is the owner's, with objects of the owner's in it:
  // if it ends here, it ends unlocked.
}

void OVErrorPresentationController::addValidator_selector_forErrorDomain(const Id& validator, Selector selector,
                                                                          std::string_view errorDomain) {
  std::lock_guard lock(mutex_);
  if (!arraysOfValidatorInfosByErrorDomain_) return;
  auto info = OVErrorValidatorInfo::validatorInfoWithValidator_selector_errorDomain(validator, selector, errorDomain);
  auto& validators = *arraysOfValidatorInfosByErrorDomain_;
  auto list = Array::dynamicCastObject(validators.objectForKey(errorDomain));
  // A new list each time, so that a presentation reading the old one on
  // another thread never sees it change.
  list = list ? Array::arrayWithArray(list) : Array::array();
  list->addObject(info);
  validators.setObject_forKey(list, errorDomain);
}

Ref<Error> OVErrorPresentationController::validate(const Ref<Error>& error) const {
  Ref<Array> validators;
  {
    std::lock_guard lock(mutex_);
    if (arraysOfValidatorInfosByErrorDomain_)
      validators = Array::dynamicCastObject(arraysOfValidatorInfosByErrorDomain_->objectForKey(error->domain()));
  }
  Ref<Error> validated = error;
  if (!validators) return validated;
  for (const Id& member : *validators) {
    const auto info = OVErrorValidatorInfo::dynamicCastObject(member);
    if (!info) continue;
    validated = info->validateError(validated);
    if (!validated) return nullptr;
  }
  return validated;
}

void OVErrorPresentationController::presentError_atWindow(const Ref<Error>& error, const Ref<Window>& window) {
  presentError_atWindow_completion(error, window, nullptr);
}

void OVErrorPresentationController::presentError_atWindow_completion(const Ref<Error>& error,
                                                                     const Ref<Window>& window,
                                                                     Completion completion) {
  if (!error) return;
  const Ref<Error> validated = validate(error);
  if (!validated) return;
  auto self = std::static_pointer_cast<OVErrorPresentationController>(this->self());
  if (dispatch::isMainThread()) {
    showError(validated, window, std::move(completion));
  } else {
    dispatch::mainQueue()->async([self, validated, window, completion = std::move(completion)]() mutable {
      self->showError(validated, window, std::move(completion));
    });
  }
}

Ref<Alert> OVErrorPresentationController::alertForError(const Ref<Error>& error) const {
  const Ref<Alert> alert = Alert::alertWithError(error);
  const Ref<Dictionary> info = error ? error->userInfo() : nullptr;
  if (const auto icon = entry<Image>(info, OVErrorAlertIconKey)) alert->setIcon(icon);
  if (const auto style = entry<Number>(info, OVErrorAlertStyleKey))
    alert->setAlertStyle(static_cast<AlertStyle>(style->unsignedIntegerValue()));
  const auto suppression = entry<Dictionary>(info, OVErrorSuppressionButtonInfoKey);
  if (isTrue(suppression, OVErrorSuppressionButtonInfoShouldShowKey)) {
    alert->setShowsSuppressionButton(true);
    if (const auto title = entry<String>(suppression, OVErrorSuppressionButtonInfoTitleKey))
      alert->suppressionButton()->setTitle(title->utf8());
    if (const auto state = entry<Number>(suppression, OVErrorSuppressionButtonInfoInitialStateKey))
      alert->suppressionButton()->setState(state->integerValue());
  }
  return alert;
}

void OVErrorPresentationController::showError(const Ref<Error>& error, const Ref<Window>& window,
                                              Completion completion) {
  const Ref<Alert> alert = alertForError(error);
  const Ref<Dictionary>& info = error->userInfo();
  const auto& buttons = alert->buttons();
  if (isTrue(info, OVErrorDestructiveOptionsKey) && !buttons.empty()) buttons.front()->setKeyEquivalent("");
  if (!isTrue(info, OVErrorSuppressActivationKey)) Application::sharedApplication()->activateIgnoringOtherApps(true);
  const auto identifier = entry<String>(info, OVErrorAccessibilityIdentifierKey);
  alert->window()->setAccessibilityIdentifier(identifier ? std::string_view(identifier->utf8()) : std::string_view());
  // Numbered backwards on purpose: the exported first, second and third
  // button keys name the last, last but one and last but two buttons.
  for (std::size_t i = 0; i < buttons.size(); ++i) {
    buttons[i]->setAccessibilityIdentifier(std::string(OVErrorButtonUniversalAccessibilityIdentifierKey) +
                                           std::to_string(buttons.size() - i));
  }

  // How a dismissal through noNeedForRecovery closes this alert. Weak: the
  // block lives in the error, which may outlive the windows.
  OVErrorRecoveryAttemptInfo::CancellationBlock dismiss;
  if (window) {
    dismiss = [parent = std::weak_ptr(window), sheet = std::weak_ptr(alert->window())](const auto&) {
      const auto parentWindow = parent.lock();
      if (parentWindow) parentWindow->endSheet_returnCode(sheet.lock(), NSAlertFirstButtonReturn);
    };
  } else {
    dismiss = [](const auto&) { Application::sharedApplication()->stopModalWithCode(NSAlertFirstButtonReturn); };
  }
  if (const auto attempt = error->recoveryAttemptInfo()) attempt->startRecoveryOfError_cancellationBlock(error, dismiss);

  // The handler holds the controller weakly: only a follow-up needs it.
  const std::weak_ptr<OVErrorPresentationController> controller =
      std::static_pointer_cast<OVErrorPresentationController>(self());
  if (window) {
    alert->beginSheetModalForWindow_completionHandler(
        window, [controller, error, alert, window, completion](std::int64_t response) {
          finishPresentation(controller, error, alert, window, completion, response);
        });
  } else {
    finishPresentation(controller, error, alert, nullptr, completion, alert->runModal());
  }
}

void OVErrorPresentationController::finishPresentation(const std::weak_ptr<OVErrorPresentationController>& controller,
                                                       const Ref<Error>& error, const Ref<Alert>& alert,
                                                       const Ref<Window>& window, const Completion& completion,
                                                       std::int64_t response) {
  const auto suppression = entry<Dictionary>(error->userInfo(), OVErrorSuppressionButtonInfoKey);
  if (alert->showsSuppressionButton() && isTrue(suppression, OVErrorSuppressionButtonInfoShouldShowKey)) {
    if (const auto* callback = suppressionCompletion(suppression)) (*callback)(alert->suppressionButton()->state());
  }
  const auto attempt = error->recoveryAttemptInfo();
  if (!attempt || !attempt->isCancelled()) {
    const auto optionIndex = static_cast<std::uint64_t>(response - NSAlertFirstButtonReturn);
    const Ref<Error> followUp = attempt ? attempt->finishRecoveryOfError_indexOfRecoveryOption(error, optionIndex) : nullptr;
    const auto presenter = controller.lock();
    if (presenter && followUp) presenter->presentError_atWindow_completion(followUp, window, completion);
  }
  if (completion) completion(response);
}

}  // namespace fennick
