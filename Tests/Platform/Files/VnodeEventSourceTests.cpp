// Vnode event sources over inotify: what each kind of change reports, shared
// kernel watches, coalescing, and bad input.
#include "Support/HelpersTestSupport.h"
#include "Support/FileTestSupport.h"
#include "Platform/Files/VnodeEventRecorder.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

namespace fennick {
namespace {

using filetest::TemporaryFolder;
using filetest::VnodeEventRecorder;

Ref<URL> fileURL(const std::string& path) { return URL::fileURLWithPath(path); }

TEST(VnodeEventSourceTest, FileChangesMapOntoTheSevenBits) {
  TemporaryFolder folder;
  ASSERT_EQ(::mkdir((folder / "elsewhere").c_str(), 0755), 0);
  ASSERT_TRUE(filetest::writeFile(folder / "file", "a"));
  VnodeEventRecorder events(fileURL(folder / "file"));
  ASSERT_TRUE(events.valid());

  ASSERT_TRUE(filetest::appendToFile(folder / "file", "more"));
  EXPECT_TRUE(events.waitFor(DISPATCH_VNODE_WRITE | DISPATCH_VNODE_EXTEND));
  EXPECT_EQ(events.take(), DISPATCH_VNODE_WRITE | DISPATCH_VNODE_EXTEND);

  ASSERT_EQ(::chmod((folder / "file").c_str(), 0600), 0);
  EXPECT_TRUE(events.waitFor(DISPATCH_VNODE_ATTRIB));
  EXPECT_EQ(events.take(), DISPATCH_VNODE_ATTRIB);

  ASSERT_EQ(::link((folder / "file").c_str(), (folder / "second").c_str()), 0);
  EXPECT_TRUE(events.waitFor(DISPATCH_VNODE_LINK));
  EXPECT_EQ(events.take(), DISPATCH_VNODE_LINK);

  ASSERT_EQ(::rename((folder / "file").c_str(), (folder / "elsewhere/moved").c_str()), 0);
  EXPECT_TRUE(events.waitFor(DISPATCH_VNODE_RENAME));
  EXPECT_EQ(events.take(), DISPATCH_VNODE_RENAME);

  // One of two links removed: the link count changed, the item lives on.
  ASSERT_EQ(::unlink((folder / "second").c_str()), 0);
  EXPECT_TRUE(events.waitFor(DISPATCH_VNODE_LINK));
  EXPECT_EQ(events.take(), DISPATCH_VNODE_LINK);

  ASSERT_EQ(::unlink((folder / "elsewhere/moved").c_str()), 0);
  EXPECT_TRUE(events.waitFor(DISPATCH_VNODE_DELETE));
  EXPECT_EQ(events.take(), DISPATCH_VNODE_DELETE);
}

TEST(VnodeEventSourceTest, FolderChangesMapOntoTheSevenBits) {
  TemporaryFolder folder;
  ASSERT_EQ(::mkdir((folder / "watched").c_str(), 0755), 0);
  VnodeEventRecorder events(fileURL(folder / "watched"));
  ASSERT_TRUE(events.valid());

  ASSERT_TRUE(filetest::writeFile(folder / "watched/entry", "x"));
  EXPECT_TRUE(events.waitFor(DISPATCH_VNODE_WRITE));
  EXPECT_EQ(events.take() & ~DISPATCH_VNODE_EXTEND, DISPATCH_VNODE_WRITE);

  ASSERT_EQ(::mkdir((folder / "watched/sub").c_str(), 0755), 0);
  EXPECT_TRUE(events.waitFor(DISPATCH_VNODE_WRITE | DISPATCH_VNODE_LINK));
  events.take();

  ASSERT_EQ(::rename((folder / "watched").c_str(), (folder / "renamed").c_str()), 0);
  EXPECT_TRUE(events.waitFor(DISPATCH_VNODE_RENAME));
  events.take();

  ASSERT_EQ(::unlink((folder / "renamed/entry").c_str()), 0);
  ASSERT_EQ(::rmdir((folder / "renamed/sub").c_str()), 0);
  ASSERT_EQ(::rmdir((folder / "renamed").c_str()), 0);
  EXPECT_TRUE(events.waitFor(DISPATCH_VNODE_DELETE));
}

TEST(VnodeEventSourceTest, SourcesOfOneItemShareOneWatchAndReleaseItWithTheLast) {
  TemporaryFolder folder;
  ASSERT_TRUE(filetest::writeFile(folder / "file", "a"));
  const int descriptors = filetest::descriptorBaseline();
  const std::size_t watches = platform::vnodeWatchCount();
  {
    VnodeEventRecorder first(fileURL(folder / "file"));
    VnodeEventRecorder second(URL::fileURLWithPath(folder / "file")->fileReferenceURL());
    EXPECT_EQ(platform::vnodeWatchCount(), watches + 1);
    EXPECT_EQ(filetest::openDescriptorCount(), descriptors + 1);

    first.cancel();
    ASSERT_TRUE(filetest::appendToFile(folder / "file", "b"));
    EXPECT_TRUE(second.waitFor(DISPATCH_VNODE_WRITE));
    EXPECT_EQ(first.take(), 0u);
  }
  // The reactor may still hold the item for a round of events it is reading.
  EXPECT_TRUE(testing::eventually([&] { return platform::vnodeWatchCount() == watches; }));
  EXPECT_TRUE(testing::eventually([&] { return filetest::openDescriptorCount() == descriptors; }));
}

TEST(VnodeEventSourceTest, EventsBeforeAHandlerRunAreCoalesced) {
  TemporaryFolder folder;
  ASSERT_TRUE(filetest::writeFile(folder / "file", ""));
  VnodeEventRecorder suspended(fileURL(folder / "file"), /*resume=*/false);
  VnodeEventRecorder probe(fileURL(folder / "file"));
  for (int i = 0; i < 50; ++i) ASSERT_TRUE(filetest::appendToFile(folder / "file", "x"));
  ASSERT_EQ(::chmod((folder / "file").c_str(), 0600), 0);
  // Events arrive in order: once the probe saw the last, all were merged.
  ASSERT_TRUE(probe.waitFor(DISPATCH_VNODE_ATTRIB));
  suspended.resume();
  EXPECT_TRUE(suspended.waitFor(DISPATCH_VNODE_WRITE | DISPATCH_VNODE_EXTEND | DISPATCH_VNODE_ATTRIB));
  EXPECT_EQ(suspended.runs(), 1);
}

TEST(VnodeEventSourceTest, ItemsThatCannotBeWatchedGiveNil) {
  TemporaryFolder folder;
  auto noop = [] {};
  EXPECT_FALSE(platform::makeVnodeEventSource(*fileURL(folder / "missing"), 0x7F, nullptr, noop));
  EXPECT_FALSE(platform::makeVnodeEventSource(*URL::URLWithString("https://example.com/"), 0x7F, nullptr, noop));
  EXPECT_FALSE(platform::makeVnodeEventSource(*fileURL(folder / std::string("bad\xff\xfe")), 0x7F, nullptr, noop));
}

}  // namespace
}  // namespace fennick
