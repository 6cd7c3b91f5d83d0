// Datagrams as a netlink socket may deliver them (from the kernel, or from
// any process that sends to the socket's address): the readers must refuse
// what they cannot read in full, never read past it, and never take back an
// answer once it is done or failed.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fennick/Platform/System/Internal/NetlinkMessages.h"

using namespace fennick::platform::netlink;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  // A block of the datagram's exact size, aligned as a receive buffer is.
  std::vector<std::byte> datagram(size);
  if (size > 0) std::memcpy(datagram.data(), bytes, size);
  const std::byte* begin = datagram.data();
  const std::byte* end = begin + size;

  std::uint32_t sequence = 0;
  if (size >= sizeof(nlmsghdr)) std::memcpy(&sequence, bytes + offsetof(nlmsghdr, nlmsg_seq), sizeof sequence);
  AnswerReader reader(sequence, 4096);
  int visited = 0;
  const auto visit = [&](const nlmsghdr& message) {
    const auto* first = reinterpret_cast<const std::byte*>(&message);
    if (first < begin || message.nlmsg_len < sizeof(nlmsghdr) || message.nlmsg_len > static_cast<std::size_t>(end - first))
      std::abort();
    ++visited;
    if (const auto route = parseRoute(message); route && message.nlmsg_type != RTM_NEWROUTE) std::abort();
  };
  const auto first = reader.feed(datagram, visit);
  const int visitedBefore = visited;
  const auto second = reader.feed(datagram, visit);
  if (first != AnswerReader::State::More && (second != first || visited != visitedBefore)) std::abort();

  (void)reportsRouteChange(datagram);
  return 0;
}
