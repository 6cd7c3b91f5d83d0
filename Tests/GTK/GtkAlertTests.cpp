#include <gtest/gtest.h>
#include <gtk/gtk.h>

#include <atomic>
#include <thread>

#include "AppKitExtensions/InterfaceTestSupport.h"
#include "GTK/DesktopSession.h"
#include "fennick/AppKitExtensions/Application.h"
#include "fennick/AppKitExtensions/OVErrorPresentationController.h"
#include "fennick/Dispatch/Main.h"
#include "fennick/GTK/GdkColor.h"
#include "fennick/GTK/GtkBackend.h"
#include "fennick/GTK/GtkWindowBridge.h"
#include "fennick/Runtime/Values/Number.h"

using namespace fennick;
using namespace fennick::gtktest;
using namespace fennick::testing;
using nlohmann::json;
using namespace std::chrono_literals;

namespace {

// One desktop per process (GTK connects to one display, once). A static
// object, so that the X server and the buses it started end with the process.
DesktopSession& desktop() {
  static DesktopSession session;
  return session;
}

class GtkAlertTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (desktop().failure()) GTEST_SKIP() << "skipped: " << *desktop().failure();
    ASSERT_TRUE(gtk_init_check()) << "GTK cannot open display " << g_getenv("DISPLAY");
    gtk::useGtkBackend();
  }
  void TearDown() override { setInterfaceBackend(nullptr); }

  // Runs GLib's loop on this (the main) thread until `done`, at most 60 s.
  bool iterateUntil(const std::function<bool()>& done) {
    const gint64 deadline = g_get_monotonic_time() + 60 * G_USEC_PER_SEC;
    while (!done()) {
      if (g_get_monotonic_time() > deadline) return false;
      if (!g_main_context_iteration(nullptr, FALSE)) g_usleep(1000);
    }
    return true;
  }

  // Presents `error` modally while a person (`act`, on another thread) reads
  // and clicks; returns what went wrong on the person's side, if anything.
  // A failing person ends the modal run so that the test does not hang.
  std::string presentModallyWhile(const Ref<Error>& error, const std::function<void()>& act) {
    std::string failure;
    std::thread person([&] {
      try {
        act();
      } catch (const std::exception& problem) {
        failure = problem.what();
        Application::sharedApplication()->stopModalWithCode(-1);
      }
    });
    controller->presentError_atWindow_completion(error, nullptr, completion);
    person.join();
    return failure;
  }

  Ref<OVErrorPresentationController> controller = OVErrorPresentationController::init();
  std::vector<std::int64_t> responses;
  OVErrorPresentationController::Completion completion = [this](std::int64_t code) { responses.push_back(code); };
};

std::vector<std::string> field(const json& items, const char* key) {
  std::vector<std::string> values;
  for (const auto& item : items) values.push_back(item.at(key).get<std::string>());
  return values;
}

Ref<Dictionary> presentationInfo() {
  return Dictionary::dictionaryWithStringKeys(
      {{OVErrorAccessibilityIdentifierKey, String::string("disk-full-alert")},
       {OVErrorSuppressionButtonInfoKey,
        Dictionary::dictionaryWithStringKeys({{OVErrorSuppressionButtonInfoShouldShowKey, Number::of(true)},
                                             {OVErrorSuppressionButtonInfoTitleKey, String::string("Don't ask again")}})}});
}

}  // namespace

TEST(GdkColor, GenericAndDeviceRGBPassAsSRGB) {
  const GdkRGBA orange = gtk::toGdkRGBA(Color::ov_colorWithRGBAHex(0xFF800080));
  EXPECT_FLOAT_EQ(orange.red, 1.0f);
  EXPECT_FLOAT_EQ(orange.green, 128 / 255.0f);
  EXPECT_FLOAT_EQ(orange.blue, 0.0f);
  EXPECT_FLOAT_EQ(orange.alpha, 128 / 255.0f);
  const Color device = Color::ov_colorWithDeviceRGBHex(0x336699);
  const GdkRGBA fromDevice = gtk::toGdkRGBA(device);
  const GdkRGBA fromSRGB = gtk::toGdkRGBA(Color::ov_colorWithSRGBHex(0x336699));
  EXPECT_TRUE(gdk_rgba_equal(&fromDevice, &fromSRGB));
  const GdkRGBA clamped = gtk::toGdkRGBA(Color{ColorSpace::sRGB, 2, -1, 0.5, 1});
  EXPECT_FLOAT_EQ(clamped.red, 1.0f);
  EXPECT_FLOAT_EQ(clamped.green, 0.0f);
}

TEST_F(GtkAlertTest, ThreeOptionsReadThroughAccessibilityAndTheSecondClicked) {
  RecoverableError recoverable(presentationInfo());
  json shown;
  ASSERT_EQ(presentModallyWhile(recoverable.error,
                                [&] {
                                  shown = desktop().readWindow("dialog");
                                  desktop().saveScreenshot(outputDirectory() + "/three-options-alert.png");
                                  desktop().click(shown.at("buttons").at(1).at("extents"));
                                }),
            "");

  EXPECT_EQ(shown["window"]["name"], "The disk is full.");
  EXPECT_EQ(shown["window"]["description"], "disk-full-alert");
  EXPECT_EQ(field(shown["buttons"], "name"), (std::vector<std::string>{"Retry", "Skip", "Cancel"}));
  EXPECT_EQ(field(shown["buttons"], "description"),
            (std::vector<std::string>{OVErrorThirdButtonAccessibilityIdentifierKey,
                                      OVErrorSecondButtonAccessibilityIdentifierKey,
                                      OVErrorFirstButtonAccessibilityIdentifierKey}));
  EXPECT_EQ(field(shown["checkboxes"], "name"), std::vector<std::string>{"Don't ask again"});
  const auto labels = field(shown["labels"], "name");
  EXPECT_NE(std::find(labels.begin(), labels.end(), "Free some space and try again."), labels.end());

  EXPECT_EQ(recoverable.options(), std::vector<std::uint64_t>{1});
  EXPECT_EQ(responses, std::vector<std::int64_t>{NSAlertSecondButtonReturn});
}

TEST_F(GtkAlertTest, ASheetOnAParentWindowClosesWith1000WhenNoLongerNeeded) {
  GtkWindow* documents = GTK_WINDOW(gtk_window_new());
  gtk_window_set_title(documents, "Documents");
  gtk_window_set_default_size(documents, 600, 400);
  gtk_window_present(documents);
  const Ref<Window> parent = gtk::windowForGtkWindow(documents);
  EXPECT_EQ(gtk::windowForGtkWindow(documents), parent);

  RecoverableError recoverable(presentationInfo());
  controller->presentError_atWindow_completion(recoverable.error, parent, completion);
  GtkWindow* sheet = nullptr;
  ASSERT_TRUE(iterateUntil([&] { return recoverable.error->isPresentationLaunched(); }));
  std::atomic<bool> read{false};
  json shown;
  std::thread person([&] {
    shown = desktop().readWindow("dialog");
    read = true;
  });
  ASSERT_TRUE(iterateUntil([&] { return read.load(); }));
  person.join();
  EXPECT_EQ(shown["window"]["description"], "disk-full-alert");
  GList* toplevels = gtk_window_list_toplevels();
  for (GList* each = toplevels; each; each = each->next) {
    if (gtk_window_get_transient_for(GTK_WINDOW(each->data)) == documents) sheet = GTK_WINDOW(each->data);
  }
  g_list_free(toplevels);
  ASSERT_NE(sheet, nullptr) << "the alert is transient for its parent";
  EXPECT_TRUE(gtk_window_get_modal(sheet));
  desktop().saveScreenshot(outputDirectory() + "/sheet-alert.png");

  // The attempt ends elsewhere: the sheet closes with 1000 and nothing recovers.
  std::thread([&] { recoverable.error->noNeedForRecovery(); }).join();
  ASSERT_TRUE(iterateUntil([&] { return !responses.empty(); }));
  EXPECT_EQ(responses, std::vector<std::int64_t>{NSAlertFirstButtonReturn});
  EXPECT_TRUE(recoverable.options().empty());
  EXPECT_TRUE(recoverable.error->isPresentationCancelled());
  gtk_window_destroy(documents);
}

TEST_F(GtkAlertTest, AFollowUpErrorAppearsAfterRecovery) {
  RecoverableError recoverable;
  recoverable.followUp = Error::errorWithDomain_code_description_recoverySuggestion_recoveryOptions_userInfo(
      "com.example.test", 2, "Still no space.", std::nullopt, strings({"Give Up"}), nullptr);
  json first, followUp;
  ASSERT_EQ(presentModallyWhile(recoverable.error,
                                [&] {
                                  first = desktop().readWindow("dialog", "The disk is full.");
                                  desktop().click(first.at("buttons").at(0).at("extents"));
                                  followUp = desktop().readWindow("dialog", "Still no space.");
                                  desktop().saveScreenshot(outputDirectory() + "/follow-up-alert.png");
                                  desktop().click(followUp.at("buttons").at(0).at("extents"));
                                }),
            "");
  EXPECT_EQ(field(followUp["buttons"], "name"), std::vector<std::string>{"Give Up"});
  EXPECT_EQ(field(followUp["buttons"], "description"),
            std::vector<std::string>{OVErrorFirstButtonAccessibilityIdentifierKey});
  EXPECT_EQ(recoverable.options(), std::vector<std::uint64_t>{0});
  // Modal runs nest: the follow-up's completion comes first.
  EXPECT_EQ(responses, (std::vector<std::int64_t>{NSAlertFirstButtonReturn, NSAlertFirstButtonReturn}));
}

// A modal alert presented from a block of the main queue runs GLib's loop
// nested inside that block; the main queue's other work goes on before the
// person answers.
TEST_F(GtkAlertTest, TheMainQueueGoesOnWhileAModalAlertFromOneOfItsBlocksIsUp) {
  RecoverableError recoverable;
  MainQueueTraffic traffic;
  bool allRanFirst = false;
  std::vector<std::string> ranWhileUp;
  std::string failure;
  std::thread person([&] {
    try {
      const json shown = desktop().readWindow("dialog", "The disk is full.");
      traffic.send();
      allRanFirst = traffic.waitUntilAllRan(20s);
      ranWhileUp = traffic.ran();
      desktop().click(shown.at("buttons").at(1).at("extents"));
    } catch (const std::exception& problem) {
      failure = problem.what();
      Application::sharedApplication()->stopModalWithCode(-1);
    }
  });
  dispatch::mainQueue()->async([&] { controller->presentError_atWindow_completion(recoverable.error, nullptr, completion); });
  EXPECT_TRUE(iterateUntil([&] { return !responses.empty(); }));
  person.join();
  EXPECT_EQ(failure, "");
  EXPECT_TRUE(allRanFirst) << "ran while the alert was up: " << ::testing::PrintToString(ranWhileUp);
  EXPECT_EQ(responses, std::vector<std::int64_t>{NSAlertSecondButtonReturn});
  EXPECT_EQ(recoverable.options(), std::vector<std::uint64_t>{1});
}

TEST(GtkAlertCommand, APersonAnswersTheToolsAlert) {
  if (desktop().failure()) GTEST_SKIP() << "skipped: " << *desktop().failure();
  CommandResult tool;
  std::thread run([&] {
    tool = runCommand({FENNICK_TOOL_PATH, "alert", "--message", "Replace the file?", "--informative",
                       "A file with this name exists.", "--identifier", "replace-alert", "--suppression",
                       "Apply to all", "Replace", "Keep Both", "Cancel"});
  });
  json shown;
  try {
    shown = desktop().readWindow("dialog", "Replace the file?");
    desktop().click(shown.at("checkboxes").at(0).at("extents"));
    desktop().click(shown.at("buttons").at(2).at("extents"));
  } catch (const std::exception& failure) {
    ADD_FAILURE() << failure.what();
  }
  run.join();
  EXPECT_EQ(shown["window"]["description"], "replace-alert");
  EXPECT_EQ(tool.status, 0) << tool.err;
  EXPECT_EQ(tool.out, "response 1002\noption 2 Cancel\nsuppression on\n");
}
