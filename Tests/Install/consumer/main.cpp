// The README's example, built against an installed copy of Fennick.
// main.cpp: coalesce two requests for the same thing into one piece of work.
#include <fennick/Fennick.h>

#include <cstdio>
#include <future>

using namespace fennick;

int main() {
  auto proactor = OVProactor::init();
  auto group = proactor->addGroupWithID_startsActionAutomatically_handlerBlock(
      "download"_s, true, [](const Ref<OVProactorAction>& action) {
        action->setObject_forKey(String::string("contents of " + action->argument()->description()),
                                 "body"_s);
        action->complete();
      });
  std::promise<void> first, second;
  auto action = group->actionForArgument("https://example.org"_s);
  action->addCompletionHandler([&](const Ref<OVProactorResult>& result) {
    std::printf("%s\n", result->objectForKey("body"_s)->description().c_str());
    first.set_value();
  });
  group->actionForArgument("https://example.org"_s)->addCompletionHandler(
      [&](const Ref<OVProactorResult>&) { second.set_value(); });
  first.get_future().wait();
  second.get_future().wait();
  std::puts("consumer: ok");
}
