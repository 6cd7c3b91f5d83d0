// Writing a value back through a binding: the reverse of what the binding does
// when the observed value changes.
#include "fennick/Runtime/Observation/Bindings.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/ObjectModel/Log.h"
#include "fennick/Runtime/Values/Null.h"
#include "fennick/Runtime/ObjectModel/Object.h"
#include "fennick/Runtime/Observation/ValueTransformer.h"

namespace fennick {

namespace {

// The name callers see in the log lines, the platform's method name, so that
// the messages read the same on every platform.
constexpr const char* kPropagateMethodName = "-[NSObject(Extensions) propagateValue:forBinding:]";

Id nonNull(const Id& object) { return isNilOrNull(object) ? nullptr : object; }

Ref<ValueTransformer> transformerFromOptions(const Dictionary& options) {
  Id transformer = nonNull(options.objectForKey(NSValueTransformerBindingOption));
  if (!transformer) {
    if (Id name = nonNull(options.objectForKey(NSValueTransformerNameBindingOption)))
      transformer = ValueTransformer::valueTransformerForName(name->description());
  }
  return ValueTransformer::dynamicCastObject(nonNull(transformer));
}

}  // namespace

void Object::propagateValue_forBinding(const Id& value, std::string_view binding) {
  Ref<Dictionary> info = infoForBinding(binding);
  if (!info) return;

  Id propagated = value;
  if (auto options = Dictionary::dynamicCastObject(info->objectForKey(NSOptionsKey))) {
    if (Ref<ValueTransformer> transformer = transformerFromOptions(*options)) {
      if (transformer->allowsReverseTransformation())
        propagated = transformer->reverseTransformedValue(propagated);
      else
        OVLog("WARNING: binding \"{}\" has value transformer, but it doesn't allow reverse "
              "transformations in {}",
              binding, kPropagateMethodName);
    }
  }

  Id observed = nonNull(info->objectForKey(NSObservedObjectKey));
  if (!observed) {
    OVLog("ERROR: NSObservedObjectKey was nil for binding \"{}\" in {}", binding, kPropagateMethodName);
    return;
  }
  Id keyPath = nonNull(info->objectForKey(NSObservedKeyPathKey));
  if (!keyPath) {
    OVLog("ERROR: NSObservedKeyPathKey was nil for binding \"{}\" in {}", binding, kPropagateMethodName);
    return;
  }
  observed->setValueForKeyPath(propagated, keyPath->description());
}

}  // namespace fennick
