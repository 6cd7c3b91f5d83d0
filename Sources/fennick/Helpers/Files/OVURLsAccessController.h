#pragma once
// Counted access to security-scoped URLs.
//
// Several parts of a program may need one security-scoped URL at once, but the
// platform counts nothing: one stop ends the access for all. The controller
// keeps a count per security-scoped URL: the platform access starts on the
// first begin and stops on the last end. Each begin and end names a propose,
// a short text saying why access is wanted ("getting directory size",
// "bookmarking" ...).
//
// On Linux no sandbox needs security-scoped access: starting it succeeds for
// every file URL (and fails for other URLs), and stopping does nothing; the
// counting is still done exactly as on a sandboxed system, so that code that
// balances its begins and ends behaves the same everywhere.
//
// Counts are kept as they come: an end without a begin on an entry whose
// start failed takes the count below zero. A URL whose secure access URL
// cannot be found (never bookmarked while bookmarking is enabled) is refused.
//
// Thread-safety: begin and end may be called from any thread; they wait for
// the controller's private queue and must not be called from it.
#include "fennick/Dispatch/Queue.h"
#include "fennick/Helpers/Files/URLKey.h"
#include "fennick/Runtime/ObjectModel/Object.h"
#include "fennick/Runtime/URLs/URL.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>

namespace fennick {

/// Why access is wanted; nil is allowed.
using OVPropose = std::optional<std::string>;

/// How one security-scoped URL's accesses are counted.
class OVURLsAccessInfo : public Object {
  FENNICK_DECLARE_CLASS(OVURLsAccessInfo, Object)

 public:
  const Ref<URL>& url() const { return url_; }
  virtual bool isAccessing() const = 0;
  virtual void beginAccessingWithPropose(const OVPropose& propose) = 0;
  virtual void endAccessingWithPropose(const OVPropose& propose) = 0;

 protected:
  explicit OVURLsAccessInfo(Ref<URL> url) : url_(std::move(url)) {}

 private:
  const Ref<URL> url_;
};

/// A plain count: begin adds one, end takes one away without a lower bound.
/// The controller's choice. Not thread-safe (the controller's queue guards it).
class OVDeploymentURLsAccessInfo : public OVURLsAccessInfo {
  FENNICK_DECLARE_CLASS(OVDeploymentURLsAccessInfo, OVURLsAccessInfo)

 public:
  static Ref<OVDeploymentURLsAccessInfo> initWithURL(Ref<URL> url);
  std::int64_t proposesCount() const { return proposesCount_; }
  bool isAccessing() const override { return proposesCount_ > 0; }
  void beginAccessingWithPropose(const OVPropose& propose) override;
  void endAccessingWithPropose(const OVPropose& propose) override;

 protected:
  using OVURLsAccessInfo::OVURLsAccessInfo;

 private:
  std::int64_t proposesCount_ = 0;
};

/// Counts per propose (nil counts as "generic"), for diagnosis: it tells
/// which proposes hold a URL open, and ignores an end for a propose it does
/// not hold. Not thread-safe.
class OVDebugURLsAccessInfo : public OVURLsAccessInfo {
  FENNICK_DECLARE_CLASS(OVDebugURLsAccessInfo, OVURLsAccessInfo)

 public:
  static Ref<OVDebugURLsAccessInfo> initWithURL(Ref<URL> url);
  /// How often `propose` is held now.
  std::size_t countForPropose(const OVPropose& propose) const;
  bool isAccessing() const override { return !proposes_.empty(); }
  void beginAccessingWithPropose(const OVPropose& propose) override;
  void endAccessingWithPropose(const OVPropose& propose) override;

 protected:
  using OVURLsAccessInfo::OVURLsAccessInfo;

 private:
  std::map<std::string, std::size_t> proposes_;
};

class OVURLsAccessController : public Object {
  FENNICK_DECLARE_CLASS(OVURLsAccessController, Object)

 public:
  /// The shared controller, made on first use.
  static const Ref<OVURLsAccessController>& defaultURLsAccessController();
  /// A controller with bookmarking enabled.
  static Ref<OVURLsAccessController> init();

  /// When false, begin and end do nothing and succeed, and bookmarkedURL
  /// answers its argument. True at first.
  bool isBookmarkingEnabled() const { return bookmarkingEnabled_.load(); }
  void setIsBookmarkingEnabled(bool enabled) { bookmarkingEnabled_.store(enabled); }
  /// Stored only; changes nothing here.
  bool isDebugMode() const { return debugMode_.load(); }
  void setIsDebugMode(bool debugMode) { debugMode_.store(debugMode); }

  /// Starts access (platform access on the first begin) to `url`'s secure
  /// access URL. NO when it has none or the platform refuses to start.
  bool beginAccessingSecurityScopedResourceAtURL_propose(const Ref<URL>& url, const OVPropose& propose);
  /// Ends one access; the last end stops platform access and drops the entry.
  /// An end for which no entry exists logs "Did fail to get access info for
  /// url <url> with propose <propose>." and does nothing else.
  void endAccessingSecurityScopedResource_propose(const Ref<URL>& url, const OVPropose& propose);
  /// Nil for nil; with bookmarking enabled, the URL bookmarked through
  /// OVBookmarkedURLTransformer (nil when that fails); otherwise `url`.
  Ref<URL> bookmarkedURL(const Ref<URL>& url);

  /// The entry of a security-scoped URL, or nil. On the internal queue only.
  Ref<OVURLsAccessInfo> fetchAccessInfoForURL(const Ref<URL>& url) const;
  /// The entry, made (as a deployment info) when absent. On the internal queue only.
  Ref<OVURLsAccessInfo> fetchOrBuildAccessInfoForURL(const Ref<URL>& url);
  const Ref<dispatch::Queue>& internalQueue() const { return internalQueue_; }

 protected:
  OVURLsAccessController();

 private:

  std::atomic<bool> bookmarkingEnabled_{true};
  std::atomic<bool> debugMode_{false};
  Ref<dispatch::Queue> internalQueue_;
  std::unordered_map<Ref<URL>, Ref<OVURLsAccessInfo>, URLKeyHash, URLKeyEqual> accessInfosByURL_;
};

}  // namespace fennick
