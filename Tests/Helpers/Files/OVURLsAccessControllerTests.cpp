// Counted security-scoped access: the first begin starts, the last end stops,
// counts are kept as they come, and an unmatched end is logged.
#include "Support/FileTestSupport.h"

#include "fennick/Helpers/Files/OVURLsAccessController.h"
#include "fennick/Helpers/Files/URLSecurityScope.h"
#include "fennick/Runtime/ObjectModel/Log.h"

#include <gtest/gtest.h>

namespace fennick {
namespace {

using filetest::TemporaryFolder;

// The URL, marked as its own secure access URL, as bookmark resolution leaves it.
Ref<URL> markedURL(const Ref<URL>& url) {
  setSecureAccessURL(url, url);
  return url;
}

std::int64_t countOf(const Ref<OVURLsAccessController>& controller, const Ref<URL>& url, bool* present) {
  auto info = controller->internalQueue()->sync([&] { return controller->fetchAccessInfoForURL(url); });
  *present = info != nullptr;
  return info ? std::static_pointer_cast<OVDeploymentURLsAccessInfo>(info)->proposesCount() : 0;
}

TEST(OVURLsAccessControllerTest, FirstBeginStartsAndLastEndStops) {
  TemporaryFolder folder;
  auto controller = OVURLsAccessController::init();
  auto url = markedURL(URL::fileURLWithPath(folder.path()));
  // Another object for the same URL shares the count.
  auto twin = markedURL(URL::fileURLWithPath(folder.path()));
  bool present = false;

  EXPECT_TRUE(controller->beginAccessingSecurityScopedResourceAtURL_propose(url, "getting directory size"));
  EXPECT_TRUE(controller->beginAccessingSecurityScopedResourceAtURL_propose(twin, "bookmarking"));
  EXPECT_EQ(countOf(controller, url, &present), 2);
  controller->endAccessingSecurityScopedResource_propose(url, "getting directory size");
  EXPECT_EQ(countOf(controller, url, &present), 1);
  EXPECT_TRUE(present);
  controller->endAccessingSecurityScopedResource_propose(url, "bookmarking");
  countOf(controller, url, &present);
  EXPECT_FALSE(present);

  // One end too many finds no entry and says so.
  LogCapture log;
  controller->endAccessingSecurityScopedResource_propose(url, "bookmarking");
  EXPECT_EQ(log.lines(), std::vector<std::string>{"Did fail to get access info for url " + url->description() +
                                                  " with propose bookmarking."});
  countOf(controller, url, &present);
  EXPECT_FALSE(present);
}

TEST(OVURLsAccessControllerTest, RefusedURLsAndFailedStartsAreNotCounted) {
  auto controller = OVURLsAccessController::init();
  bool present = false;

  // Never bookmarked while bookmarking is enabled: no secure access URL.
  auto plain = URL::fileURLWithPath("/");
  EXPECT_FALSE(controller->beginAccessingSecurityScopedResourceAtURL_propose(plain, "bookmarking"));
  countOf(controller, plain, &present);
  EXPECT_FALSE(present);

  // The platform refuses to start (not a file URL): the empty entry stays,
  // and an end takes its count below zero without removing it.
  auto remote = markedURL(URL::URLWithString("https://example.com/file"));
  EXPECT_FALSE(controller->beginAccessingSecurityScopedResourceAtURL_propose(remote, "bookmarking"));
  EXPECT_EQ(countOf(controller, remote, &present), 0);
  EXPECT_TRUE(present);
  controller->endAccessingSecurityScopedResource_propose(remote, "bookmarking");
  controller->endAccessingSecurityScopedResource_propose(remote, std::nullopt);
  EXPECT_EQ(countOf(controller, remote, &present), -2);
  EXPECT_TRUE(present);
  EXPECT_FALSE(controller->beginAccessingSecurityScopedResourceAtURL_propose(remote, "bookmarking"));
  EXPECT_EQ(countOf(controller, remote, &present), -2);

  EXPECT_FALSE(controller->beginAccessingSecurityScopedResourceAtURL_propose(nullptr, "bookmarking"));
  EXPECT_EQ(controller->bookmarkedURL(nullptr), nullptr);
}

TEST(OVURLsAccessControllerTest, WithoutBookmarkingEverythingIsGrantedAndNothingCounted) {
  auto controller = OVURLsAccessController::init();
  controller->setIsBookmarkingEnabled(false);
  auto plain = URL::fileURLWithPath("/");
  LogCapture log;
  EXPECT_TRUE(controller->beginAccessingSecurityScopedResourceAtURL_propose(plain, "bookmarking"));
  controller->endAccessingSecurityScopedResource_propose(plain, "bookmarking");
  controller->endAccessingSecurityScopedResource_propose(plain, "bookmarking");
  bool present = true;
  countOf(controller, plain, &present);
  EXPECT_FALSE(present);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(controller->bookmarkedURL(plain), plain);
}

TEST(OVURLsAccessControllerTest, DebugInfoCountsPerPropose) {
  auto info = OVDebugURLsAccessInfo::initWithURL(URL::fileURLWithPath("/"));
  info->beginAccessingWithPropose("bookmarking");
  info->beginAccessingWithPropose(std::nullopt);
  EXPECT_EQ(info->countForPropose("generic"), 1u);
  info->endAccessingWithPropose("getting directory size");  // not held: ignored
  info->endAccessingWithPropose("bookmarking");
  EXPECT_TRUE(info->isAccessing());
  info->endAccessingWithPropose("generic");
  EXPECT_FALSE(info->isAccessing());
  info->endAccessingWithPropose("generic");
  EXPECT_FALSE(info->isAccessing());
  info->beginAccessingWithPropose("bookmarking");
  EXPECT_TRUE(info->isAccessing());
}

}  // namespace
}  // namespace fennick
