#include "fennick/Helpers/Coordination/OVBaseRouter.h"
#include "fennick/Runtime/Collections/Set.h"
#include "fennick/Runtime/Values/String.h"

#include <gtest/gtest.h>

#include <vector>

using namespace fennick;

namespace {

std::vector<Id> calledListeners(const Ref<OVBaseRouter>& router) {
  std::vector<Id> called;
  router->listenToBlock([&](const Id& listener) { called.push_back(listener); });
  return called;
}

TEST(OVBaseRouterTest, ListenersAreKeptOncePerObject) {
  auto router = OVBaseRouter::init();
  EXPECT_TRUE(calledListeners(router).empty());
  auto listener = "listener"_s;
  auto twin = "listener"_s;  // equal text, distinct object
  router->addListner(listener);
  router->addListner(listener);
  router->addListner(twin);
  router->addListner(nullptr);
  EXPECT_EQ(router->listners()->count(), 2u);
  router->removeListner(listener);
  EXPECT_EQ(calledListeners(router), std::vector<Id>{twin});
  router->removeListner(listener);  // absent: nothing happens
  router->removeListner(twin);
  EXPECT_TRUE(calledListeners(router).empty());
}

TEST(OVBaseRouterTest, CallbacksMayChangeTheListenersDuringTheWalk) {
  auto router = OVBaseRouter::init();
  std::vector<Id> listeners = {"a"_s, "b"_s, "c"_s};
  for (const Id& listener : listeners) router->addListner(listener);
  std::vector<Id> called;
  auto late = "late"_s;
  router->listenToBlock([&](const Id& listener) {
    called.push_back(listener);
    router->removeListner(listener);
    router->addListner(late);
  });
  EXPECT_EQ(called.size(), 3u);
  EXPECT_EQ(calledListeners(router), std::vector<Id>{late});
}

struct Validator : OVBaseRouterValidator {};

TEST(OVBaseRouterTest, HoldsNeitherListenersNorValidatorStrongly) {
  auto router = OVBaseRouter::init();
  auto listener = "transient"_s;
  WeakRef<String> watch = listener;
  router->addListner(listener);
  listener.reset();
  EXPECT_TRUE(watch.expired());
  // A listener destroyed while registered is skipped; its entry stays.
  EXPECT_TRUE(calledListeners(router).empty());
  EXPECT_EQ(router->listners()->count(), 1u);

  auto validator = std::make_shared<Validator>();
  router->setBaseValidator(validator);
  EXPECT_EQ(router->baseValidator(), validator);
  validator.reset();
  EXPECT_FALSE(router->baseValidator());
}

}  // namespace
