#include <gtest/gtest.h>

#include "AppKitExtensions/InterfaceTestSupport.h"
#include "Support/CallOutProbe.h"
#include "fennick/AppKitExtensions/OVErrorPresentationController.h"
#include "fennick/Runtime/ObjectModel/BlockObject.h"
#include "fennick/Runtime/Collections/Dictionary.h"

using namespace fennick;
using namespace fennick::testing;

// Whatever the interface layer replaces or forgets may hold the last
// reference to user state (a backend, a responder, a sheet's handler, a
// toolkit window, the owner's validator dictionary), whose destructor is user
// code. Each such destructor here reads the object it was dropped by on
// another thread and waits for the read: it must not find the object locked.
TEST(InterfaceLayerCallOuts, WhatIsReplacedOrForgottenIsDroppedWithNoLockHeld) {
  CallOutProbe probe;
  auto dropReading = [&](std::function<void()> read) {
    return std::make_shared<CallsWhenDropped>([&probe, read = std::move(read)] { probe.readElsewhere(read); });
  };

  // A backend replaced by the next one.
  auto backend = HeadlessBackend::create();
  backend->setResponder([held = dropReading([] { (void)interfaceBackend(); })](const auto&) {});
  setInterfaceBackend(backend);
  backend.reset();
  setInterfaceBackend(nullptr);

  // A responder replaced, and a sheet's handler forgotten with its presentation.
  backend = HeadlessBackend::create();
  backend->setResponder([held = dropReading([backend] { (void)backend->presentations(); })](const auto&) {});
  backend->setResponder(nullptr);
  auto parent = Window::windowWithTitle("Parent");
  auto sheet = Window::windowWithTitle("Sheet");
  backend->beginSheet(parent, sheet, [held = dropReading([backend] { (void)backend->presentations(); })](auto) {});
  backend->removeAllPresentations();

  // A window's toolkit peer released.
  parent->setPeer(dropReading([parent] { (void)parent->peer(); }));
  parent->setPeer(nullptr);

  // The owner's validator dictionary replaced.
  auto controller = OVErrorPresentationController::init();
  auto held = dropReading([controller] { (void)controller->arraysOfValidatorInfosByErrorDomain(); });
  controller->setArraysOfValidatorInfosByErrorDomain(Dictionary::dictionaryWithStringKeys(
      {{"owner's", BlockObject::blockWithFunction<void()>([held] {})}}));
  held.reset();
  controller->setArraysOfValidatorInfosByErrorDomain(nullptr);

  probe.joinAll();
  EXPECT_EQ(probe.calls(), 5) << "every dropped state was destroyed";
  EXPECT_EQ(probe.blocked(), 0) << "user state was destroyed with a lock held";
}
