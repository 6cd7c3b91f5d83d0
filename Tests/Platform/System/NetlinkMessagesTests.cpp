// Crafted rtnetlink datagrams, each in a heap block of its exact size so that
// a read past its end is caught by AddressSanitizer.
#include "fennick/Platform/System/Internal/NetlinkMessages.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <sys/socket.h>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

using namespace fennick::platform::netlink;

namespace {

using Bytes = std::vector<std::byte>;

void append(Bytes& bytes, const void* data, std::size_t size) {
  const std::size_t end = bytes.size();
  bytes.resize(end + size);
  if (size > 0) std::memcpy(bytes.data() + end, data, size);
}

void pad(Bytes& bytes) { bytes.resize((bytes.size() + 3) & ~std::size_t{3}); }

struct Attribute {
  unsigned short type;
  Bytes value;
  std::optional<unsigned short> length = std::nullopt;  // rta_len, when it lies
};

template <class Value>
Bytes bytesOf(Value value) {
  Bytes bytes;
  append(bytes, &value, sizeof value);
  return bytes;
}

Bytes routePayload(std::vector<Attribute> attributes = {}, unsigned char destinationLength = 0) {
  rtmsg route{};
  route.rtm_family = AF_INET;
  route.rtm_type = RTN_UNICAST;
  route.rtm_table = RT_TABLE_MAIN;
  route.rtm_dst_len = destinationLength;
  Bytes bytes;
  append(bytes, &route, sizeof route);
  for (const auto& attribute : attributes) {
    rtattr header{};
    header.rta_type = attribute.type;
    header.rta_len = attribute.length.value_or(static_cast<unsigned short>(RTA_LENGTH(attribute.value.size())));
    append(bytes, &header, sizeof header);
    append(bytes, attribute.value.data(), attribute.value.size());
    pad(bytes);
  }
  return bytes;
}

// One message; `length` replaces nlmsg_len when it lies.
Bytes message(unsigned short type, std::uint32_t sequence, unsigned short flags = 0, const Bytes& payload = {},
              std::optional<std::uint32_t> length = std::nullopt) {
  nlmsghdr header{};
  header.nlmsg_type = type;
  header.nlmsg_flags = flags;
  header.nlmsg_seq = sequence;
  header.nlmsg_len = length.value_or(static_cast<std::uint32_t>(NLMSG_LENGTH(payload.size())));
  Bytes bytes;
  append(bytes, &header, sizeof header);
  append(bytes, payload.data(), payload.size());
  pad(bytes);
  return bytes;
}

Bytes errorMessage(std::uint32_t sequence, int error, bool truncated = false) {
  nlmsgerr report{};
  report.error = error;
  Bytes payload = bytesOf(report);
  if (truncated) payload.resize(2);
  return message(NLMSG_ERROR, sequence, 0, payload);
}

Bytes joined(std::initializer_list<Bytes> parts) {
  Bytes bytes;
  for (const auto& part : parts) append(bytes, part.data(), part.size());
  return bytes;
}

const Bytes kRoute = message(RTM_NEWROUTE, 7, NLM_F_MULTI, routePayload());

TEST(NetlinkMessagesTest, AnswersEndOnlyWhereTheKernelEndsThem) {
  const struct {
    const char* name;
    std::vector<Bytes> datagrams;
    AnswerReader::State expected;
    int visited;
  } cases[] = {
      {"one route, not multi-part", {message(RTM_NEWROUTE, 7, 0, routePayload())}, AnswerReader::State::Done, 1},
      {"a multi-part answer over two datagrams",
       {joined({kRoute, kRoute}), joined({kRoute, message(NLMSG_DONE, 7)})},
       AnswerReader::State::Done,
       3},
      {"an acknowledgement", {errorMessage(7, 0)}, AnswerReader::State::Done, 0},
      {"an error report", {joined({kRoute, errorMessage(7, -ENETUNREACH)})}, AnswerReader::State::Failed, 1},
      {"an error report too short for its code", {errorMessage(7, 0, true)}, AnswerReader::State::Failed, 0},
      {"an overrun", {message(NLMSG_OVERRUN, 7)}, AnswerReader::State::Failed, 0},
      {"a length shorter than the header", {message(RTM_NEWROUTE, 7, 0, {}, 8)}, AnswerReader::State::Failed, 0},
      {"a length of zero", {message(RTM_NEWROUTE, 7, 0, {}, 0)}, AnswerReader::State::Failed, 0},
      {"a length past the datagram", {joined({kRoute, message(RTM_NEWROUTE, 7, NLM_F_MULTI, {}, 4096)})},
       AnswerReader::State::Failed, 1},
      {"a datagram too short for a header", {Bytes(10)}, AnswerReader::State::Failed, 0},
      {"trailing bytes after a message", {joined({kRoute, Bytes(8)})}, AnswerReader::State::Failed, 1},
      {"messages of an earlier request are skipped",
       {joined({message(RTM_NEWROUTE, 6, NLM_F_MULTI, routePayload()), message(NLMSG_DONE, 6), kRoute,
                message(NLMSG_DONE, 7)})},
       AnswerReader::State::Done,
       1},
      {"nothing after the end counts",
       {joined({message(NLMSG_DONE, 7), kRoute}), joined({kRoute, errorMessage(7, -EIO)})},
       AnswerReader::State::Done,
       0},
      {"an empty datagram and no-ops", {Bytes(), message(NLMSG_NOOP, 7)}, AnswerReader::State::More, 0},
  };
  for (const auto& test : cases) {
    AnswerReader reader(7);
    int visited = 0;
    for (const Bytes& datagram : test.datagrams)
      reader.feed(datagram, [&](const nlmsghdr& header) {
        ++visited;
        EXPECT_TRUE(parseRoute(header)) << test.name;
      });
    EXPECT_EQ(reader.state(), test.expected) << test.name;
    EXPECT_EQ(visited, test.visited) << test.name;
  }

  // A multi-part answer that never ends is given up once it passes the limit.
  AnswerReader endless(7, 64 * 1024);
  const Bytes datagram = joined({kRoute, kRoute, kRoute, kRoute});
  int datagrams = 0;
  while (endless.feed(datagram, [](const nlmsghdr&) {}) == AnswerReader::State::More && datagrams < 1'000'000)
    ++datagrams;
  EXPECT_EQ(endless.state(), AnswerReader::State::Failed);
  EXPECT_LE(datagrams * datagram.size(), 64u * 1024);
}

TEST(NetlinkMessagesTest, RouteAttributesAreReadOnlyWithinTheirLengths) {
  const struct {
    const char* name;
    Bytes message;
    std::optional<int> outputInterface;  // nullopt: no route read
    bool hasGateway;
    std::uint32_t table;
  } cases[] = {
      {"interface and gateway",
       message(RTM_NEWROUTE, 1, 0, routePayload({{RTA_OIF, bytesOf(3)}, {RTA_GATEWAY, bytesOf(0x0100000a)}})), 3, true,
       RT_TABLE_MAIN},
      {"a table past 255", message(RTM_NEWROUTE, 1, 0, routePayload({{RTA_TABLE, bytesOf(1000u)}})), 0, false, 1000},
      {"an interface attribute too short for its value",
       message(RTM_NEWROUTE, 1, 0, routePayload({{RTA_OIF, Bytes{std::byte{5}, std::byte{5}}}})), 0, false,
       RT_TABLE_MAIN},
      {"an attribute of length 0 ends the list",
       message(RTM_NEWROUTE, 1, 0, routePayload({{RTA_GATEWAY, bytesOf(1), 0}, {RTA_OIF, bytesOf(4)}})), 0, false,
       RT_TABLE_MAIN},
      {"an attribute past its message",
       message(RTM_NEWROUTE, 1, 0, routePayload({{RTA_OIF, bytesOf(5), 200}})), 0, false, RT_TABLE_MAIN},
      {"a message shorter than a route header", message(RTM_NEWROUTE, 1, 0, Bytes(4)), std::nullopt, false, 0},
      {"not a new route", message(RTM_DELROUTE, 1, 0, routePayload({{RTA_OIF, bytesOf(3)}})), std::nullopt, false, 0},
  };
  for (const auto& test : cases) {
    // The message in a block of its exact length, as the reader hands it on.
    const auto* header = reinterpret_cast<const nlmsghdr*>(test.message.data());
    const Bytes exact(test.message.begin(), test.message.begin() + header->nlmsg_len);
    const auto route = parseRoute(*reinterpret_cast<const nlmsghdr*>(exact.data()));
    ASSERT_EQ(route.has_value(), test.outputInterface.has_value()) << test.name;
    if (!route) continue;
    EXPECT_EQ(route->outputInterface, *test.outputInterface) << test.name;
    EXPECT_EQ(route->hasGateway, test.hasGateway) << test.name;
    EXPECT_EQ(route->table, test.table) << test.name;
  }
}

TEST(NetlinkMessagesTest, ChangesAreReadUpToTheFirstMalformedMessage) {
  Bytes cutShort = message(RTM_NEWLINK, 0);
  cutShort.resize(12);
  const struct {
    const char* name;
    Bytes datagram;
    bool changed;
  } cases[] = {
      {"a new address", message(RTM_NEWADDR, 0), true},
      {"a route removed after a no-op", joined({message(NLMSG_NOOP, 0), message(RTM_DELROUTE, 0)}), true},
      {"only the end of a dump", message(NLMSG_DONE, 0), false},
      {"a change behind a malformed message", joined({message(NLMSG_NOOP, 0, 0, {}, 3), message(RTM_NEWLINK, 0)}),
       false},
      {"a header cut short", cutShort, false},
      {"nothing", Bytes(), false},
  };
  for (const auto& test : cases) EXPECT_EQ(reportsRouteChange(test.datagram), test.changed) << test.name;
}

}  // namespace
