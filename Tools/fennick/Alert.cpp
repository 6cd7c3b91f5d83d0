// `fennick alert`: presents an error as an alert, so that a person can try
// the presentation by hand, or a script can play the person (--answer).
#include <fennick/Fennick.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "Command.h"

#if FENNICK_TOOL_HAS_GTK
#include <fennick/GTK/GtkBackend.h>
#include <fennick/GTK/GtkWindowBridge.h>
#endif

namespace fennick::tool {
namespace {

constexpr const char* kName = "alert";

std::optional<AlertStyle> styleNamed(const std::string& name) {
  if (name == "warning") return AlertStyle::warning;
  if (name == "informational") return AlertStyle::informational;
  if (name == "critical") return AlertStyle::critical;
  return std::nullopt;
}

struct Outcome {
  std::optional<std::int64_t> response;
  std::optional<std::uint64_t> recoveredOption;
  std::optional<std::int64_t> suppressionState;
};

Ref<Dictionary> presentationInfo(const Arguments& arguments, AlertStyle style, Outcome& outcome) {
  auto info = Dictionary::dictionaryWithStringKeys({{OVErrorAlertStyleKey, Number::of(static_cast<std::uint64_t>(style))}});
  if (auto identifier = arguments.value("identifier")) info->setObject_forKey(String::string(*identifier), OVErrorAccessibilityIdentifierKey);
  if (arguments.has("destructive")) info->setObject_forKey(Number::of(true), OVErrorDestructiveOptionsKey);
  if (auto icon = arguments.value("icon")) {
    const Ref<Image> image = icon->find('/') != std::string::npos ? Image::imageWithContentsOfFile(*icon) : Image::imageNamed(*icon);
    if (image) info->setObject_forKey(image, OVErrorAlertIconKey);
  }
  if (auto title = arguments.value("suppression")) {
    info->setObject_forKey(
        Dictionary::dictionaryWithStringKeys(
            {{OVErrorSuppressionButtonInfoShouldShowKey, Number::of(true)},
             {OVErrorSuppressionButtonInfoTitleKey, String::string(*title)},
             {OVErrorSuppressionButtonInfoCompletionKey,
              BlockObject::blockWithFunction<void(std::int64_t)>([&outcome](std::int64_t state) { outcome.suppressionState = state; })}}),
        OVErrorSuppressionButtonInfoKey);
  }
  return info;
}

// The button that --answer names, or nullopt when it names none of them.
std::optional<std::size_t> answerIndex(const std::string& answer, std::size_t buttons) {
  char* end = nullptr;
  const unsigned long index = std::strtoul(answer.c_str(), &end, 10);
  if (answer.empty() || answer[0] == '-' || *end != '\0' || index >= buttons) return std::nullopt;
  return index;
}

// Installs the backend that shows the alert; nullopt when it is ready, else
// the reason it cannot be.
std::optional<std::string> installBackend(const Arguments& arguments, std::size_t buttons) {
  if (auto answer = arguments.value("answer")) {
    const std::size_t index = *answerIndex(*answer, buttons);
    auto backend = HeadlessBackend::create();
    backend->setResponder([index](const Ref<HeadlessPresentation>& shown) { shown->pressButton(index); });
    setInterfaceBackend(backend);
    return std::nullopt;
  }
#if FENNICK_TOOL_HAS_GTK
  if (!gtk_init_check()) {
    const char* display = std::getenv("DISPLAY");
    return std::string("cannot open the display ") + (display ? display : "(DISPLAY is not set)") +
           "; --answer N answers without one";
  }
  gtk::useGtkBackend();
  return std::nullopt;
#else
  return "this fennick was built without GTK; --answer N answers without a display";
#endif
}

Ref<Window> sheetParent(const Arguments& arguments) {
  if (!arguments.has("sheet")) return nullptr;
#if FENNICK_TOOL_HAS_GTK
  if (!arguments.has("answer")) {
    GtkWindow* window = GTK_WINDOW(gtk_window_new());
    gtk_window_set_title(window, "fennick alert");
    gtk_window_set_default_size(window, 480, 320);
    gtk_window_present(window);
    return gtk::windowForGtkWindow(window);
  }
#endif
  return Window::windowWithTitle("fennick alert");
}

// Serves the main thread until the presentation is over: GLib's loop when
// the GTK backend shows it, the main queue otherwise.
void waitFor(const Outcome& outcome, const Arguments& arguments) {
#if FENNICK_TOOL_HAS_GTK
  if (!arguments.has("answer")) {
    while (!outcome.response) g_main_context_iteration(nullptr, TRUE);
    return;
  }
#endif
  (void)arguments;
  dispatch::runMainQueueUntil([&] { return outcome.response.has_value(); }, std::chrono::hours(24));
}

int runAlert(const Arguments& arguments) {
  const auto style = styleNamed(arguments.value("style").value_or("warning"));
  if (!style) {
    fail(kName, "--style must be warning, informational or critical");
    return kExitUsage;
  }
  auto options = Array::array();
  for (const auto& title : arguments.positional()) options->addObject(String::string(title));
  const std::size_t buttons = std::max<std::size_t>(options->count(), 1);
  if (auto answer = arguments.value("answer"); answer && !answerIndex(*answer, buttons)) {
    fail(kName, "--answer must name one of the buttons, 0 to " + std::to_string(buttons - 1));
    return kExitUsage;
  }
  if (auto problem = installBackend(arguments, buttons)) return fail(kName, *problem);

  Outcome outcome;
  auto error = Error::errorWithDomain_code_description_recoverySuggestion_recoveryOptions_userInfo_recoveryAttemptBlock(
      "com.pellora.fennick.alert", 1, arguments.value("message").value_or("Something went wrong."),
      arguments.value("informative"), options->count() ? options : nullptr, presentationInfo(arguments, *style, outcome),
      [&outcome](const Ref<Error>&, std::uint64_t option) -> Ref<Error> {
        outcome.recoveredOption = option;
        return nullptr;
      });
  auto controller = OVErrorPresentationController::init();
  controller->presentError_atWindow_completion(error, sheetParent(arguments),
                                               [&outcome](std::int64_t response) { outcome.response = response; });
  waitFor(outcome, arguments);

  std::printf("response %lld\n", static_cast<long long>(*outcome.response));
  if (outcome.recoveredOption && *outcome.recoveredOption < options->count()) {
    std::printf("option %llu %s\n", static_cast<unsigned long long>(*outcome.recoveredOption),
                options->objectAtIndex(*outcome.recoveredOption)->description().c_str());
  }
  if (outcome.suppressionState) std::printf("suppression %s\n", *outcome.suppressionState ? "on" : "off");
  return kExitOK;
}

FENNICK_TOOL_COMMAND({.name = kName,
                      .summary = "present an error as an alert and print the answer",
                      .usage = "usage: fennick alert [options] [OPTION...]\n\n"
                               "Presents an error whose recovery options are the OPTIONs (one button\n"
                               "each, in order; \"OK\" when there are none) and prints the answer:\n"
                               "  response 1001          the response code (1000 for the first button)\n"
                               "  option 1 Skip          the option that recovery ran with\n"
                               "  suppression on         the check box's state, with --suppression\n\n"
                               "  --message TEXT       the error's description (\"Something went wrong.\")\n"
                               "  --informative TEXT   the recovery suggestion, shown below it\n"
                               "  --style STYLE        warning (default), informational or critical\n"
                               "  --icon NAME|FILE     a themed icon name, or an image file (a path)\n"
                               "  --suppression TITLE  show the suppression check box with this title\n"
                               "  --destructive        the first option is destructive: Return skips it\n"
                               "  --identifier ID      accessibility identifier of the alert window\n"
                               "  --sheet              show the alert as a sheet on a window\n"
                               "  --answer N           show nothing and answer with button N (0 first),\n"
                               "                       for scripts and machines without a display\n",
                      .options = {{"message", 'm', true},
                                  {"informative", 'i', true},
                                  {"style", 0, true},
                                  {"icon", 0, true},
                                  {"suppression", 0, true},
                                  {"destructive", 0, false},
                                  {"identifier", 0, true},
                                  {"sheet", 0, false},
                                  {"answer", 0, true}},
                      .run = runAlert});

}  // namespace
}  // namespace fennick::tool
