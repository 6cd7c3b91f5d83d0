// A serial queue: blocks run one at a time, in the order they were submitted,
// so the state they share needs no lock.
#include <fennick/Fennick.h>

#include <cstdio>

using namespace fennick;

int main() {
  auto queue = dispatch::Queue::createSerial("com.example.counter");
  int counter = 0;
  for (int i = 0; i < 1000; ++i) queue->async([&counter] { ++counter; });
  // sync waits for everything submitted before it.
  queue->sync([&counter] { std::printf("counter: %d\n", counter); });
  std::puts("serial_queue: ok");
}
