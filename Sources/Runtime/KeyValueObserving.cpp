// Key-value observation.
//
// An addObserver call makes an Observation rooted at the observed object. Its
// key path becomes a chain of PathNodes: one per component, each watching one
// object's key, plus one sub-chain per key path that the class declares as
// affecting that key. Every node puts a trigger in its object's side table;
// will/did change of that key on that object fires the node, which fires its
// observation. A did-change re-links the part of the chain behind the changed
// link, so that dotted paths follow replaced intermediate objects.
//
// Old values are read at will-change time and kept on a per-thread stack of
// pending changes until the matching did-change, so several changes may nest.
// Observers are called with no lock held: they may add and remove
// observations, including their own, from inside the callback.
#include "fennick/Runtime/Dictionary.h"
#include "fennick/Runtime/Null.h"
#include "fennick/Runtime/Number.h"
#include "fennick/Runtime/Internal/SideTable.h"
#include "fennick/Runtime/String.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>

namespace fennick {
namespace detail {

struct PathNode {
  WeakRef<Observation> owner;
  PathNode* parent = nullptr;
  bool isDependency = false;  // reached through a declared dependency of the parent's key
  WeakRef<Object> object;
  std::string key;
  std::string rest;  // components after `key`, empty at the end of the path
  std::vector<Ref<PathNode>> dependencies;
  Ref<PathNode> next;
  // Written under the owner's mutex; read without it on the change path.
  std::atomic<bool> attached{false};

  // Whether a change reaching this node can replace objects further down the
  // chain (so that the chain must be re-linked under the owner's mutex).
  bool mayRelink() const {
    for (const PathNode* link = this; link; link = link->parent)
      if (!link->rest.empty()) return true;
    return false;
  }
};

struct Observation : std::enable_shared_from_this<Observation> {
  WeakRef<Object> observer;
  const Object* observerAddress = nullptr;
  WeakRef<Object> observed;
  std::string keyPath;
  std::uint64_t options = 0;
  void* context = nullptr;

  std::mutex mutex;  // guards the node tree
  std::atomic<bool> active{true};
  Ref<PathNode> root;

  bool wants(std::uint64_t option) const { return (options & option) != 0; }
  bool isActive() const { return active.load(std::memory_order_acquire); }
  void deliver(const Id& object, const Ref<Dictionary>& change);
  void detach();
};

namespace {

const Ref<String>& kindKey() {
  static const Ref<String>& key = *new Ref<String>(String::string(NSKeyValueChangeKindKey));
  return key;
}
const Ref<String>& newKey() {
  static const Ref<String>& key = *new Ref<String>(String::string(NSKeyValueChangeNewKey));
  return key;
}
const Ref<String>& oldKey() {
  static const Ref<String>& key = *new Ref<String>(String::string(NSKeyValueChangeOldKey));
  return key;
}
const Ref<String>& priorKey() {
  static const Ref<String>& key = *new Ref<String>(String::string(NSKeyValueChangeNotificationIsPriorKey));
  return key;
}

Id orNull(const Id& value) { return value ? value : Id(Null::null()); }

std::pair<std::string_view, std::string_view> splitFirstComponent(std::string_view path) {
  const auto dot = path.find('.');
  if (dot == std::string_view::npos) return {path, {}};
  return {path.substr(0, dot), path.substr(dot + 1)};
}

Ref<Dictionary> makeChange(std::size_t capacity) {
  auto change = Dictionary::dictionaryWithCapacity(capacity);
  change->setObject_forKey(Number::numberWithInteger(NSKeyValueChangeSetting), kindKey());
  return change;
}

void attach(const Ref<PathNode>& node);
void detachNode(PathNode& node);

Ref<PathNode> makeNode(const Ref<Observation>& owner, PathNode* parent, bool isDependency,
                       const Id& object, std::string_view path) {
  auto node = std::make_shared<PathNode>();
  node->owner = owner;
  node->parent = parent;
  node->isDependency = isDependency;
  node->object = object;
  auto [key, rest] = splitFirstComponent(path);
  node->key = key;
  node->rest = rest;
  return node;
}

// The value that follows `node` in the chain, read from its object.
Id valueBehind(const PathNode& node) {
  Id object = node.object.lock();
  return object ? object->valueForKey(node.key) : nullptr;
}

void linkNext(PathNode& node, const Ref<Observation>& owner) {
  if (node.rest.empty()) return;
  if (Id value = valueBehind(node)) {
    node.next = makeNode(owner, &node, false, value, node.rest);
    attach(node.next);
  }
}

// Called with the owner's mutex held.
void attach(const Ref<PathNode>& node) {
  Id object = node->object.lock();
  Ref<Observation> owner = node->owner.lock();
  if (!object || !owner) return;
  SideTable::of(*object).addTrigger(node->key, node);
  node->attached = true;
  for (const std::string& path : object->objectClass()->keyPathsForValuesAffectingKey(node->key)) {
    node->dependencies.push_back(makeNode(owner, node.get(), true, object, path));
    attach(node->dependencies.back());
  }
  linkNext(*node, owner);
}

// Called with the owner's mutex held.
void detachNode(PathNode& node) {
  if (!node.attached) return;
  node.attached = false;
  for (const Ref<PathNode>& dependency : node.dependencies) detachNode(*dependency);
  node.dependencies.clear();
  if (node.next) detachNode(*node.next);
  node.next.reset();
  if (Id object = node.object.lock())
    if (SideTable* table = SideTable::find(*object)) table->removeTrigger(node.key, &node);
}

void relinkNext(PathNode& node, const Ref<Observation>& owner) {
  if (node.rest.empty()) return;
  if (node.next) detachNode(*node.next);
  node.next.reset();
  linkNext(node, owner);
}

// A change reached `node`: re-link every chain link whose value may now be a
// different object. A change of a node's own key (or of a key path its key
// depends on) replaces what follows it; a change further down does not.
void relinkAfterChange(PathNode& node, const Ref<Observation>& owner) {
  bool ownKeyChanged = true;
  for (PathNode* link = &node; link; link = link->parent) {
    if (ownKeyChanged) relinkNext(*link, owner);
    ownKeyChanged = link->isDependency;
  }
}

// -- Pending changes, per thread ------------------------------------------------

// Old values read at will-change time, one per trigger. The common case of a
// single trigger needs no allocation.
class OldValues {
 public:
  void push(Id value) {
    if (count_++ == 0) first_ = std::move(value);
    else rest_.push_back(std::move(value));
  }
  const Id& operator[](std::size_t i) const { return i == 0 ? first_ : rest_[i - 1]; }
  std::size_t size() const { return count_; }

 private:
  std::size_t count_ = 0;
  Id first_;
  std::vector<Id> rest_;
};

struct PendingChange {
  const Object* object;
  std::string key;
  Ref<const TriggerList> triggers;
  OldValues oldValues;
};

struct PendingStack {
  std::vector<PendingChange> changes;

  // The most recent pending change of this object's key; an empty one when a
  // did comes without its will.
  PendingChange take(const Object* object, std::string_view key) {
    if (!changes.empty() && changes.back().object == object && changes.back().key == key) {
      PendingChange change = std::move(changes.back());  // the usual, nested case
      changes.pop_back();
      return change;
    }
    for (std::size_t i = changes.size(); i-- > 0;) {
      if (changes[i].object != object || changes[i].key != key) continue;
      PendingChange change = std::move(changes[i]);
      changes.erase(changes.begin() + static_cast<std::ptrdiff_t>(i));
      return change;
    }
    return PendingChange{object, std::string(key), nullptr, {}};
  }
};

PendingStack& pendingStack() {
  thread_local PendingStack stack;
  return stack;
}

}  // namespace

void Observation::deliver(const Id& object, const Ref<Dictionary>& change) {
  Id target = observer.lock();
  if (!target || !isActive()) return;
  target->observeValueForKeyPath_ofObject_change_context(keyPath, object, change, context);
}

void Observation::detach() {
  std::lock_guard lock(mutex);
  active = false;
  if (root) detachNode(*root);
  root.reset();
}

// -- Side table -------------------------------------------------------------------

SideTable::~SideTable() {
  for (const Ref<Observation>& observation : registrations) observation->detach();
  for (auto& [name, binding] : bindings) {
    Id observable = binding.info->objectForKey("NSObservedObject");
    Id keyPath = binding.info->objectForKey("NSObservedKeyPath");
    if (observable && keyPath && binding.observer)
      observable->removeObserver_forKeyPath(binding.observer.get(), keyPath->description());
  }
}

void SideTable::addTrigger(const std::string& key, const Ref<PathNode>& node) {
  std::lock_guard lock(mutex);
  auto& list = triggers[key];
  auto updated = list ? std::make_shared<TriggerList>(*list) : std::make_shared<TriggerList>();
  updated->push_back(node);
  list = std::move(updated);
}

void SideTable::removeTrigger(const std::string& key, const PathNode* node) {
  std::lock_guard lock(mutex);
  auto it = triggers.find(key);
  if (it == triggers.end()) return;
  auto updated = std::make_shared<TriggerList>(*it->second);
  std::erase_if(*updated, [&](const Ref<PathNode>& n) { return n.get() == node; });
  if (updated->empty()) triggers.erase(it);
  else it->second = std::move(updated);
}

Ref<const TriggerList> SideTable::triggersForKey(std::string_view key) {
  std::lock_guard lock(mutex);
  auto it = triggers.find(key);
  return it == triggers.end() ? nullptr : it->second;
}

}  // namespace detail

using detail::Observation;
using detail::PathNode;

detail::SideTable& Object::ensureSideTable() const {
  detail::SideTable* table = side_.load(std::memory_order_acquire);
  if (table) return *table;
  auto* fresh = new detail::SideTable;
  if (side_.compare_exchange_strong(table, fresh, std::memory_order_acq_rel)) return *fresh;
  delete fresh;
  return *table;
}

void Object::addObserver_forKeyPath_options_context(const Id& observer, std::string_view keyPath,
                                                    std::uint64_t options, void* context) {
  if (!observer)
    throw Exception(NSInvalidArgumentException, "addObserver:forKeyPath:options:context: observer is nil");
  if (keyPath.empty())
    throw Exception(NSInvalidArgumentException, "addObserver:forKeyPath:options:context: empty key path");
  auto observation = std::make_shared<Observation>();
  observation->observer = observer;
  observation->observerAddress = observer.get();
  observation->observed = weak_from_this();
  observation->keyPath = keyPath;
  observation->options = options;
  observation->context = context;
  {
    std::lock_guard lock(observation->mutex);
    observation->root = detail::makeNode(observation, nullptr, false, self(), keyPath);
    detail::attach(observation->root);
  }
  {
    detail::SideTable& table = ensureSideTable();
    std::lock_guard lock(table.mutex);
    table.registrations.push_back(observation);
  }
  if (options & NSKeyValueObservingOptionInitial) {
    auto change = detail::makeChange(2);
    if (options & NSKeyValueObservingOptionNew)
      change->setObject_forKey(detail::orNull(valueForKeyPath(keyPath)), detail::newKey());
    observation->deliver(self(), change);
  }
}

namespace {

void removeObservation(Object& object, detail::SideTable* table, const Object* observer,
                       std::string_view keyPath, const void* const* context) {
  Ref<Observation> removed;
  if (table) {
    std::lock_guard lock(table->mutex);
    auto& list = table->registrations;
    for (auto it = list.rbegin(); it != list.rend(); ++it) {
      const Observation& o = **it;
      if (o.observerAddress == observer && o.keyPath == keyPath && (!context || o.context == *context)) {
        removed = *it;
        list.erase(std::next(it).base());
        break;
      }
    }
  }
  if (!removed)
    throw Exception(NSRangeException,
                    fmt::format("Cannot remove an observer <{}> for the key path \"{}\" from {} "
                                "because it is not registered as an observer.",
                                static_cast<const void*>(observer), keyPath, object.description()));
  removed->detach();
}

}  // namespace

void Object::removeObserver_forKeyPath(const Object* observer, std::string_view keyPath) {
  removeObservation(*this, sideTable(), observer, keyPath, nullptr);
}

void Object::removeObserver_forKeyPath_context(const Object* observer, std::string_view keyPath,
                                               void* context) {
  const void* const expected = context;
  removeObservation(*this, sideTable(), observer, keyPath, &expected);
}

std::size_t Object::observationCountForKeyPath(std::string_view keyPath) const {
  detail::SideTable* table = sideTable();
  if (!table) return 0;
  std::lock_guard lock(table->mutex);
  return static_cast<std::size_t>(std::count_if(
      table->registrations.begin(), table->registrations.end(),
      [&](const Ref<Observation>& o) { return o->keyPath == keyPath; }));
}

void Object::willChangeValueForKey(std::string_view key) {
  detail::SideTable* table = sideTable();
  if (!table) return;
  Ref<const detail::TriggerList> triggers = table->triggersForKey(key);
  if (!triggers) return;
  detail::OldValues oldValues;
  for (const Ref<PathNode>& node : *triggers) {
    Ref<Observation> owner = node->owner.lock();
    Id observed = owner ? owner->observed.lock() : nullptr;
    Id oldValue;
    if (observed && owner->wants(NSKeyValueObservingOptionOld))
      oldValue = detail::orNull(observed->valueForKeyPath(owner->keyPath));
    if (observed && owner->wants(NSKeyValueObservingOptionPrior)) {
      auto change = detail::makeChange(3);
      change->setObject_forKey(Number::numberWithBool(true), detail::priorKey());
      if (oldValue) change->setObject_forKey(oldValue, detail::oldKey());
      owner->deliver(observed, change);
    }
    oldValues.push(std::move(oldValue));
  }
  detail::pendingStack().changes.push_back(
      detail::PendingChange{this, std::string(key), std::move(triggers), std::move(oldValues)});
}

void Object::didChangeValueForKey(std::string_view key) {
  detail::SideTable* table = sideTable();
  if (!table) return;
  detail::PendingChange pending = detail::pendingStack().take(this, key);
  // A did without a will still notifies, without old values.
  if (!pending.triggers) pending.triggers = table->triggersForKey(key);
  if (!pending.triggers) return;
  const detail::OldValues& olds = pending.oldValues;
  for (std::size_t i = 0; i < pending.triggers->size(); ++i) {
    const Ref<PathNode>& node = (*pending.triggers)[i];
    Ref<Observation> owner = node->owner.lock();
    if (!owner) continue;
    if (node->mayRelink()) {
      std::lock_guard lock(owner->mutex);
      if (!owner->isActive() || !node->attached) continue;
      detail::relinkAfterChange(*node, owner);
    } else if (!owner->isActive() || !node->attached.load(std::memory_order_acquire)) {
      continue;
    }
    Id observed = owner->observed.lock();
    if (!observed) continue;
    auto change = detail::makeChange(3);
    if (owner->wants(NSKeyValueObservingOptionNew))
      change->setObject_forKey(detail::orNull(observed->valueForKeyPath(owner->keyPath)), detail::newKey());
    if (i < olds.size() && olds[i]) change->setObject_forKey(olds[i], detail::oldKey());
    owner->deliver(observed, change);
  }
}

void Object::observeValueForKeyPath_ofObject_change_context(const std::string& keyPath,
                                                            const Id& object,
                                                            const Ref<Dictionary>& change,
                                                            void* context) {
  throw Exception(NSInternalInconsistencyException,
                  fmt::format("{}: An -observeValueForKeyPath:ofObject:change:context: message was "
                              "received but not handled.\nKey path: {}\nObserved object: {}\n"
                              "Change: {}\nContext: {}",
                              description(), keyPath, object ? object->description() : "(null)",
                              change ? change->description() : "(null)", context));
}

}  // namespace fennick
