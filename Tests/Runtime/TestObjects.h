#pragma once
// Small runtime classes shared by the runtime tests.
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/ObjectModel/Object.h"
#include "fennick/Runtime/Values/String.h"

#include <functional>
#include <mutex>
#include <vector>

namespace fennick::testing {

/// A person with observable properties, a key-path link and a dependent key.
class Person : public Object {
  FENNICK_DECLARE_CLASS(Person, Object)

 private:
  template <class F>
  auto locked(F&& f) const {
    std::lock_guard lock(mutex_);
    return f();
  }

 public:
  static Ref<Person> person(std::string first = "", std::string last = "") {
    auto p = make<Person>();
    p->first_ = String::string(first);
    p->last_ = String::string(last);
    return p;
  }

  // Atomic accessors: the stress tests change and read them from many threads.
  Ref<String> firstName() const { return locked([&] { return first_; }); }
  void setFirstName(Ref<String> v) { locked([&] { first_ = std::move(v); }); }
  Ref<String> lastName() const { return locked([&] { return last_; }); }
  void setLastName(Ref<String> v) { locked([&] { last_ = std::move(v); }); }
  Ref<String> fullName() const {
    auto first = firstName(), last = lastName();
    return String::format("{} {}", first ? first->utf8() : "", last ? last->utf8() : "");
  }
  std::int64_t age() const { return locked([&] { return age_; }); }
  void setAge(std::int64_t v) { locked([&] { age_ = v; }); }
  Ref<Person> partner() const { return locked([&] { return partner_; }); }
  void setPartner(Ref<Person> v) { locked([&] { partner_ = std::move(v); }); }
  std::string greet(const Ref<String>& whom) { return "hello " + whom->utf8(); }

 protected:
  Person() = default;

 private:
  mutable std::mutex mutex_;
  Ref<String> first_, last_;
  std::int64_t age_ = 0;
  Ref<Person> partner_;
};

/// Records every change it observes; thread-safe.
class Recorder : public Object {
  FENNICK_DECLARE_CLASS(Recorder, Object)

 public:
  struct Change {
    std::string keyPath;
    Id object;
    Ref<Dictionary> change;
    void* context;
  };
  static Ref<Recorder> recorder() { return make<Recorder>(); }

  void observeValueForKeyPath_ofObject_change_context(const std::string& keyPath, const Id& object,
                                                      const Ref<Dictionary>& change,
                                                      void* context) override {
    const Change recorded{keyPath, object, change, context};
    std::function<void(const Change&)> hook;
    {
      std::lock_guard lock(mutex_);
      changes_.push_back(recorded);
      hook = onChange;
    }
    if (hook) hook(recorded);
  }
  std::vector<Change> changes() const {
    std::lock_guard lock(mutex_);
    return changes_;
  }
  std::size_t count() const {
    std::lock_guard lock(mutex_);
    return changes_.size();
  }
  std::function<void(const Change&)> onChange;

 protected:
  Recorder() = default;

 private:
  mutable std::mutex mutex_;
  std::vector<Change> changes_;
};

}  // namespace fennick::testing
