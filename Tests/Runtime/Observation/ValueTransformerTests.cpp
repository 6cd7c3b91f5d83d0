#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/ObjectModel/Boxing.h"
#include "fennick/Runtime/Values/Null.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Values/String.h"
#include "fennick/Runtime/Observation/ValueTransformer.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using namespace fennick;

namespace {

bool boolOf(const Id& value) { return unbox<bool>(value); }

TEST(ValueTransformerTest, NegateBooleanNegatesBothWays) {
  auto negate = ValueTransformer::valueTransformerForName(NSNegateBooleanTransformerName);
  ASSERT_TRUE(negate);
  EXPECT_TRUE(negate->allowsReverseTransformation());
  EXPECT_FALSE(boolOf(negate->transformedValue(Number::numberWithBool(true))));
  EXPECT_FALSE(boolOf(negate->reverseTransformedValue(Number::of(2))));
  EXPECT_TRUE(boolOf(negate->transformedValue(nullptr)));
  EXPECT_FALSE(boolOf(negate->transformedValue("  yes"_s)));
  EXPECT_TRUE(boolOf(negate->transformedValue("-000"_s)));
  EXPECT_FALSE(negate->transformedValue(Array::array()));
}

TEST(ValueTransformerTest, NilTestsAreOneWay) {
  auto isNil = ValueTransformer::valueTransformerForName(NSIsNilTransformerName);
  auto isNotNil = ValueTransformer::valueTransformerForName(NSIsNotNilTransformerName);
  ASSERT_TRUE(isNil && isNotNil);
  EXPECT_TRUE(boolOf(isNil->transformedValue(nullptr)));
  EXPECT_FALSE(boolOf(isNil->transformedValue("x"_s)));
  EXPECT_FALSE(boolOf(isNotNil->transformedValue(nullptr)));
  EXPECT_TRUE(boolOf(isNotNil->transformedValue(Number::of(0))));
  EXPECT_FALSE(isNil->allowsReverseTransformation());
  EXPECT_THROW(isNil->reverseTransformedValue(Number::of(1)), Exception);
}

TEST(ValueTransformerTest, BaseAndBlockTransformers) {
  auto identity = ValueTransformer::init();
  auto value = "v"_s;
  EXPECT_EQ(identity->transformedValue(value), value);
  EXPECT_EQ(identity->reverseTransformedValue(value), value);

  auto twice = ValueTransformer::valueTransformerWithBlocks(
      [](const Id& v) { return Number::of(unbox<int>(v) * 2); },
      [](const Id& v) { return Number::of(unbox<int>(v) / 2); });
  EXPECT_EQ(unbox<int>(twice->transformedValue(Number::of(4))), 8);
  EXPECT_EQ(unbox<int>(twice->reverseTransformedValue(Number::of(4))), 2);

  auto oneWay = ValueTransformer::valueTransformerWithBlocks([](const Id& v) { return v; });
  EXPECT_FALSE(oneWay->allowsReverseTransformation());
  EXPECT_THROW(oneWay->reverseTransformedValue(value), Exception);
}

TEST(ValueTransformerTest, RegistryAddsReplacesAndRemovesByName) {
  auto first = ValueTransformer::init();
  auto second = ValueTransformer::init();
  ValueTransformer::setValueTransformer_forName(first, "TestTransformer");
  EXPECT_EQ(ValueTransformer::valueTransformerForName("TestTransformer"), first);
  ValueTransformer::setValueTransformer_forName(second, "TestTransformer");
  EXPECT_EQ(ValueTransformer::valueTransformerForName("TestTransformer"), second);
  EXPECT_TRUE(ValueTransformer::valueTransformerNames()->containsObject("TestTransformer"_s));
  ValueTransformer::setValueTransformer_forName(nullptr, "TestTransformer");
  EXPECT_FALSE(ValueTransformer::valueTransformerForName("TestTransformer"));
}

TEST(ValueTransformerTest, RegistryIsSafeAcrossThreads) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([t] {
      const std::string name = "Concurrent" + std::to_string(t % 2);
      for (int i = 0; i < 200; ++i) {
        ValueTransformer::setValueTransformer_forName(i % 3 ? ValueTransformer::init() : nullptr, name);
        (void)ValueTransformer::valueTransformerForName(name);
        (void)ValueTransformer::valueTransformerForName(NSNegateBooleanTransformerName);
      }
    });
  for (auto& thread : threads) thread.join();
  EXPECT_TRUE(ValueTransformer::valueTransformerForName(NSNegateBooleanTransformerName));
}

}  // namespace
