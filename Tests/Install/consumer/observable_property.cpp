// An observable property and an observer of it.
#include <fennick/Fennick.h>

#include <cstdio>

using namespace fennick;

class Thermometer : public Object {
  FENNICK_DECLARE_CLASS(Thermometer, Object)

 public:
  static Ref<Thermometer> thermometer() { return make<Thermometer>(); }
  double celsius() const { return celsius_; }
  // Tells observers itself, so a change through C++ or through key-value
  // coding is announced exactly once.
  void setCelsius(double value) { setAndNotify("celsius", celsius_, value); }

 protected:
  Thermometer() = default;

 private:
  double celsius_ = 0;
};

FENNICK_DEFINE_CLASS(Thermometer) {
  builder.property("celsius", &Thermometer::celsius, &Thermometer::setCelsius);
}

int main() {
  auto thermometer = Thermometer::thermometer();
  // Without a queue, changes arrive on the thread that makes them.
  auto receptionist = OVReceptionist::init();
  receptionist->startObservationOfObject_forKeyPath_changeBlock(
      thermometer, "celsius",
      // The block names the classes it expects; values arrive cast.
      [](const Ref<Thermometer>&, const std::string& keyPath, const Ref<Number>& now,
         const Ref<Number>& before) {
        std::printf("%s: %g -> %g\n", keyPath.c_str(), before->doubleValue(), now->doubleValue());
      });
  thermometer->setCelsius(21.5);
  std::puts("observable_property: ok");
}
