#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "AppKitExtensions/InterfaceTestSupport.h"
#include "fennick/AppKitExtensions/OVErrorPresentationController.h"
#include "fennick/Dispatch/Main.h"
#include "fennick/Runtime/ObjectModel/BlockObject.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Values/Number.h"

using namespace fennick;
using namespace fennick::testing;
using namespace std::chrono_literals;

namespace {

// Validators of the tests: one replaces the error's code, one suppresses
// errors whose code is odd, one records what it saw.
class Validator : public Object {
  FENNICK_DECLARE_CLASS(Validator, Object)

 public:
  static Ref<Validator> validator() { return make<Validator>(); }
  Ref<Error> bumpCode(const Ref<Error>& error) {
    seen.push_back(error->code());
    return Error::errorWithDomain_code_userInfo(error->domain(), error->code() + 1, error->userInfo());
  }
  Ref<Error> dropOdd(const Ref<Error>& error) {
    seen.push_back(error->code());
    return error->code() % 2 ? nullptr : error;
  }
  std::vector<std::int64_t> seen;

 protected:
  Validator() = default;
};

FENNICK_DEFINE_CLASS(Validator) {
  builder.method("bumpCode:", &Validator::bumpCode);
  builder.method("dropOdd:", &Validator::dropOdd);
}

struct Responses {
  std::vector<std::int64_t> codes;
  bool allOnMainThread = true;
  OVErrorPresentationController::Completion completion() {
    return [this](std::int64_t code) {
      allOnMainThread = allOnMainThread && dispatch::isMainThread();
      codes.push_back(code);
    };
  }
};

class PresentationTest : public HeadlessTest {
 protected:
  Ref<OVErrorPresentationController> controller = OVErrorPresentationController::init();
  Responses responses;
};

}  // namespace

TEST_F(PresentationTest, TheAlertShowsWhatTheUserInfoAsksForAndRecoversWithTheChosenOption) {
  std::vector<std::int64_t> suppressionStates;
  auto suppression = Dictionary::dictionaryWithStringKeys(
      {{OVErrorSuppressionButtonInfoShouldShowKey, Number::of(true)},
       {OVErrorSuppressionButtonInfoTitleKey, String::string("Don't ask again")},
       {OVErrorSuppressionButtonInfoInitialStateKey, Number::of(1)},
       {OVErrorSuppressionButtonInfoCompletionKey,
        BlockObject::blockWithFunction<void(std::int64_t)>([&](std::int64_t state) { suppressionStates.push_back(state); })}});
  auto icon = Image::imageNamed("drive-harddisk");
  RecoverableError recoverable(Dictionary::dictionaryWithStringKeys(
      {{OVErrorAccessibilityIdentifierKey, String::string("disk-full-alert")},
       {OVErrorAlertStyleKey, Number::of(2)},
       {OVErrorAlertIconKey, icon},
       {OVErrorDestructiveOptionsKey, Number::of(true)},
       {OVErrorSuppressionButtonInfoKey, suppression}}));
  backend->setResponder([](const Ref<HeadlessPresentation>& shown) {
    EXPECT_TRUE(shown->toggleSuppressionButton());
    EXPECT_TRUE(shown->pressButton(1));
  });

  controller->presentError_atWindow_completion(recoverable.error, nullptr, responses.completion());

  ASSERT_EQ(backend->presentations().size(), 1u);
  const ShownWindow& shown = backend->presentations()[0]->shown();
  EXPECT_FALSE(shown.isSheet);
  EXPECT_EQ(shown.messageText, "The disk is full.");
  EXPECT_EQ(shown.informativeText, "Free some space and try again.");
  EXPECT_EQ(shown.windowAccessibilityIdentifier, "disk-full-alert");
  EXPECT_EQ(shown.alertStyle, AlertStyle::critical);
  EXPECT_EQ(shown.icon, icon);
  ASSERT_EQ(shown.buttons.size(), 3u);
  const char* titles[] = {"Retry", "Skip", "Cancel"};
  const char* identifiers[] = {OVErrorThirdButtonAccessibilityIdentifierKey, OVErrorSecondButtonAccessibilityIdentifierKey,
                               OVErrorFirstButtonAccessibilityIdentifierKey};
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(shown.buttons[i].title, titles[i]);
    EXPECT_EQ(shown.buttons[i].accessibilityIdentifier, identifiers[i]);
  }
  EXPECT_EQ(shown.buttons[0].keyEquivalent, "") << "a destructive first option is no default";
  EXPECT_EQ(shown.buttons[2].keyEquivalent, kAlertEscapeKeyEquivalent);
  EXPECT_TRUE(shown.showsSuppressionButton);
  EXPECT_EQ(shown.suppressionButtonTitle, "Don't ask again");
  EXPECT_EQ(shown.suppressionButtonInitialState, 1);
  EXPECT_EQ(backend->activationCount(), 1);

  EXPECT_EQ(recoverable.options(), std::vector<std::uint64_t>{1});
  EXPECT_EQ(responses.codes, std::vector<std::int64_t>{NSAlertSecondButtonReturn});
  EXPECT_EQ(suppressionStates, std::vector<std::int64_t>{0});
  EXPECT_FALSE(recoverable.error->isPresentationLaunched());
}

TEST_F(PresentationTest, ValidatorsRunInOrderAndCanSuppress) {
  auto validator = Validator::validator();
  controller->addValidator_selector_forErrorDomain(validator, Selector::named("bumpCode:"), "com.example.test");
  EXPECT_EQ(controller->arraysOfValidatorInfosByErrorDomain(), nullptr) << "no dictionary, no validators";

  controller->setArraysOfValidatorInfosByErrorDomain(Dictionary::dictionary());
  controller->addValidator_selector_forErrorDomain(validator, Selector::named("bumpCode:"), "com.example.test");
  controller->addValidator_selector_forErrorDomain(validator, Selector::named("dropOdd:"), "com.example.test");
  controller->addValidator_selector_forErrorDomain(validator, Selector::named("dropOdd:"), "other");
  backend->setResponder([](const Ref<HeadlessPresentation>& shown) { shown->pressButton(0); });

  controller->presentError_atWindow_completion(Error::errorWithDomain_code_userInfo("com.example.test", 41),
                                               nullptr, responses.completion());
  ASSERT_EQ(backend->presentations().size(), 1u) << "41 became 42 and passed";
  EXPECT_EQ(backend->presentations()[0]->shown().messageText,
            Error::errorWithDomain_code_userInfo("com.example.test", 42)->localizedDescription());

  controller->presentError_atWindow_completion(Error::errorWithDomain_code_userInfo("com.example.test", 42),
                                               nullptr, responses.completion());
  EXPECT_EQ(backend->presentations().size(), 1u) << "43 was suppressed";
  EXPECT_EQ(validator->seen, (std::vector<std::int64_t>{41, 42, 42, 43}));
  EXPECT_EQ(responses.codes, std::vector<std::int64_t>{NSAlertFirstButtonReturn});

  // A validator that is gone no longer takes part.
  auto transient = Validator::validator();
  controller->addValidator_selector_forErrorDomain(transient, Selector::named("dropOdd:"), "gone");
  transient.reset();
  controller->presentError_atWindow(Error::errorWithDomain_code_userInfo("gone", 1), nullptr);
  EXPECT_EQ(backend->presentations().size(), 2u);
}

TEST_F(PresentationTest, ASheetDismissedThroughNoNeedForRecoveryEndsWith1000WithoutRecovery) {
  RecoverableError recoverable;
  auto window = Window::windowWithTitle("Documents");
  std::thread presenter([&] { controller->presentError_atWindow_completion(recoverable.error, window, responses.completion()); });
  presenter.join();
  ASSERT_TRUE(dispatch::runMainQueueUntil([&] { return recoverable.error->isPresentationLaunched(); }, 20s));
  const auto shown = backend->presentations().at(0);
  EXPECT_TRUE(shown->shown().isSheet);
  EXPECT_EQ(shown->shown().parentWindow, window);

  std::thread([&] { recoverable.error->noNeedForRecovery(); }).join();
  ASSERT_TRUE(dispatch::runMainQueueUntil([&] { return !responses.codes.empty(); }, 20s));
  EXPECT_EQ(responses.codes, std::vector<std::int64_t>{NSAlertFirstButtonReturn});
  EXPECT_TRUE(responses.allOnMainThread);
  EXPECT_TRUE(recoverable.options().empty());
  EXPECT_TRUE(recoverable.error->isPresentationCancelled());
}

TEST_F(PresentationTest, AModalRunDismissedFromAnotherThreadEndsWith1000) {
  RecoverableError recoverable;
  std::thread dismisser([&] {
    ASSERT_NE(backend->waitForPresentation(0, 20s), nullptr);
    recoverable.error->noNeedForRecovery();
  });
  controller->presentError_atWindow_completion(recoverable.error, nullptr, responses.completion());
  dismisser.join();
  EXPECT_EQ(responses.codes, std::vector<std::int64_t>{NSAlertFirstButtonReturn});
  EXPECT_TRUE(recoverable.options().empty());
}

TEST_F(PresentationTest, AFollowUpErrorIsShownOnTheSameWindowWithTheSameCompletion) {
  RecoverableError recoverable;
  recoverable.followUp = Error::errorWithDomain_code_description("com.example.test", 2, "Still full.");
  auto window = Window::windowWithTitle("Documents");
  backend->setResponder([](const Ref<HeadlessPresentation>& shown) { shown->pressButton(shown->shown().buttons.size() - 1); });
  controller->presentError_atWindow_completion(recoverable.error, window, responses.completion());
  ASSERT_TRUE(dispatch::runMainQueueUntil([&] { return responses.codes.size() == 2; }, 20s));
  const auto presentations = backend->presentations();
  ASSERT_EQ(presentations.size(), 2u);
  EXPECT_EQ(presentations[1]->shown().messageText, "Still full.");
  EXPECT_EQ(presentations[1]->shown().parentWindow, window);
  EXPECT_EQ(recoverable.options(), std::vector<std::uint64_t>{2});
  // A sheet's follow-up is answered later, so the first completion comes first.
  EXPECT_EQ(responses.codes, (std::vector<std::int64_t>{NSAlertThirdButtonReturn, NSAlertFirstButtonReturn}));
}

TEST_F(PresentationTest, EntriesOfTheWrongTypeCountAsAbsent) {
  auto bogus = String::string("bogus");
  auto error = Error::errorWithDomain_code_userInfo(
      "d", 1,
      Dictionary::dictionaryWithStringKeys({{NSLocalizedRecoveryOptionsErrorKey, Array::arrayWithObjects({Number::of(1), String::string("B")})},
                                           {OVErrorRecoveryAttemptInfoKey, bogus},
                                           {OVErrorAccessibilityIdentifierKey, Number::of(3)},
                                           {OVErrorSuppressActivationKey, bogus},
                                           {OVErrorDestructiveOptionsKey, bogus},
                                           {OVErrorAlertStyleKey, bogus},
                                           {OVErrorAlertIconKey, bogus},
                                           {OVErrorSuppressionButtonInfoKey, bogus}}));
  backend->setResponder([](const Ref<HeadlessPresentation>& shown) { shown->pressButton(0); });
  controller->presentError_atWindow_completion(error, nullptr, responses.completion());
  const ShownWindow& shown = backend->presentations().at(0)->shown();
  ASSERT_EQ(shown.buttons.size(), 2u);
  EXPECT_EQ(shown.buttons[0].title, "") << "an option that is no text keeps its place";
  EXPECT_EQ(shown.buttons[0].keyEquivalent, kAlertReturnKeyEquivalent);
  EXPECT_EQ(shown.windowAccessibilityIdentifier, "");
  EXPECT_EQ(shown.icon, nullptr);
  EXPECT_EQ(shown.alertStyle, AlertStyle::warning);
  EXPECT_FALSE(shown.showsSuppressionButton);
  EXPECT_EQ(backend->activationCount(), 1);
  EXPECT_EQ(responses.codes, std::vector<std::int64_t>{NSAlertFirstButtonReturn});

  // No user info at all: one "OK" button; no error: nothing.
  auto alert = controller->alertForError(Error::errorWithDomain_code_userInfo("d", 2));
  ASSERT_EQ(alert->buttons().size(), 1u);
  EXPECT_EQ(alert->buttons()[0]->title(), "OK");
  controller->presentError_atWindow(nullptr, nullptr);
  EXPECT_EQ(backend->presentations().size(), 1u);
}

TEST_F(PresentationTest, SuppressedActivationAndAHiddenCheckBox) {
  auto error = Error::errorWithDomain_code_userInfo(
      "d", 1, Dictionary::dictionaryWithStringKeys(
                  {{OVErrorSuppressActivationKey, Number::of(true)},
                   {OVErrorSuppressionButtonInfoKey,
                    Dictionary::dictionaryWithStringKeys({{OVErrorSuppressionButtonInfoShouldShowKey, Number::of(false)},
                                                         {OVErrorSuppressionButtonInfoTitleKey, String::string("x")}})}}));
  backend->setResponder([](const Ref<HeadlessPresentation>& shown) {
    EXPECT_FALSE(shown->toggleSuppressionButton());
    EXPECT_FALSE(shown->dismiss()) << "no Cancel button";
    shown->pressButton(0);
  });
  controller->presentError_atWindow(error, nullptr);
  EXPECT_EQ(backend->activationCount(), 0);
  EXPECT_FALSE(backend->presentations().at(0)->shown().showsSuppressionButton);
}
