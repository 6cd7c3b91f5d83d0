// Many threads registering and removing observers while others rename, write
// and delete the observed files: nothing is delivered after a removal took
// effect, and once every observer is gone every watch and descriptor, those
// of the folders above the files included, is released.
#include "Helpers/Files/FileObserverRecorder.h"
#include "Support/HelpersTestSupport.h"
#include "Support/FileTestSupport.h"

#include "fennick/Helpers/Files/OVFileMonitoringManager.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <random>
#include <thread>

namespace fennick {
namespace {

using filetest::TemporaryFolder;

constexpr int kFiles = 200;
constexpr int kObserverThreads = 8;
constexpr int kRoundsPerThread = 40;
constexpr int kRegistrationsPerRound = 4;

std::atomic<int> lateDeliveries{0};
std::atomic<int> deliveries{0};

// Marked removed on the manager's queue right after its removal ran there;
// the manager calls observers on that same queue, so any call after the mark
// came after the removal took effect.
class CountingObserver : public OVFileObserver {
 public:
  void didChangeWithFlags_forURL(std::uintptr_t, const Ref<URL>&) override { heard(); }
  void didMoveFileAtURL_fromFilePathURL_toFilePathURL(const Ref<URL>&, const Ref<URL>&, const Ref<URL>&) override {
    heard();
  }
  void heard() {
    ++deliveries;
    if (removed.load()) ++lateDeliveries;
  }
  std::atomic<bool> removed{false};
};

// The files, in two folders, moved between them, rewritten and replaced.
class FileSet {
 public:
  explicit FileSet(const TemporaryFolder& folder) : folder_(folder) {
    ::mkdir((folder / "left").c_str(), 0755);
    ::mkdir((folder / "right").c_str(), 0755);
    for (int index = 0; index < kFiles; ++index) {
      filetest::writeFile(pathOf(index), "x");
      references_.push_back(URL::fileURLWithPath(pathOf(index))->fileReferenceURL());
    }
  }
  std::string pathOf(int index) {
    return folder_ / ((onRight_[index] ? "right/f" : "left/f") + std::to_string(index));
  }
  // The item now at the file's place: observers mostly watch living items.
  Ref<URL> reference(int index) {
    std::lock_guard lock(mutex_);
    return references_[index];
  }
  void dropReferences() {
    std::lock_guard lock(mutex_);
    references_.clear();
  }

  void mutate(std::mt19937& random) {
    const int index = static_cast<int>(random() % kFiles);
    std::lock_guard lock(mutex_);
    switch (random() % 3) {
      case 0: {
        const std::string from = pathOf(index);
        onRight_[index] = !onRight_[index];
        ::rename(from.c_str(), pathOf(index).c_str());
        break;
      }
      case 1:
        filetest::appendToFile(pathOf(index), "more");
        break;
      default:  // delete and create again: another item at the same path
        ::unlink(pathOf(index).c_str());
        filetest::writeFile(pathOf(index), "new");
        references_[index] = URL::fileURLWithPath(pathOf(index))->fileReferenceURL();
    }
  }

 private:
  const TemporaryFolder& folder_;
  std::mutex mutex_;
  bool onRight_[kFiles] = {};
  std::vector<Ref<URL>> references_;
};

struct Registration {
  Ref<URL> url;
  bool recursive = false;
  std::shared_ptr<CountingObserver> observer;  // protocol observer, or
  Ref<OVBlockBasedFileObserver> token;         // block observer
  std::shared_ptr<std::atomic<bool>> blockRemoved;
};

Registration add(const Ref<OVFileMonitoringManager>& manager, const Ref<URL>& url, std::mt19937& random) {
  Registration registration;
  registration.url = url;
  registration.recursive = random() % 2 == 0;
  if (random() % 2) {
    registration.observer = std::make_shared<CountingObserver>();
    manager->addObserver_url_isRecursive(registration.observer, url, registration.recursive);
  } else {
    registration.blockRemoved = std::make_shared<std::atomic<bool>>(false);
    registration.token = manager->addObserverOfURL_isRecursive_withBlock(
        url, registration.recursive, [removed = registration.blockRemoved](std::uintptr_t) {
          ++deliveries;
          if (removed->load()) ++lateDeliveries;
        });
  }
  return registration;
}

void remove(const Ref<OVFileMonitoringManager>& manager, const Registration& registration) {
  if (registration.observer) {
    manager->removeObserver_url_isRecursive(registration.observer, registration.url, registration.recursive);
    manager->internalQueue()->async([observer = registration.observer] { observer->removed = true; });
  } else {
    manager->removeObserver(registration.token);
    manager->internalQueue()->async([removed = registration.blockRemoved] { *removed = true; });
  }
}

TEST(FileMonitoringStressTest, ObserversComeAndGoWhileFilesChange) {
  TemporaryFolder folder;
  const int descriptors = filetest::descriptorBaseline();
  const std::size_t watches = platform::vnodeWatchCount();
  const auto& manager = OVFileMonitoringManager::defaultMonitor();
  const std::size_t monitorsBefore = manager->monitorCount();
  {
    FileSet files(folder);
    // An item deleted before the manager reaches its registration gets no
    // monitor, nor do the folders above it; on a slow run that can be every
    // one. A recursive observer of an untouched file makes folder monitors
    // whatever the timing, which must be let go of at the end.
    filetest::writeFile(folder / "left/anchor", "x");
    const Ref<URL> anchor = URL::fileURLWithPath(folder / "left/anchor");
    const auto anchorToken = manager->addObserverOfURL_isRecursive_withBlock(anchor, true, [](std::uintptr_t) {});
    std::atomic<bool> observing{true};
    std::vector<std::thread> mutators;
    for (int seed = 0; seed < 2; ++seed) {
      mutators.emplace_back([&, seed] {
        std::mt19937 random(1000 + seed);
        while (observing.load()) files.mutate(random);
      });
    }
    std::vector<std::thread> observers;
    for (int seed = 0; seed < kObserverThreads; ++seed) {
      observers.emplace_back([&, seed] {
        std::mt19937 random(seed);
        for (int round = 0; round < kRoundsPerThread; ++round) {
          std::vector<Registration> registrations;
          for (int count = 0; count < kRegistrationsPerRound; ++count)
            registrations.push_back(add(manager, files.reference(static_cast<int>(random() % kFiles)), random));
          if (round % 10 == 0) {
            // Now and then, hold the registrations until something was heard.
            const int heard = deliveries.load();
            testing::eventually([&] { return deliveries.load() > heard; }, std::chrono::milliseconds(200));
          }
          std::shuffle(registrations.begin(), registrations.end(), random);
          for (const auto& registration : registrations) remove(manager, registration);
        }
      });
    }
    for (auto& thread : observers) thread.join();
    observing = false;
    for (auto& thread : mutators) thread.join();
    manager->removeObserver(anchorToken);
    manager->internalQueue()->sync([] {});
    files.dropReferences();
  }

  EXPECT_EQ(lateDeliveries.load(), 0);
  EXPECT_GT(deliveries.load(), 0);
  // With every observer gone, nothing is held: no monitor, no watch, no
  // descriptor. Teardown runs on the monitors' and the reactor's queues;
  // under a loaded sanitizer run it can take far longer than usual.
  EXPECT_EQ(manager->monitorCount(), monitorsBefore);
  constexpr auto kTeardown = std::chrono::seconds(60);
  EXPECT_TRUE(testing::eventually([&] { return platform::vnodeWatchCount() == watches; }, kTeardown))
      << platform::vnodeWatchCount() << " watches";
  EXPECT_TRUE(testing::eventually([&] { return filetest::openDescriptorCount() == descriptors; }, kTeardown))
      << filetest::openDescriptorCount() << " descriptors open";
}

}  // namespace
}  // namespace fennick
