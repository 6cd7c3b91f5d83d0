#include "Demo.h"

#include <fennick/Fennick.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

namespace fennick::tool {

namespace {

// A file download whose progress can be observed.
class Download : public Object {
  FENNICK_DECLARE_CLASS(Download, Object)

 public:
  static Ref<Download> named(std::string name) {
    auto download = make<Download>();
    download->name_ = String::string(name);
    return download;
  }
  Ref<String> name() const { return name_; }
  std::int64_t percent() const { return percent_.load(); }
  void setPercent(std::int64_t percent) { percent_.store(percent); }

 protected:
  Download() = default;

 private:
  Ref<String> name_;
  std::atomic<std::int64_t> percent_{0};
};

FENNICK_DEFINE_CLASS(Download) {
  builder.property("name", &Download::name);
  builder.observableProperty("percent", &Download::percent, &Download::setPercent);
}

// Sample catalogue: name, kind, size in kilobytes.
struct Sample {
  const char* name;
  const char* kind;
  int kilobytes;
};
constexpr Sample kCatalogue[] = {
    {"notes.txt", "text", 4},       {"report.pdf", "document", 880}, {"photo.jpg", "image", 2400},
    {"todo.txt", "text", 1},        {"slides.pdf", "document", 5200}, {"icon.png", "image", 12},
};

// Waits until a count is reached, or a second passes.
class Countdown {
 public:
  void hit() {
    std::lock_guard lock(mutex_);
    ++hits_;
    changed_.notify_all();
  }
  bool waitFor(int hits) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(5), [&] { return hits_ >= hits; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int hits_ = 0;
};

void showObservation(std::FILE* out) {
  std::fprintf(out, "\n== Observation: a receptionist watching a download\n");
  auto download = Download::named("slides.pdf");
  auto receptionist = OVReceptionist::init();
  receptionist->startObservationOfObject_forKeyPath_wantsInitialInvocation_changeBlock(
      download, "percent", true,
      [out](const Id& object, const std::string& keyPath, const Id& now, const Id& before) {
        std::fprintf(out, "  %s.%s: %s -> %s\n", object->valueForKey("name")->description().c_str(),
                     keyPath.c_str(), before ? before->description().c_str() : "(initial)",
                     now->description().c_str());
      });
  for (int percent : {25, 60, 100}) download->setValueForKey(Number::of(percent), "percent");
}

void showCollections(std::FILE* out) {
  std::fprintf(out, "\n== Collections: grouping and filtering a catalogue\n");
  auto files = Array::array();
  for (const Sample& sample : kCatalogue)
    files->addObject(Dictionary::dictionaryWithStringKeys({{"name", String::string(sample.name)},
                                                           {"kind", String::string(sample.kind)},
                                                           {"kilobytes", Number::of(sample.kilobytes)}}));
  auto byKind = files->groupBy([](const Id& file, std::size_t) { return file->valueForKey("kind"); });
  byKind->enumerateKeysAndObjectsUsingBlock([out](const Id& kind, const Id& members, bool&) {
    auto names = Array::castObject(members)->valueForKey("name");
    std::fprintf(out, "  %-9s %s\n", kind->description().c_str(),
                 Array::castObject(names)->componentsJoinedByString(", ")->UTF8String());
  });
  auto large = files->filter([](const Id& file, std::size_t, bool&) {
    return Number::castObject(file->valueForKey("kilobytes"))->integerValue() > 1000;
  });
  std::fprintf(out, "  larger than 1 MB: %s\n",
               Array::castObject(large->valueForKey("name"))->componentsJoinedByString(", ")->UTF8String());
}

void showProactor(std::FILE* out) {
  std::fprintf(out, "\n== Proactor: six requests for two files, two downloads\n");
  auto proactor = OVProactor::init();
  std::atomic<int> runs{0};
  auto group = proactor->addGroupWithID_startsActionAutomatically_handlerBlock(
      "download"_s, true, [&runs](const Ref<OVProactorAction>& action) {
        ++runs;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));  // the "network"
        action->setObject_forKey(String::format("{} bytes", action->argument()->description().size() * 1000),
                                 "size"_s);
        action->complete();
      });
  Countdown delivered;
  std::mutex printing;
  const char* requests[] = {"report.pdf", "photo.jpg", "report.pdf", "report.pdf", "photo.jpg", "report.pdf"};
  for (int i = 0; i < 6; ++i) {
    auto action = group->actionForArgument(String::string(requests[i]));
    action->addCompletionHandler([&, i, name = std::string(requests[i])](const Ref<OVProactorResult>& result) {
      {
        std::lock_guard lock(printing);
        std::fprintf(out, "  request %d for %s: %s\n", i + 1, name.c_str(),
                     result->objectForKey("size"_s)->description().c_str());
      }
      delivered.hit();
    });
  }
  delivered.waitFor(6);
  std::fprintf(out, "  work ran %d times for 6 requests\n", runs.load());
}

void showCancellation(std::FILE* out) {
  std::fprintf(out, "\n== Cancellation: one failed upload cancels the whole batch\n");
  auto batch = OVCancellationGroup::initWithPolicy(OVCancellationGroupPolicyAny);
  auto photos = OVCancellationGroup::initWithPolicy(OVCancellationGroupPolicyAny);
  auto documents = OVCancellationGroup::initWithPolicy(OVCancellationGroupPolicyAny);
  batch->addChild(photos);
  batch->addChild(documents);
  std::vector<std::pair<std::string, Ref<OVCancellationToken>>> uploads;
  Countdown stopped;
  std::mutex printing;
  for (const Sample& sample : kCatalogue) {
    auto token = OVCancellationToken::init();
    token->addCancellationHandler([&, name = std::string(sample.name)] {
      {
        std::lock_guard lock(printing);
        std::fprintf(out, "  upload of %s stopped\n", name.c_str());
      }
      stopped.hit();
    });
    (std::string(sample.kind) == "image" ? photos : documents)->addChild(token);
    uploads.emplace_back(sample.name, token);
  }
  std::fprintf(out, "  photo.jpg failed; cancelling its token\n");
  uploads[2].second->cancel();
  stopped.waitFor(static_cast<int>(uploads.size()));
  std::fprintf(out, "  batch cancelled: %s\n", batch->isCancelled() ? "yes" : "no");
}

// An embedded settings file, as an application would ship it.
constexpr const char kSettingsJSON[] = R"({
  "name": "Photo Sync",
  "version": "2.4.1",
  "folders": ["~/Pictures", "~/Documents/Scans"],
  "limits": {"maxUploads": 4, "throttle": 0.75, "wifiOnly": true},
  "lastRun": null
})";

void showFormats(std::FILE* out) {
  std::fprintf(out, "\n== Formats: JSON in, property list and keyed archive out\n");
  Ref<Error> error;
  auto settings = Dictionary::dynamicCastObject(JSON::JSONObjectWithString_options_error(kSettingsJSON, 0, &error));
  if (!settings) {
    std::fprintf(out, "  JSON failed: %s\n", error->localizedDescription().c_str());
    return;
  }
  std::fprintf(out, "  JSON: %s %s, %zu folders, throttle %s\n", settings->objectForKey("name")->description().c_str(),
               settings->objectForKey("version")->description().c_str(),
               Array::castObject(settings->objectForKey("folders"))->count(),
               settings->valueForKeyPath("limits.throttle")->description().c_str());
  std::fprintf(out, "  a malformed file is refused: ");
  if (!JSON::JSONObjectWithString_options_error("{\"name\": ", 0, &error))
    std::fprintf(out, "%s\n", error->localizedDescription().c_str());

  settings->removeObjectForKey("lastRun");  // property lists have no null
  auto xml = PropertyList::dataWithPropertyList_format_error(settings, PropertyListFormat::XML, &error);
  auto binary = PropertyList::dataWithPropertyList_format_error(settings, PropertyListFormat::Binary, &error);
  auto back = PropertyList::propertyListWithData_format_error(binary, nullptr, &error);
  std::fprintf(out, "  property list: %zu bytes as XML, %zu as binary, reads back %s\n", xml->length(),
               binary->length(), back && back->isEqual(settings) ? "equal" : "different");

  auto archive = KeyedArchiver::archivedDataWithRootObject_requiringSecureCoding_error(settings, true, &error);
  auto restored = KeyedUnarchiver::unarchivedObjectOfClasses_fromData_error(
      {Dictionary::staticClass(), Array::staticClass(), String::staticClass(), Number::staticClass()}, archive,
      &error);
  std::fprintf(out, "  keyed archive: %zu bytes, restores %s\n", archive->length(),
               restored && restored->isEqual(settings) ? "an equal dictionary" : "something else");
  auto refused = KeyedUnarchiver::unarchivedObjectOfClasses_fromData_error({Array::staticClass()}, archive, &error);
  std::fprintf(out, "  decoding it as an array only is refused: %s\n",
               refused ? "no" : error->userInfo()->objectForKey(NSDebugDescriptionErrorKey)->description().c_str());
}

std::multimap<int, DemoSection>& demoSections() {
  static std::multimap<int, DemoSection> sections;
  return sections;
}

int runDemoCommand(const Arguments&) { return runDemo(stdout); }

FENNICK_TOOL_COMMAND({.name = "demo",
                      .summary = "a tour of the framework on sample data",
                      .usage = "usage: fennick demo\n\n"
                               "Shows what each part of the framework does, on embedded sample data\n"
                               "and in a temporary folder that is removed afterwards.\n",
                      .maxArguments = 0,
                      .run = runDemoCommand});

FENNICK_DEMO_SECTION(10, showObservation);
FENNICK_DEMO_SECTION(20, showCollections);
FENNICK_DEMO_SECTION(30, showFormats);
FENNICK_DEMO_SECTION(40, showProactor);
FENNICK_DEMO_SECTION(50, showCancellation);

}  // namespace

DemoSectionRegistrar::DemoSectionRegistrar(int rank, DemoSection section) {
  demoSections().emplace(rank, section);
}

int runDemo(std::FILE* out) {
  std::fprintf(out, "Fennick %s: a tour\n", versionString());
  for (const auto& [rank, section] : demoSections()) section(out);
  return 0;
}

}  // namespace fennick::tool
