#include "fennick/Helpers/Data/OVClassReflection.h"
#include "fennick/Helpers/Data/OVEnumValueTransformer.h"
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Coding/KeyedArchiver.h"
#include "fennick/Runtime/Coding/KeyedUnarchiver.h"
#include "fennick/Runtime/Values/Number.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace fennick {
namespace {

std::atomic<int> trackReflectionsMade{0};

Ref<OVEnumValueTransformer> modeTransformer() {
  return OVEnumValueTransformer::initWithMapping_defaultValue(
      Dictionary::dictionaryWithObjectsAndKeys({{Number::of(0), "none"_s}, {Number::of(1), "all"_s}}), 0);
}

// A class archived by its reflection; it remembers every title it was given,
// so that tests can tell what the object saw.
class Track : public Object {
  FENNICK_DECLARE_CLASS(Track, Object)
  FENNICK_REFLECTION_CODING()

 public:
  static Ref<OVClassReflection> makeReflection() {
    ++trackReflectionsMade;
    auto reflection = OVClassReflection::makeReflectionOfClass(Superclass::staticClass());
    reflection->addPropertyForSelector_objectClass(Selector::named("title"), String::staticClass());
    reflection->addPropertyForSelector_containerClass_objectClass(Selector::named("tags"), Array::staticClass(),
                                                                  String::staticClass());
    reflection->addPropertyForSelector_objectClasses_defaultValue_valueTransformer(
        Selector::named("repeatMode"), {String::staticClass()}, nullptr, modeTransformer());
    reflection->addPropertyForSelector_objectClasses_defaultValue_valueTransformer(
        Selector::named("rating"), {Number::staticClass()}, Number::of(3), nullptr);
    return reflection;
  }
  Ref<String> title() const { return title_; }
  void setTitle(Ref<String> title) {
    if (title) seenTitles.push_back(title->utf8());
    title_ = std::move(title);
  }
  Ref<Array> tags() const { return tags_; }
  void setTags(Ref<Array> tags) { tags_ = std::move(tags); }
  std::int64_t repeatMode() const { return repeatMode_; }
  void setRepeatMode(std::int64_t mode) { repeatMode_ = mode; }
  Ref<Number> rating() const { return rating_; }
  void setRating(Ref<Number> rating) { rating_ = std::move(rating); }

  std::vector<std::string> seenTitles;

 protected:
  Track() = default;

 private:
  Ref<String> title_;
  Ref<Array> tags_;
  std::int64_t repeatMode_ = 0;
  Ref<Number> rating_;
};
FENNICK_DEFINE_CLASS(Track) {
  builder.property("title", &Track::title, &Track::setTitle);
  builder.property("tags", &Track::tags, &Track::setTags);
  builder.property("repeatMode", &Track::repeatMode, &Track::setRepeatMode);
  builder.property("rating", &Track::rating, &Track::setRating);
  builder.coding();
}

// A subclass adds a property to its superclass's registrations.
class LiveTrack : public Track {
  FENNICK_DECLARE_CLASS(LiveTrack, Track)

 public:
  static Ref<OVClassReflection> makeReflection() {
    auto reflection = OVClassReflection::makeReflectionOfClass(Superclass::staticClass());
    reflection->addPropertyForSelector_objectClass(Selector::named("venue"), String::staticClass());
    return reflection;
  }
  Ref<String> venue() const { return venue_; }
  void setVenue(Ref<String> venue) { venue_ = std::move(venue); }

 protected:
  LiveTrack() = default;

 private:
  Ref<String> venue_;
};
FENNICK_DEFINE_CLASS(LiveTrack) {
  builder.property("venue", &LiveTrack::venue, &LiveTrack::setVenue);
  builder.coding();
}

// Writes a number where Track's title belongs, under Track's archive name.
class ForgedTrack : public Object {
  FENNICK_DECLARE_CLASS(ForgedTrack, Object)

 public:
  void encodeWithCoder(Coder& coder) const override {
    coder.encodeObject_forKey(Number::of(42), "title");
    coder.encodeObject_forKey("all"_s, "repeatMode");
  }

 protected:
  ForgedTrack() = default;
};
FENNICK_DEFINE_CLASS(ForgedTrack) {
  builder.archiveNames({"Track"});
  builder.coding();
}

std::atomic<int> nilReflectionsMade{0};
class Unreflected : public Object {
  FENNICK_DECLARE_CLASS(Unreflected, Object)

 public:
  static Ref<OVClassReflection> makeReflection() {
    ++nilReflectionsMade;
    return nullptr;
  }

 protected:
  Unreflected() = default;
};
FENNICK_DEFINE_CLASS(Unreflected) {}

Ref<Track> sampleTrack() {
  auto track = make<Track>();
  track->setTitle("Blue in Green"_s);
  track->setTags(Array::arrayWithObjects({"jazz"_s, "1959"_s}));
  track->setRepeatMode(1);
  track->setRating(Number::of(5));
  return track;
}

Id roundTrip(const Id& object, const Class* cls, Ref<Error>* error) {
  Ref<Data> archive = KeyedArchiver::archivedDataWithRootObject_requiringSecureCoding_error(object, true, error);
  if (!archive) return nullptr;
  return KeyedUnarchiver::unarchivedObjectOfClass_fromData_error(cls, archive, error);
}

TEST(OVClassReflection, IsMadeOncePerClassEvenUnderContention) {
  const int before = trackReflectionsMade;
  std::vector<std::thread> threads;
  std::vector<Ref<OVClassReflection>> seen(8);
  for (std::size_t i = 0; i < seen.size(); ++i)
    threads.emplace_back([&, i] { seen[i] = OVClassReflection::reflectionOf<Track>(); });
  for (auto& thread : threads) thread.join();
  for (const auto& reflection : seen) EXPECT_EQ(reflection, seen[0]);
  EXPECT_EQ(OVClassReflection::reflectionOf<Track>(), seen[0]);
  EXPECT_EQ(trackReflectionsMade - before, 1);

  EXPECT_FALSE(OVClassReflection::reflectionOf<Unreflected>());
  EXPECT_FALSE(OVClassReflection::reflectionOf<Unreflected>());
  EXPECT_EQ(nilReflectionsMade, 1);
  // Classes that declare nothing get an empty reflection.
  ASSERT_TRUE(OVClassReflection::reflectionOf<String>());
  EXPECT_EQ(OVClassReflection::reflectionOf<String>()->propertyReflections()->count(), 0u);
  // Registrations accumulate down the class tree.
  EXPECT_EQ(OVClassReflection::reflectionOf<LiveTrack>()->propertyReflections()->count(), 5u);
}

TEST(OVClassReflection, ArchivesSecurelyThroughTheReflection) {
  Ref<Error> error;
  auto copy = Track::dynamicCastObject(roundTrip(sampleTrack(), Track::staticClass(), &error));
  ASSERT_TRUE(copy) << (error ? error->description() : "");
  EXPECT_EQ(copy->title()->utf8(), "Blue in Green");
  EXPECT_TRUE(copy->tags()->isEqual(sampleTrack()->tags()));
  EXPECT_EQ(copy->repeatMode(), 1);
  EXPECT_EQ(copy->rating()->integerValue(), 5);

  auto live = make<LiveTrack>();
  live->setTitle("So What"_s);
  live->setVenue("Newport"_s);
  auto liveCopy = LiveTrack::dynamicCastObject(roundTrip(live, LiveTrack::staticClass(), &error));
  ASSERT_TRUE(liveCopy);
  EXPECT_EQ(liveCopy->venue()->utf8(), "Newport");
  // Absent values take the defaults: nil, the enumeration default, 3.
  EXPECT_FALSE(liveCopy->tags());
  EXPECT_EQ(liveCopy->repeatMode(), 0);
  EXPECT_EQ(liveCopy->rating()->integerValue(), 3);
}

TEST(OVClassReflection, RefusesValuesOfOtherClassesBeforeTheObjectSeesThem) {
  Ref<Error> error;
  Id decoded = roundTrip(make<ForgedTrack>(), Track::staticClass(), &error);
  EXPECT_FALSE(decoded);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), NSCoderReadCorruptError);

  // Decoding into an object by hand: the refused title never reaches it, and
  // the other properties fall back to their defaults.
  KeyedArchiver archiver;
  archiver.encodeObject_forKey(Number::of(42), "title");
  archiver.encodeObject_forKey(Number::of(9), "rating");
  auto unarchiver = KeyedUnarchiver::initForReadingFromData_error(archiver.encodedData(), nullptr);
  ASSERT_TRUE(unarchiver);
  auto track = sampleTrack();
  track->seenTitles.clear();
  OVClassReflection::reflectionOf<Track>()->decodeObject_withDecoder(*track, *unarchiver);
  EXPECT_TRUE(track->seenTitles.empty());
  EXPECT_FALSE(track->title());
  EXPECT_TRUE(unarchiver->error());
}

TEST(OVClassReflection, RegisteringAKeyTwiceKeepsTheDeliberateAsymmetry) {
  auto reflection = OVClassReflection::initPrivate();
  reflection->addPropertyForSelector_objectClass(Selector::named("title"), String::staticClass());
  reflection->addPropertyForSelector_objectClasses_defaultValue_valueTransformer(
      Selector::named("title"), {Number::staticClass()}, "second"_s, nullptr);
  ASSERT_EQ(reflection->propertyReflections()->count(), 1u);
  auto inSet = OVPropertyReflection::castObject(reflection->propertyReflections()->anyObject());
  EXPECT_EQ(inSet->objectClasses(), ClassList{String::staticClass()});
  EXPECT_EQ(reflection->propertyReflectionForKey("title")->defaultValue()->description(), "second");

  // A copy shares the property reflections and grows on its own.
  auto copy = OVClassReflection::castObject(reflection->copy());
  copy->addPropertyForSelector_objectClass(Selector::named("rating"), Number::staticClass());
  EXPECT_EQ(copy->propertyReflectionForKey("title"), reflection->propertyReflectionForKey("title"));
  EXPECT_EQ(reflection->propertyReflections()->count(), 1u);
  EXPECT_EQ(copy->propertyReflections()->count(), 2u);

  // Prototype copying is shallow and skips transformers and defaults.
  auto prototype = sampleTrack(), target = make<Track>();
  OVClassReflection::reflectionOf<Track>()->setupPropertiesOfObject_withPrototype(*target, *prototype);
  EXPECT_EQ(target->tags(), prototype->tags());
  EXPECT_EQ(target->repeatMode(), 1);
  EXPECT_EQ(target->rating(), prototype->rating());
}

TEST(OVEnumValueTransformer, MapsBothWaysWithADefaultForUnknownStrings) {
  auto modes = modeTransformer();
  EXPECT_EQ(modes->transformedValue(Number::of(1))->description(), "all");
  EXPECT_FALSE(modes->transformedValue(Number::of(5)));
  EXPECT_EQ(modes->transformedValue(nullptr)->description(), "none");
  EXPECT_TRUE(modes->reverseTransformedValue("all"_s)->isEqual(Number::of(1)));
  EXPECT_TRUE(modes->reverseTransformedValue("sometimes"_s)->isEqual(Number::of(0)));
  EXPECT_TRUE(modes->reverseTransformedValue(nullptr)->isEqual(Number::of(0)));
  EXPECT_TRUE(modes->inverseMapping()->isEqual(
      Dictionary::dictionaryWithObjectsAndKeys({{"none"_s, Number::of(0)}, {"all"_s, Number::of(1)}})));
  EXPECT_EQ(modes->transformedValueClass(), String::staticClass());
  EXPECT_TRUE(OVEnumValueTransformer::init()->reverseTransformedValue("x"_s)->isEqual(Number::of(0)));

  // Through a reflection: encoding 5 stores nothing under the key.
  auto track = sampleTrack();
  track->setRepeatMode(5);
  Ref<Data> archive = KeyedArchiver::archivedDataWithRootObject_requiringSecureCoding_error(track, true, nullptr);
  auto unarchiver = KeyedUnarchiver::initForReadingFromData_error(archive, nullptr);
  auto root = unarchiver->decodeObjectOfClass_forKey(Track::staticClass(), "root");
  ASSERT_TRUE(root);
  EXPECT_EQ(Track::castObject(root)->repeatMode(), 0);
}

TEST(CoderSelectors, KeysAreSelectorNamesColonsIncluded) {
  KeyedArchiver archiver;
  EXPECT_EQ(archiver.ov_keyFromSelector(Selector::named("localizedName")), "localizedName");
  EXPECT_EQ(archiver.ov_keyFromSelector(Selector::named("setName:")), "setName:");
  archiver.ov_encodeObject_forSelector("Miles"_s, Selector::named("name"));
  archiver.ov_encodeObject_forSelector(Number::of(7), Selector::named("count:"));
  archiver.ov_encodeObject_forSelector(Array::arrayWithObjects({"a"_s, "b"_s}), Selector::named("letters"));
  archiver.ov_encodeConditionalObject_forSelector("unreferenced"_s, Selector::named("weak"));
  Ref<Data> archive = archiver.encodedData();
  auto unarchiver = KeyedUnarchiver::initForReadingFromData_error(archive, nullptr);
  ASSERT_TRUE(unarchiver);
  EXPECT_EQ(unarchiver->ov_decodeStringForSelector(Selector::named("name"))->utf8(), "Miles");
  EXPECT_EQ(unarchiver->ov_decodeNumberForSelector(Selector::named("count:"))->integerValue(), 7);
  EXPECT_EQ(unarchiver->ov_decodeArrayWithObjectClass_forSelector(String::staticClass(), Selector::named("letters"))
                ->count(),
            2u);
  EXPECT_FALSE(unarchiver->ov_decodeObjectOfClass_forSelector(String::staticClass(), Selector::named("weak")));
  // An element class that does not fit fails the decode.
  auto strict = KeyedUnarchiver::initForReadingFromData_error(archive, nullptr);
  EXPECT_FALSE(strict->ov_decodeArrayWithObjectClasses_forSelector({Number::staticClass()},
                                                                   Selector::named("letters")));
  EXPECT_TRUE(strict->error());
}

}  // namespace
}  // namespace fennick
