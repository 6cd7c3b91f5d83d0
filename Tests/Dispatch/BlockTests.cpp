#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <memory>
#include <string>

#include "fennick/Dispatch/Block.h"
#include "fennick/Dispatch/Queue.h"

using fennick::dispatch::Block;

// The captures the framework submits most: a reference and a copied callback.
static_assert(Block::storesInline<decltype([r = std::shared_ptr<int>(), f = std::function<void()>()] {})>());
static_assert(!Block::storesInline<decltype([a = std::array<char, 128>()] {})>());

TEST(Block, MovesRunAndDestroyCapturesExactlyOnce) {
  auto counter = std::make_shared<int>(0);
  std::weak_ptr<int> watch = counter;
  std::string text = "inline";
  Block small([counter, text]() { *counter += static_cast<int>(text.size()); });
  counter.reset();
  Block moved(std::move(small));
  EXPECT_FALSE(small);
  Block assigned;
  assigned = std::move(moved);
  assigned();
  assigned();
  EXPECT_EQ(*watch.lock(), 12);
  assigned.reset();
  EXPECT_TRUE(watch.expired());

  auto boxedCounter = std::make_shared<int>(0);
  std::array<int, 64> large{};
  large[63] = 5;
  Block boxed([boxedCounter, large] { *boxedCounter += large[63]; });
  Block boxedMoved(std::move(boxed));
  boxedMoved();
  EXPECT_EQ(*boxedCounter, 5);
  boxedMoved = Block();
  EXPECT_EQ(boxedCounter.use_count(), 1);
}

TEST(Block, AcceptsMoveOnlyCallablesAndTreatsNullCallablesAsEmpty) {
  auto owned = std::make_unique<int>(3);
  int seen = 0;
  Block block([owned = std::move(owned), &seen] { seen = *owned; });
  block();
  EXPECT_EQ(seen, 3);
  EXPECT_FALSE(Block(std::function<void()>()));
  EXPECT_FALSE(Block(static_cast<void (*)()>(nullptr)));
  EXPECT_TRUE(Block(std::function<void()>([] {})));
}
