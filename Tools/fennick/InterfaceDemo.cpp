// The interface part of `fennick demo`: an error with recovery options goes
// through a validator to an alert that a scripted person answers, without a
// display; then colours and geometry.
#include <fennick/Fennick.h>

#include "Demo.h"

namespace fennick::tool {
namespace {

// Tells nothing about one domain's code 2: a validator suppresses it.
class QuietValidator : public Object {
  FENNICK_DECLARE_CLASS(QuietValidator, Object)

 public:
  static Ref<QuietValidator> validator() { return make<QuietValidator>(); }
  Ref<Error> validate(const Ref<Error>& error) { return error->code() == 2 ? nullptr : error; }

 protected:
  QuietValidator() = default;
};

FENNICK_DEFINE_CLASS(QuietValidator) { builder.method("validate:", &QuietValidator::validate); }

void showInterface(std::FILE* out) {
  std::fprintf(out, "\n== Interface: recoverable errors shown as alerts (headless)\n");
  auto backend = HeadlessBackend::create();
  backend->setResponder([out](const Ref<HeadlessPresentation>& shown) {
    const ShownWindow& alert = shown->shown();
    std::fprintf(out, "  alert \"%s\" (%s)\n", alert.messageText.c_str(), alert.informativeText.c_str());
    for (const auto& button : alert.buttons) {
      std::fprintf(out, "    [%s] %s\n", button.title.c_str(), button.accessibilityIdentifier.c_str());
    }
    std::fprintf(out, "  the person presses \"%s\"\n", alert.buttons.at(1).title.c_str());
    shown->pressButton(1);
  });
  setInterfaceBackend(backend);

  auto controller = OVErrorPresentationController::init();
  controller->setArraysOfValidatorInfosByErrorDomain(Dictionary::dictionary());
  auto validator = QuietValidator::validator();
  controller->addValidator_selector_forErrorDomain(validator, Selector::named("validate:"), "com.example.sync");
  auto options = Array::arrayWithObjects({String::string("Retry"), String::string("Work Offline"), String::string("Cancel")});
  auto error = Error::errorWithDomain_code_description_recoverySuggestion_recoveryOptions_userInfo_recoveryAttemptBlock(
      "com.example.sync", 1, "The server did not answer.", "Check the connection and try again.", options, nullptr,
      [out](const Ref<Error>&, std::uint64_t option) -> Ref<Error> {
        std::fprintf(out, "  recovery runs with option %llu\n", static_cast<unsigned long long>(option));
        return nullptr;
      });
  controller->presentError_atWindow_completion(error, nullptr, [out](std::int64_t response) {
    std::fprintf(out, "  completion gets response %lld\n", static_cast<long long>(response));
  });
  auto quiet = Error::errorWithDomain_code_description("com.example.sync", 2, "Nobody needs to see this.");
  controller->presentError_atWindow(quiet, nullptr);
  std::fprintf(out, "  a validator kept code 2 from showing: %zu alert in all\n", backend->presentations().size());
  setInterfaceBackend(nullptr);

  const Color orange = Color::ov_colorWithSRGBHexString_alpha("#FF8000", 1);
  const Color parsed = Color::ov_colorWithSRGBHexString_alpha("FF8000", 0.5);
  std::fprintf(out, "  \"#FF8000\" is no hexadecimal number: red %.2f; \"FF8000\" with alpha 0.5: %.2f %.2f %.2f %.2f\n",
               orange.redComponent, parsed.redComponent, parsed.greenComponent, parsed.blueComponent,
               parsed.alphaComponent);
  const Rect inset = OVNSEdgeInsetsInsetRect(true, Rect{{0, 0}, {200, 100}}, EdgeInsets{10, 20, 30, 40});
  std::fprintf(out, "  200x100 inset by 10/20/30/40 (flipped): origin %.0f,%.0f size %.0fx%.0f; halfway from 0 to 8: %.0f\n",
               inset.origin.x, inset.origin.y, inset.size.width, inset.size.height, CGFloatMix(0, 8, 0.5));
}

FENNICK_DEMO_SECTION(90, showInterface);

}  // namespace
}  // namespace fennick::tool
