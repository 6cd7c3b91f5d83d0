#include "fennick/Runtime/ObjectModel/Log.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using namespace fennick;

namespace {

TEST(LogTest, CaptureCollectsLinesAndRestoresThePreviousSink) {
  LogCapture outer;
  OVLog("ERROR: {} was nil for binding \"{}\"", "NSObservedObjectKey", "value");
  {
    LogCapture inner;
    Log::write("inner line");
    EXPECT_EQ(inner.lines(), std::vector<std::string>{"inner line"});
  }
  Log::write("outer again");
  EXPECT_EQ(outer.lines(), (std::vector<std::string>{"ERROR: NSObservedObjectKey was nil for binding \"value\"",
                                                     "outer again"}));
  EXPECT_TRUE(outer.contains("binding \"value\""));
  EXPECT_FALSE(outer.contains("inner"));
  outer.clear();
  EXPECT_TRUE(outer.lines().empty());
}

TEST(LogTest, LinesFromManyThreadsAreAllKept) {
  LogCapture capture;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([t] {
      for (int i = 0; i < 100; ++i) OVLog("thread {} line {}", t, i);
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(capture.lines().size(), 400u);
  EXPECT_TRUE(capture.contains("thread 3 line 99"));
}

TEST(LogTest, WithoutASinkLinesGoToStandardError) {
  testing::internal::CaptureStderr();
  Log::write("fennick log test line");
  const std::string output = testing::internal::GetCapturedStderr();
  EXPECT_NE(output.find("] fennick log test line\n"), std::string::npos) << output;
}

}  // namespace
