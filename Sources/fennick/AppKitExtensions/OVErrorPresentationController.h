#pragma once
// Shows error records to the person as alerts: as a sheet on a window, or
// application-modally. Validators registered per error domain may replace or
// suppress an error first. Entries of the error's user info (keys below)
// shape the alert, the person's choice drives the error's recovery attempt
// (fennick/Runtime/OVErrorRecoveryAttemptInfo.h), and a follow-up error that
// the recovery returns is presented in turn.
//
// Threads: presentError_atWindow_completion may be called from any thread.
// Validators run on the calling thread; the alert is shown on the main thread
// (at once when called there, else through the main queue), and completions
// run there. The alert goes through the installed interface backend.
#include "fennick/AppKitExtensions/Alert.h"
#include "fennick/AppKitExtensions/OVErrorValidatorInfo.h"
#include "fennick/AppKitExtensions/Window.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Errors/OVErrorRecoveryAttemptInfo.h"

#include <cstdint>
#include <functional>
#include <mutex>
#include <string_view>

namespace fennick {

// User-info keys. Each entry is read with a checked cast to the type named;
// an entry of another type counts as absent.
/// String: accessibility identifier of the alert's window.
inline constexpr const char* OVErrorAccessibilityIdentifierKey = "OVErrorAccessibilityIdentifier";
/// Prefix of the buttons' accessibility identifiers: the button at index i of
/// n gets the prefix followed by n - i, so the last button ends in 1.
inline constexpr const char* OVErrorButtonUniversalAccessibilityIdentifierKey =
    "OVErrorAccessibilityIdentifierUniversalButtonKey";
/// The identifiers of the last, last but one and last but two buttons.
inline constexpr const char* OVErrorFirstButtonAccessibilityIdentifierKey =
    "OVErrorAccessibilityIdentifierUniversalButtonKey1";
inline constexpr const char* OVErrorSecondButtonAccessibilityIdentifierKey =
    "OVErrorAccessibilityIdentifierUniversalButtonKey2";
inline constexpr const char* OVErrorThirdButtonAccessibilityIdentifierKey =
    "OVErrorAccessibilityIdentifierUniversalButtonKey3";
/// Number, true: do not bring the application to the front.
inline constexpr const char* OVErrorSuppressActivationKey = "OVErrorSuppressActivation";
/// Number, true: the first option is destructive and loses its default key.
inline constexpr const char* OVErrorDestructiveOptionsKey = "OVErrorDestructiveOptions";
/// Number: the alert style (AlertStyle's values).
inline constexpr const char* OVErrorAlertStyleKey = "OVErrorAlertStyle";
/// Image: the alert's icon.
inline constexpr const char* OVErrorAlertIconKey = "OVErrorAlertIcon";
/// Dictionary describing the suppression check box, with the four keys below.
inline constexpr const char* OVErrorSuppressionButtonInfoKey = "OVErrorSuppressionButtonInfo";
/// Number, true: show the check box.
inline constexpr const char* OVErrorSuppressionButtonInfoShouldShowKey = "OVErrorSuppressionButtonInfoShouldShow";
/// String: the check box's title.
inline constexpr const char* OVErrorSuppressionButtonInfoTitleKey = "OVErrorSuppressionButtonInfoTitle";
/// Number: the check box's initial state.
inline constexpr const char* OVErrorSuppressionButtonInfoInitialStateKey = "OVErrorSuppressionButtonInfoInitialState";
/// BlockObject holding an OVErrorSuppressionCompletion: told the check box's
/// final state when the alert ends.
inline constexpr const char* OVErrorSuppressionButtonInfoCompletionKey = "OVErrorSuppressionButtonInfoCompletion";
using OVErrorSuppressionCompletion = std::function<void(std::int64_t state)>;

class OVErrorPresentationController : public Object {
  FENNICK_DECLARE_CLASS(OVErrorPresentationController, Object)

 public:
  /// Told the response code of each alert shown: 1000 for the first button,
  /// 1000 when the presentation was dismissed through noNeedForRecovery.
  using Completion = std::function<void(std::int64_t response)>;

  static Ref<OVErrorPresentationController> init();

  /// Domain (String) → Array of OVErrorValidatorInfo. The controller never
  /// makes this dictionary: until its owner assigns a mutable dictionary,
  /// addValidator_selector_forErrorDomain does nothing and nothing is validated.
  Ref<Dictionary> arraysOfValidatorInfosByErrorDomain() const;
  void setArraysOfValidatorInfosByErrorDomain(Ref<Dictionary> validators);

  /// presentError_atWindow_completion without a completion.
  void presentError_atWindow(const Ref<Error>& error, const Ref<Window>& window);
  /// Passes `error` through the validators of its domain in the order they
  /// were added (each gets the previous one's result; a nullptr ends it
  /// there: nothing is shown and `completion` is not called), then shows the
  /// alert: as a sheet on `window`, or modally without one. Recovery runs
  /// with the chosen option unless the attempt was dismissed meanwhile; a
  /// follow-up error is presented on the same window with the same
  /// completion, which is then called again. `completion` runs on the main
  /// thread after the recovery. A nullptr error does nothing.
  void presentError_atWindow_completion(const Ref<Error>& error, const Ref<Window>& window, Completion completion);
  /// The alert for `error`: its texts and options, the icon, style and
  /// suppression check box that its user info asks for.
  Ref<Alert> alertForError(const Ref<Error>& error) const;
  /// Adds a validator for `errorDomain` (see OVErrorValidatorInfo); nothing
  /// without a validator dictionary.
  void addValidator_selector_forErrorDomain(const Id& validator, Selector selector, std::string_view errorDomain);

 protected:
  OVErrorPresentationController() = default;

 private:
  Ref<Error> validate(const Ref<Error>& error) const;
  void showError(const Ref<Error>& error, const Ref<Window>& window, Completion completion);
  static void finishPresentation(const std::weak_ptr<OVErrorPresentationController>& controller,
                                 const Ref<Error>& error, const Ref<Alert>& alert, const Ref<Window>& window,
                                 const Completion& completion, std::int64_t response);

  mutable std::mutex mutex_;
  Ref<Dictionary> arraysOfValidatorInfosByErrorDomain_;
};

}  // namespace fennick
