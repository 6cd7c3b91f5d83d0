// Cancellation with a group: cancelling one child cancels the group (policy
// Any), and the group cancels its other children.
#include <fennick/Fennick.h>

#include <cstdio>
#include <future>

using namespace fennick;

int main() {
  auto group = OVCancellationGroup::initWithPolicy(OVCancellationGroupPolicyAny);
  auto download = OVCancellationToken::init();
  auto unpack = OVCancellationToken::init();
  group->addChild(download);
  group->addChild(unpack);

  std::promise<void> cancelled;
  // Handlers run on the utility queue, after the children are cancelled.
  group->addCancellationHandler([&cancelled] { cancelled.set_value(); });
  // A child's cancellation reaches its group asynchronously.
  download->cancel();
  cancelled.get_future().wait();
  std::printf("unpack cancelled: %s\n", unpack->isCancelled() ? "yes" : "no");
  std::puts("cancellation_group: ok");
}
