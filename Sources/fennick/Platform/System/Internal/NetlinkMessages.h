#pragma once
// Reading rtnetlink datagrams, apart from the sockets they arrive on, so that
// every length in them is checked before it is believed: a message whose
// length is shorter than its header or runs past the datagram, an attribute
// of length 0 or past its message, an error report too short to hold its
// code. What cannot be read in full is refused, never read past.
//
// Buffers must be aligned for nlmsghdr, as the kernel's datagrams are when
// received into an aligned buffer. Pure functions; thread-safe.
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>

namespace fennick::platform::netlink {

/// What reachability needs of one route.
struct Route {
  unsigned char type = RTN_UNSPEC;
  unsigned char destinationLength = 0;
  std::uint32_t table = 0;
  unsigned flags = 0;
  int outputInterface = 0;
  bool hasGateway = false;
};

/// The route in an RTM_NEWROUTE message of `length` bytes (the message's own
/// nlmsg_len, already checked against the datagram); nullopt for another type
/// or a message too short for its route header.
std::optional<Route> parseRoute(const nlmsghdr& header);

/// Follows the kernel's answer to one request through the datagrams that
/// carry it: messages of other requests (earlier ones given up on) are
/// skipped by sequence number; the answer ends with NLMSG_DONE, an
/// acknowledgement, or its one message when that is not part of a multi-part
/// answer. An error report, a malformed message or an answer longer than
/// `byteLimit` fails it, so that an answer that never ends cannot keep the
/// reader forever.
class AnswerReader {
 public:
  enum class State { More, Done, Failed };
  using Visit = std::function<void(const nlmsghdr& message)>;

  explicit AnswerReader(std::uint32_t sequence, std::size_t byteLimit = std::size_t{64} << 20)
      : sequence_(sequence), byteLimit_(byteLimit) {}

  /// Reads one datagram, calling `visit` with each message of the answer;
  /// answers whether more is to come. Once done or failed it stays so.
  State feed(std::span<const std::byte> datagram, const Visit& visit);
  State state() const noexcept { return state_; }

 private:
  State readMessage(const nlmsghdr& message, const Visit& visit);

  std::uint32_t sequence_;
  std::size_t byteLimit_;
  std::size_t bytesRead_ = 0;
  State state_ = State::More;
};

/// Whether a datagram of the change socket reports a link, address or route
/// change; reading stops at the first malformed message.
bool reportsRouteChange(std::span<const std::byte> datagram);

}  // namespace fennick::platform::netlink
