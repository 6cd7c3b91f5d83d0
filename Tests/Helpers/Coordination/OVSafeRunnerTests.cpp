#include "fennick/Helpers/Coordination/OVSafeRunner.h"

#include <gtest/gtest.h>

#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

namespace fennick {
namespace {

TEST(OVSafeRunner, TurnsRuntimeExceptionsIntoFalseAndAHandlerCall) {
  std::vector<std::string> caught;
  auto runner = OVSafeRunner::runnerWithExceptionHandler(
      [&](const Exception& exception) { caught.push_back(exception.name() + ": " + exception.reason()); });
  int runs = 0;
  EXPECT_TRUE(runner->safelyExecute([&] { ++runs; }));
  EXPECT_FALSE(runner->safelyExecute([&] {
    ++runs;
    throw Exception(NSRangeException, "index 3 beyond bounds");
  }));
  EXPECT_EQ(runs, 2);
  EXPECT_EQ(caught, std::vector<std::string>{"NSRangeException: index 3 beyond bounds"});

  // Without a handler the failure shows only in the result.
  EXPECT_FALSE(OVSafeRunner::init()->safelyExecute([] { throw Exception(NSGenericException, "x"); }));
}

TEST(OVSafeRunner, LetsOtherExceptionsThrough) {
  int handled = 0;
  auto runner = OVSafeRunner::initWithExceptionHandler([&](const Exception&) { ++handled; });
  EXPECT_THROW(runner->safelyExecute([] { throw std::runtime_error("not ours"); }), std::runtime_error);
  EXPECT_THROW(runner->safelyExecute([] { throw 42; }), int);
  EXPECT_EQ(handled, 0);
}

TEST(OVSafeRunner, SharedRunnersAreMadeOnceAndAreDistinct) {
  std::vector<const OVSafeRunner*> seen(8);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < seen.size(); ++i)
    threads.emplace_back([&, i] { seen[i] = (i % 2 ? OVSafeRunner::shared() : OVSafeRunner::taskRunner()).get(); });
  for (auto& thread : threads) thread.join();
  for (std::size_t i = 0; i < seen.size(); ++i)
    EXPECT_EQ(seen[i], (i % 2 ? OVSafeRunner::shared() : OVSafeRunner::taskRunner()).get());
  EXPECT_NE(OVSafeRunner::shared(), OVSafeRunner::taskRunner());
  EXPECT_FALSE(OVSafeRunner::shared()->exceptionHandler());
  EXPECT_FALSE(OVSafeRunner::taskRunner()->exceptionHandler());
}

}  // namespace
}  // namespace fennick
