#include "fennick/Platform/System/Internal/NetlinkMessages.h"

#include <algorithm>
#include <cstring>

namespace fennick::platform::netlink {

namespace {

// Calls `each` with every message of the datagram in turn while it answers
// true. Answers false when a malformed message (or trailing bytes too short
// for a header) ended the walk.
template <class Each>
bool forEachMessage(std::span<const std::byte> datagram, Each each) {
  std::size_t offset = 0;
  while (offset < datagram.size()) {
    const std::size_t remaining = datagram.size() - offset;
    if (remaining < sizeof(nlmsghdr)) return false;
    const auto& message = *reinterpret_cast<const nlmsghdr*>(datagram.data() + offset);
    const std::size_t length = message.nlmsg_len;
    if (length < sizeof(nlmsghdr) || length > remaining) return false;
    if (!each(message)) return true;
    offset += std::min<std::size_t>(NLMSG_ALIGN(length), remaining);
  }
  return true;
}

template <class Value>
std::optional<Value> attributeValue(const rtattr* attribute) {
  if (RTA_PAYLOAD(attribute) < sizeof(Value)) return std::nullopt;
  Value value;
  std::memcpy(&value, RTA_DATA(attribute), sizeof value);
  return value;
}

}  // namespace

std::optional<Route> parseRoute(const nlmsghdr& header) {
  if (header.nlmsg_type != RTM_NEWROUTE || header.nlmsg_len < NLMSG_LENGTH(sizeof(rtmsg))) return std::nullopt;
  const auto* message = static_cast<const rtmsg*>(NLMSG_DATA(&header));
  Route route;
  route.type = message->rtm_type;
  route.destinationLength = message->rtm_dst_len;
  route.table = message->rtm_table;
  route.flags = message->rtm_flags;
  int length = static_cast<int>(header.nlmsg_len) - static_cast<int>(NLMSG_SPACE(sizeof(rtmsg)));
  for (const rtattr* attribute = RTM_RTA(message); RTA_OK(attribute, length); attribute = RTA_NEXT(attribute, length)) {
    switch (attribute->rta_type) {
      case RTA_OIF:
        route.outputInterface = attributeValue<int>(attribute).value_or(0);
        break;
      case RTA_TABLE:  // tables past 255 are named only here
        route.table = attributeValue<std::uint32_t>(attribute).value_or(route.table);
        break;
      case RTA_GATEWAY:
      case RTA_VIA:
      case RTA_MULTIPATH:  // several next hops: through gateways
        route.hasGateway = true;
        break;
      default:
        break;
    }
  }
  return route;
}

AnswerReader::State AnswerReader::feed(std::span<const std::byte> datagram, const Visit& visit) {
  if (state_ != State::More) return state_;
  bytesRead_ += datagram.size();
  const bool wellFormed = forEachMessage(datagram, [&](const nlmsghdr& message) {
    state_ = readMessage(message, visit);
    return state_ == State::More;
  });
  if (state_ == State::More && (!wellFormed || bytesRead_ > byteLimit_)) state_ = State::Failed;
  return state_;
}

AnswerReader::State AnswerReader::readMessage(const nlmsghdr& message, const Visit& visit) {
  if (message.nlmsg_seq != sequence_) return State::More;  // left over from a request given up on
  switch (message.nlmsg_type) {
    case NLMSG_NOOP:
      return State::More;
    case NLMSG_DONE:
      return State::Done;
    case NLMSG_OVERRUN:
      return State::Failed;
    case NLMSG_ERROR: {
      if (message.nlmsg_len < NLMSG_LENGTH(sizeof(int))) return State::Failed;
      int error;
      std::memcpy(&error, NLMSG_DATA(&message), sizeof error);
      return error == 0 ? State::Done : State::Failed;  // 0 acknowledges the request
    }
    default:
      visit(message);
      return (message.nlmsg_flags & NLM_F_MULTI) ? State::More : State::Done;
  }
}

bool reportsRouteChange(std::span<const std::byte> datagram) {
  bool changed = false;
  forEachMessage(datagram, [&](const nlmsghdr& message) {
    changed = message.nlmsg_type >= RTM_NEWLINK && message.nlmsg_type <= RTM_DELROUTE;
    return !changed;
  });
  return changed;
}

}  // namespace fennick::platform::netlink
