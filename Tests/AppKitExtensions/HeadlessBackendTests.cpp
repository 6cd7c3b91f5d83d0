#include <gtest/gtest.h>

#include <thread>

#include "AppKitExtensions/InterfaceTestSupport.h"
#include "fennick/AppKitExtensions/Alert.h"
#include "fennick/AppKitExtensions/Application.h"
#include "fennick/Dispatch/Main.h"
#include "fennick/Dispatch/OVDispatchQueue.h"

using namespace fennick;
using namespace fennick::testing;
using namespace std::chrono_literals;

namespace {

Ref<Alert> alertWithButtons(std::initializer_list<const char*> titles) {
  auto alert = Alert::init();
  alert->setMessageText("Message");
  for (const char* title : titles) alert->addButtonWithTitle(title);
  return alert;
}

}  // namespace

TEST_F(HeadlessTest, ButtonsAnswerFrom1000AndTheCheckBoxStateComesBack) {
  auto alert = alertWithButtons({"Save", "Cancel", "Don't Save"});
  alert->setShowsSuppressionButton(true);
  EXPECT_EQ(alert->window()->alert(), alert);
  EXPECT_EQ(alert->buttons()[0]->keyEquivalent(), kAlertReturnKeyEquivalent);
  EXPECT_TRUE(alert->buttons()[1]->isCancelButton());
  EXPECT_EQ(alert->buttons()[2]->keyEquivalent(), "");

  backend->setResponder([](const Ref<HeadlessPresentation>& shown) {
    EXPECT_FALSE(shown->pressButton(3));
    shown->toggleSuppressionButton();
    EXPECT_TRUE(shown->dismiss());
    EXPECT_FALSE(shown->pressButton(0)) << "already ended";
  });
  EXPECT_EQ(alert->runModal(), NSAlertSecondButtonReturn);
  EXPECT_EQ(alert->suppressionButton()->state(), NSControlStateValueOn);
  EXPECT_FALSE(backend->presentations()[0]->isOpen());
}

TEST_F(HeadlessTest, StopModalEndsTheInnermostRunAndNothingElse) {
  Application::sharedApplication()->stopModalWithCode(5);  // no run: no effect
  auto alert = alertWithButtons({"OK"});
  std::thread stopper([&] {
    ASSERT_NE(backend->waitForPresentation(0, 20s), nullptr);
    Application::sharedApplication()->stopModalWithCode(-7);
  });
  EXPECT_EQ(alert->runModal(), -7);
  stopper.join();
}

TEST_F(HeadlessTest, SheetsEndOnTheirParentAndCompleteOnTheMainQueue) {
  auto parent = Window::windowWithTitle("Parent");
  auto other = Window::windowWithTitle("Other");
  auto alert = alertWithButtons({"OK", "Cancel"});
  std::vector<std::int64_t> codes;
  alert->beginSheetModalForWindow_completionHandler(parent, [&](std::int64_t code) {
    EXPECT_TRUE(dispatch::isMainThread());
    codes.push_back(code);
  });
  other->endSheet_returnCode(alert->window(), 1);  // not its sheet
  EXPECT_TRUE(backend->presentations().at(0)->isOpen());
  std::thread([&] { parent->endSheet_returnCode(alert->window(), 77); }).join();
  parent->endSheet_returnCode(alert->window(), 78);  // ended already
  EXPECT_TRUE(codes.empty()) << "completion waits for the main queue";
  ASSERT_TRUE(dispatch::runMainQueueUntil([&] { return !codes.empty(); }, 20s));
  dispatch::runMainQueueUntil([] { return false; }, 10ms);
  EXPECT_EQ(codes, std::vector<std::int64_t>{77});
}

TEST(InterfaceBackendDeathTest, UnimplementedShowsItsAlertThroughTheInstalledBackend) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        auto backend = HeadlessBackend::create();
        backend->setResponder([](const Ref<HeadlessPresentation>& shown) {
          const ShownWindow& alert = shown->shown();
          std::fprintf(stderr, "shown: %s / %s / %s\n", alert.messageText.c_str(), alert.informativeText.c_str(),
                       alert.buttons.at(0).title.c_str());
          shown->pressButton(0);
        });
        setInterfaceBackend(backend);
        OVAssertUnimplemented();
      },
      "shown: Under construction / This part of application in not ready for regular use / Quit");
  // Without an installed backend the texts go to standard error.
  EXPECT_DEATH(OVAssertUnimplemented(), "Under construction\nThis part of application in not ready for regular use");
}

// A modal run is a nested loop: started from a block of the main queue, it
// lets the main queue's other work run before the person answers.
TEST_F(HeadlessTest, AModalRunFromAMainQueueBlockLetsTheMainQueueGoOn) {
  MainQueueTraffic traffic;
  bool allRanFirst = false;
  std::vector<std::string> ranWhileUp;
  std::thread person([&] {
    const auto shown = backend->waitForPresentation(0, 20s);
    if (!shown) return;
    traffic.send();
    allRanFirst = traffic.waitUntilAllRan(20s);
    ranWhileUp = traffic.ran();
    shown->pressButton(0);
  });
  std::optional<std::int64_t> response;
  dispatch::mainQueue()->async([&] { response = alertWithButtons({"OK"})->runModal(); });
  EXPECT_TRUE(dispatch::runMainQueueUntil([&] { return response.has_value(); }, 60s));
  person.join();
  EXPECT_TRUE(allRanFirst) << "ran while the alert was up: " << ::testing::PrintToString(ranWhileUp);
  EXPECT_EQ(response, NSAlertFirstButtonReturn);
}
