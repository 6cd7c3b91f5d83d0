#include "fennick/AppKitExtensions/Application.h"

#include "fennick/AppKitExtensions/Alert.h"
#include "fennick/AppKitExtensions/InterfaceBackend.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"

namespace fennick {

FENNICK_DEFINE_CLASS(Application) {}

Ref<Application> Application::sharedApplication() {
  // Immortal, like the other process-wide objects: work may reach it at exit.
  static const Ref<Application>* application = new Ref<Application>(make<Application>());
  return *application;
}

void Application::activateIgnoringOtherApps(bool ignoringOtherApps) {
  interfaceBackend()->activateIgnoringOtherApps(ignoringOtherApps);
}

std::int64_t Application::runModalForWindow(const Ref<Window>& window) {
  if (!window) return NSModalResponseAbort;
  return interfaceBackend()->runModalForWindow(window);
}

void Application::stopModalWithCode(std::int64_t code) { interfaceBackend()->stopModalWithCode(code); }

void Application::stopModal() { stopModalWithCode(NSModalResponseStop); }

}  // namespace fennick
