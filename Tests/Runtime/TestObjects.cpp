#include "Runtime/TestObjects.h"

namespace fennick::testing {

FENNICK_DEFINE_CLASS(Person) {
  builder.observableProperty("firstName", &Person::firstName, &Person::setFirstName);
  builder.observableProperty("lastName", &Person::lastName, &Person::setLastName);
  builder.observableProperty("age", &Person::age, &Person::setAge);
  builder.observableProperty("partner", &Person::partner, &Person::setPartner);
  builder.property("fullName", &Person::fullName);
  builder.dependentKeys("fullName", {"firstName", "lastName"});
  builder.method("greet:", &Person::greet);
}

FENNICK_DEFINE_CLASS(Recorder) {}

}  // namespace fennick::testing
