#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "Support/CallOutProbe.h"
#include "Runtime/TestObjects.h"
#include "fennick/Dispatch/Main.h"
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Errors/OVErrorRecoveryAttemptInfo.h"
#include "fennick/Runtime/Collections/Set.h"

using namespace fennick;
using namespace fennick::testing;
using namespace std::chrono_literals;

namespace {

Ref<Array> strings(std::initializer_list<const char*> texts) {
  auto array = Array::array();
  for (const char* text : texts) array->addObject(String::string(text));
  return array;
}

// A recoverable error whose recovery records the options it was given and
// answers `followUp`.
struct RecordingError {
  std::vector<std::uint64_t> options;
  Ref<Error> followUp;
  Ref<Error> error = Error::errorWithDomain_code_description_recoverySuggestion_recoveryOptions_userInfo_recoveryAttemptBlock(
      "test", 7, "Failed", "Try again", strings({"Retry", "Ignore", "Cancel"}), nullptr,
      [this](const Ref<Error>&, std::uint64_t option) {
        options.push_back(option);
        return followUp;
      });
};

// Completion results, delivered on the main queue.
struct Completions {
  std::vector<bool> results;
  bool allOnMainThread = true;
  std::function<void(bool)> block() {
    return [this](bool finished) {
      allOnMainThread = allOnMainThread && dispatch::isMainThread();
      results.push_back(finished);
    };
  }
  bool waitFor(std::size_t count) {
    return dispatch::runMainQueueUntil([&] { return results.size() >= count; }, 20s);
  }
};

}  // namespace

TEST(ErrorRecovery, BuildsUserInfoFromTextsAndKeepsTheRest) {
  auto extra = Dictionary::dictionaryWithStringKeys({{"extra", Number::of(1)},
                                                    {NSLocalizedRecoverySuggestionErrorKey, String::string("old")}});
  auto error = Error::errorWithDomain_code_description_recoverySuggestion_recoveryOptions_userInfo(
      "d", 3, "Disk full", std::nullopt, strings({"OK"}), extra);
  EXPECT_EQ(error->localizedDescription(), "Disk full");
  EXPECT_EQ(error->userInfo()->objectForKey(NSLocalizedRecoverySuggestionErrorKey), nullptr);
  EXPECT_TRUE(error->localizedRecoveryOptions()->isEqual(strings({"OK"})));
  EXPECT_TRUE(error->userInfo()->objectForKey("extra")->isEqual(Number::of(1)));
  EXPECT_EQ(error->recoveryAttemptInfo(), nullptr);
  EXPECT_EQ(error->recoverWithIndexOfOption(0), nullptr);
  EXPECT_FALSE(error->isPresentationLaunched());
  error->noNeedForRecovery();  // nothing to end

  // A new attempt replaces the old one and keeps everything else.
  RecordingError recording;
  auto again = recording.error->errorWithRecoveryAttemptBlock(nullptr);
  ASSERT_NE(again->recoveryAttemptInfo(), nullptr);
  EXPECT_NE(again->recoveryAttemptInfo(), recording.error->recoveryAttemptInfo());
  EXPECT_EQ(again->localizedRecoverySuggestion(), "Try again");
  EXPECT_EQ(again->recoverWithIndexOfOption(1), nullptr);
  EXPECT_TRUE(recording.options.empty());

  // An entry of another class under the attempt key counts as absent.
  auto bogus = Error::errorWithDomain_code_userInfo(
      "d", 1, Dictionary::dictionaryWithStringKeys({{OVErrorRecoveryAttemptInfoKey, String::string("x")},
                                                   {NSUnderlyingErrorKey, Number::of(2)}}));
  EXPECT_EQ(bogus->recoveryAttemptInfo(), nullptr);
  EXPECT_EQ(bogus->recoverWithIndexOfOption(0), nullptr);
  EXPECT_FALSE(bogus->isPresentationCancelled());
}

TEST(ErrorRecovery, AnAttemptEndedWithoutPresentationCompletesWithTrue) {
  RecordingError recording;
  auto attempt = recording.error->recoveryAttemptInfo();
  ASSERT_NE(attempt->recoveryFinishAwaitingGroup(), nullptr);
  Completions completions;
  recording.error->notifyRecoveryCompletionWithBlock(completions.block());
  recording.error->noNeedForRecovery();
  recording.error->noNeedForRecovery();  // a second end leaves nothing
  EXPECT_EQ(attempt->recoveryFinishAwaitingGroup(), nullptr);
  EXPECT_FALSE(attempt->isCancelled());
  // A block registered after the end still runs, with the same answer.
  recording.error->notifyRecoveryCompletionWithBlock(completions.block());
  ASSERT_TRUE(completions.waitFor(2));
  EXPECT_EQ(completions.results, (std::vector<bool>{true, true}));
  EXPECT_TRUE(completions.allOnMainThread);
}

TEST(ErrorRecovery, ADismissedPresentationCancelsOnceAndCompletesWithFalse) {
  RecordingError recording;
  auto inner = Error::errorWithDomain_code_userInfo("inner", 1)->errorWithRecoveryAttemptBlock(nullptr);
  auto outer = inner->overrideWithErrorWithDomain_code_description_recoverySuggestion_recoveryOptions_userInfo_recoveryAttemptBlock(
      "outer", 2, "Outer", std::nullopt, nullptr, nullptr, nullptr);
  auto attempt = outer->recoveryAttemptInfo();
  int dismissals = 0;
  attempt->startRecoveryOfError_cancellationBlock(outer, [&](const Ref<OVErrorRecoveryAttemptInfo>& dismissed) {
    EXPECT_EQ(dismissed, attempt);
    ++dismissals;
  });
  EXPECT_TRUE(outer->isPresentationLaunched());
  EXPECT_TRUE(inner->isPresentationLaunched()) << "the wrapped error shows the presentation too";
  Completions completions;
  outer->notifyRecoveryCompletionWithBlock(completions.block());
  outer->noNeedForRecovery();
  outer->noNeedForRecovery();
  EXPECT_EQ(dismissals, 1);
  EXPECT_TRUE(outer->isPresentationCancelled());
  EXPECT_TRUE(inner->isPresentationCancelled());
  EXPECT_FALSE(inner->isPresentationLaunched());
  ASSERT_TRUE(completions.waitFor(1));
  EXPECT_EQ(completions.results, std::vector<bool>{false});
}

TEST(ErrorRecovery, FinishingRunsTheRecoveryWithoutEndingTheAttempt) {
  RecordingError recording;
  recording.followUp = Error::errorWithDomain_code_userInfo("next", 1);
  auto attempt = recording.error->recoveryAttemptInfo();
  attempt->startRecoveryOfError_cancellationBlock(recording.error, nullptr);
  EXPECT_EQ(recording.error->recoverWithIndexOfOption(2), recording.followUp);
  EXPECT_EQ(recording.options, std::vector<std::uint64_t>{2});
  EXPECT_FALSE(attempt->isLaunched());
  EXPECT_NE(attempt->recoveryFinishAwaitingGroup(), nullptr);

  // Without a block of its own, an attempt passes the choice to the wrapped error.
  auto wrapper = Error::errorWithDomain_code_userInfo(
      "outer", 1, Dictionary::dictionaryWithStringKeys({{NSUnderlyingErrorKey, recording.error}}))
                     ->errorWithRecoveryAttemptBlock(nullptr);
  EXPECT_EQ(wrapper->recoverWithIndexOfOption(0), recording.followUp);
  EXPECT_EQ(recording.options, (std::vector<std::uint64_t>{2, 0}));
}

TEST(ErrorRecovery, AnOverrideMapsOptionsIgnoresUserInfoAndEndsWithTheWrappedError) {
  RecordingError recording;
  auto plain = recording.error->overrideWithErrorWithDomain_code_description_recoverySuggestion_recoveryOptions_userInfo_recoveryAttemptBlock(
      "outer", 9, "Outer text", "Outer hint", strings({"A", "B"}),
      Dictionary::dictionaryWithStringKeys({{"leak", Number::of(1)}}), nullptr);
  EXPECT_EQ(plain->userInfo()->objectForKey("leak"), nullptr);
  EXPECT_EQ(plain->underlyingError(), recording.error);
  EXPECT_EQ(plain->localizedRecoverySuggestion(), "Outer hint");
  EXPECT_EQ(plain->userInfo()->count(), 5u);  // underlying, three texts, attempt
  plain->recoverWithIndexOfOption(1);

  Ref<Error> mappedFrom;
  auto mapped = recording.error->overrideWithErrorWithDomain_code_description_recoverySuggestion_recoveryOptions_userInfo_recoveryAttemptBlock(
      "outer", 9, "Outer", std::nullopt, strings({"A"}), nullptr, [&](const Ref<Error>& error, std::uint64_t option) {
        mappedFrom = error;
        return option + 2;
      });
  mapped->recoverWithIndexOfOption(0);
  EXPECT_EQ(recording.options, (std::vector<std::uint64_t>{1, 2}));
  EXPECT_EQ(mappedFrom, mapped);

  // The wrappers' waiters are released when the wrapped attempt ends.
  Completions completions;
  plain->notifyRecoveryCompletionWithBlock(completions.block());
  mapped->notifyRecoveryCompletionWithBlock(completions.block());
  recording.error->noNeedForRecovery();
  ASSERT_TRUE(completions.waitFor(2));
  EXPECT_EQ(plain->recoveryAttemptInfo()->recoveryFinishAwaitingGroup(), nullptr);
}

TEST(ErrorRecovery, PresentationStateIsObservableOnTheError) {
  EXPECT_TRUE(Error::keyPathsForValuesAffectingPresentationLaunched()->containsObject(
      String::string("recoveryAttemptInfo.launched")));
  EXPECT_TRUE(Error::keyPathsForValuesAffectingPresentationCancelled()->containsObject(
      String::string("recoveryAttemptInfo.cancelled")));
  RecordingError recording;
  auto recorder = Recorder::recorder();
  recording.error->addObserver_forKeyPath_options_context(recorder, "presentationLaunched",
                                                          NSKeyValueObservingOptionNew, nullptr);
  recording.error->addObserver_forKeyPath_options_context(recorder, "presentationCancelled",
                                                          NSKeyValueObservingOptionNew, nullptr);
  recording.error->recoveryAttemptInfo()->startRecoveryOfError_cancellationBlock(recording.error, nullptr);
  recording.error->noNeedForRecovery();
  std::vector<std::pair<std::string, bool>> seen;
  for (const auto& change : recorder->changes()) {
    seen.emplace_back(change.keyPath, Number::dynamicCastObject(change.change->objectForKey(NSKeyValueChangeNewKey))->boolValue());
  }
  EXPECT_EQ(seen, (std::vector<std::pair<std::string, bool>>{
                      {"presentationLaunched", true}, {"presentationLaunched", false}, {"presentationCancelled", true}}));
  recording.error->removeObserver_forKeyPath(recorder.get(), "presentationLaunched");
  recording.error->removeObserver_forKeyPath(recorder.get(), "presentationCancelled");
}

// Observers of an attempt, and of the attempt of the error it wraps, read both
// attempts on another thread and wait for that: no lock of either attempt may
// be held while they are told.
TEST(ErrorRecovery, ObserversMayReadTheAttemptsFromAnotherThread) {
  auto inner = Error::errorWithDomain_code_userInfo("inner", 1)->errorWithRecoveryAttemptBlock(nullptr);
  auto outer = inner->overrideWithErrorWithDomain_code_description_recoverySuggestion_recoveryOptions_userInfo_recoveryAttemptBlock(
      "outer", 2, "Outer", std::nullopt, nullptr, nullptr, nullptr);
  const auto outerAttempt = outer->recoveryAttemptInfo(), innerAttempt = inner->recoveryAttemptInfo();
  CallOutProbe probe;
  auto readBoth = [&](const Ref<Dictionary>&) {
    probe.readElsewhere([outerAttempt, innerAttempt] {
      for (const auto& attempt : {outerAttempt, innerAttempt}) {
        (void)attempt->recoveryFinishAwaitingGroup();
        (void)attempt->cancellationBlock();
        (void)attempt->recoveryAttemptBlock();
      }
    });
  };
  std::vector<KeyValueObservation> observations;
  for (const auto& attempt : {outerAttempt, innerAttempt}) {
    for (const char* key : {"launched", "cancelled"})
      observations.push_back(attempt->addObserver_forKeyPath_options(key, NSKeyValueObservingOptionNew, readBoth));
  }

  outerAttempt->startRecoveryOfError_cancellationBlock(outer, nullptr);  // launched, on both
  outer->recoverWithIndexOfOption(0);  // not launched, on both, and on the inner one again by its own recovery
  outerAttempt->startRecoveryOfError_cancellationBlock(outer, nullptr);
  outer->noNeedForRecovery();  // not launched and cancelled, on both

  // What a setter replaces (a block and what it captured) is dropped unlocked too.
  auto captured = std::make_shared<CallsWhenDropped>([&] { readBoth(nullptr); });
  outerAttempt->setCancellationBlock([captured](const auto&) {});
  outerAttempt->setRecoveryAttemptBlock([captured](const auto&, std::uint64_t) { return Ref<Error>(); });
  captured.reset();
  outerAttempt->setCancellationBlock(nullptr);
  outerAttempt->setRecoveryAttemptBlock(nullptr);  // the last holder

  probe.joinAll();
  EXPECT_EQ(probe.blocked(), 0) << "user code was called with a lock of the attempt held";
  EXPECT_EQ(probe.calls(), 12);
  EXPECT_TRUE(inner->isPresentationCancelled());
}

TEST(ErrorRecovery, AnAttemptThatGoesAwayReleasesItsWaiters) {
  Completions completions;
  {
    auto error = Error::errorWithDomain_code_userInfo("d", 1)->errorWithRecoveryAttemptBlock(nullptr);
    error->notifyRecoveryCompletionWithBlock(completions.block());
  }
  ASSERT_TRUE(completions.waitFor(1));
  EXPECT_EQ(completions.results, std::vector<bool>{true});
}

TEST(ErrorRecovery, AttemptsDrivenFromEightThreadsEndOnce) {
  constexpr int kAttempts = 200;
  constexpr int kThreads = 8;
  std::atomic<int> dismissals{0};
  std::vector<Ref<Error>> errors;
  for (int i = 0; i < kAttempts; ++i) {
    auto error = Error::errorWithDomain_code_userInfo("d", i)->errorWithRecoveryAttemptBlock(
        [](const Ref<Error>&, std::uint64_t) -> Ref<Error> { return nullptr; });
    error->recoveryAttemptInfo()->startRecoveryOfError_cancellationBlock(
        error, [&](const Ref<OVErrorRecoveryAttemptInfo>&) { ++dismissals; });
    errors.push_back(error);
  }
  std::atomic<int> completions{0};
  std::atomic<int> offMain{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (const auto& error : errors) {
        switch (t % 3) {
          case 0: error->recoverWithIndexOfOption(0); break;
          case 1: error->noNeedForRecovery(); break;
          default:
            error->notifyRecoveryCompletionWithBlock([&](bool) {
              if (!dispatch::isMainThread()) ++offMain;
              ++completions;
            });
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  // Every block registered (two threads register one per error) runs once.
  const int expected = kAttempts * 2;
  EXPECT_TRUE(dispatch::runMainQueueUntil([&] { return completions.load() >= expected; }, 20s));
  dispatch::runMainQueueUntil([] { return false; }, 20ms);
  EXPECT_EQ(completions.load(), expected);
  EXPECT_EQ(offMain.load(), 0);
  // Each attempt that was dismissed (rather than finished first) called its
  // cancellation block exactly once.
  int cancelled = 0;
  for (const auto& error : errors) {
    EXPECT_EQ(error->recoveryAttemptInfo()->recoveryFinishAwaitingGroup(), nullptr);
    cancelled += error->isPresentationCancelled();
  }
  EXPECT_EQ(dismissals.load(), cancelled);
}
