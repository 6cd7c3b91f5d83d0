#pragma once
// Per-object records that only observed or bound objects need: the triggers
// that fire on will/did change of a key, the observations rooted at the
// object, and its bindings. Internal to the runtime.
#include "fennick/Runtime/ObjectModel/Class.h"
#include "fennick/Runtime/ObjectModel/Object.h"

#include <mutex>
#include <string>
#include <vector>

namespace fennick::detail {

struct Observation;
struct PathNode;
using TriggerList = std::vector<Ref<PathNode>>;

struct BindingRecord {
  Ref<Dictionary> info;
  Id observer;  // the object that keeps the bound property in step
};

struct SideTable {
  ~SideTable();

  /// The object's table, made on first use.
  static SideTable& of(const Object& object) { return object.ensureSideTable(); }
  /// The object's table, or nullptr when nobody ever observed or bound it.
  static SideTable* find(const Object& object) { return object.sideTable(); }

  std::mutex mutex;
  // Copy-on-write, so that a change can take the current list and walk it
  // without holding the lock.
  StringMap<Ref<const TriggerList>> triggers;
  std::vector<Ref<Observation>> registrations;
  StringMap<BindingRecord> bindings;

  void addTrigger(const std::string& key, const Ref<PathNode>& node);
  void removeTrigger(const std::string& key, const PathNode* node);
  Ref<const TriggerList> triggersForKey(std::string_view key);
};

}  // namespace fennick::detail
