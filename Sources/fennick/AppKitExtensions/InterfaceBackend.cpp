#include "fennick/AppKitExtensions/InterfaceBackend.h"

#include <mutex>

#include "fennick/AppKitExtensions/Alert.h"
#include "fennick/AppKitExtensions/HeadlessBackend.h"
#include "fennick/Dispatch/Main.h"
#include "fennick/Dispatch/OVDispatchQueue.h"

namespace fennick {
namespace {

std::mutex installMutex;
std::shared_ptr<InterfaceBackend>& installedBackend() {
  static auto* backend = new std::shared_ptr<InterfaceBackend>();
  return *backend;
}

// OVAssertUnimplemented's notice as a modal alert. Called on any thread; the
// alert needs the main thread, which a caller elsewhere waits for.
void presentUnimplementedAlert(const char* messageText, const char* informativeText, const char* buttonTitle) {
  auto show = [&] {
    auto alert = Alert::init();
    alert->setMessageText(messageText);
    alert->setInformativeText(informativeText);
    alert->addButtonWithTitle(buttonTitle);
    alert->runModal();
  };
  if (dispatch::isMainThread()) show();
  else dispatch::mainQueue()->sync(show);
}

}  // namespace

InterfaceBackend::~InterfaceBackend() = default;

void setInterfaceBackend(std::shared_ptr<InterfaceBackend> backend) {
  {
    std::lock_guard lock(installMutex);
    setUnimplementedAlertPresenter(backend ? &presentUnimplementedAlert : nullptr);
    installedBackend().swap(backend);
  }
  // The backend replaced may end here: its destructor runs unlocked, free to
  // ask for the backend now installed.
}

std::shared_ptr<InterfaceBackend> interfaceBackend() {
  std::lock_guard lock(installMutex);
  if (const auto& backend = installedBackend()) return backend;
  return HeadlessBackend::shared();
}

}  // namespace fennick
