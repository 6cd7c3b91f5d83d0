#include "fennick/AppKitExtensions/Window.h"

#include "fennick/AppKitExtensions/InterfaceBackend.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"

namespace fennick {

FENNICK_DEFINE_CLASS(Window) {
  builder.property("title", &Window::title);
  builder.property("accessibilityIdentifier", &Window::accessibilityIdentifier);
}

Ref<Window> Window::windowWithTitle(std::string_view title) {
  auto window = make<Window>();
  window->setTitle(title);
  return window;
}

void Window::beginSheet_completionHandler(const Ref<Window>& sheet, SheetCompletionHandler handler) {
  if (!sheet) return;
  interfaceBackend()->beginSheet(std::static_pointer_cast<Window>(self()), sheet, std::move(handler));
}

void Window::endSheet_returnCode(const Ref<Window>& sheet, std::int64_t returnCode) {
  if (!sheet) return;
  interfaceBackend()->endSheet(std::static_pointer_cast<Window>(self()), sheet, returnCode);
}

std::shared_ptr<void> Window::peer() const {
  std::lock_guard lock(peerMutex_);
  return peer_;
}

void Window::setPeer(std::shared_ptr<void> peer) {
  {
    std::lock_guard lock(peerMutex_);
    peer_.swap(peer);
  }
  // The peer replaced is released unlocked: a toolkit window that ends here
  // runs its own teardown, which may come back to this window.
}

std::string Window::description() const { return fmt::format("<Window: \"{}\">", title_); }

}  // namespace fennick
