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
// Locking: the owner's mutex guards the shape of the node tree (next links,
// dependencies, attachment) and nothing else. Getters are user code, so they
// are never called under it: a re-link reads the link's generation under the
// lock, reads the value with no lock held, and commits only if no other
// re-link of that link committed in between (otherwise it reads again). A
// node's trigger is in place before the value behind it is read, so a change
// racing with the read re-links the node itself.
//
// Old values are read at will-change time and kept on a per-thread stack of
// pending changes until the matching did-change, so several changes may nest.
// Observers are called with no lock held: they may add and remove
// observations, including their own, from inside the callback.
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Values/Null.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Observation/Internal/AutomaticChange.h"
#include "fennick/Runtime/Observation/Internal/SideTable.h"
#include "fennick/Runtime/Values/String.h"

#include <fmt/format.h>

#include <cstdio>
#include <cstdlib>

#include <algorithm>
#include <atomic>
#include <exception>

namespace fennick {
namespace detail {

struct PathNode : std::enable_shared_from_this<PathNode> {
  PathNode(const Ref<Observation>& owner, PathNode* parent, bool isDependency, const Id& object,
           std::string_view key, std::string_view rest)
      : owner(owner),
        parent(parent),
        isDependency(isDependency),
        object(object),
        key(key),
        rest(rest),
        pathChangeRelinks(parent && (isDependency ? parent->keyChangeRelinks : parent->pathChangeRelinks)),
        keyChangeRelinks(!this->rest.empty() || pathChangeRelinks) {}

  const WeakRef<Observation> owner;
  // Read only under the owner's mutex, while this node is attached: detaching
  // marks a whole subtree before any of it is freed.
  PathNode* const parent;
  const bool isDependency;  // reached through a declared dependency of the parent's key
  const WeakRef<Object> object;
  const std::string key;
  const std::string rest;  // components after `key`, empty at the end of the path
  // Decided once, here: whether a change of this node's path value, or of its
  // own key, can replace objects somewhere in the chain. A change of a node's
  // key replaces what follows it; a change of its path changes its parent's
  // key when it is a dependency of the parent, and its parent's path always.
  const bool pathChangeRelinks;
  const bool keyChangeRelinks;

  // Guarded by the owner's mutex.
  std::vector<Ref<PathNode>> dependencies;
  Ref<PathNode> next;
  std::uint64_t linkGeneration = 0;
  // Written under the owner's mutex; read without it on the change path.
  std::atomic<bool> attached{false};
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
  void detach() noexcept;
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

// A change dictionary, frozen once filled so that every receiver shares it:
// copying a frozen dictionary returns it as it is.
Ref<Dictionary> makeChange(const Id& newValue, const Id& oldValue, bool prior) {
  static const Id& setting = *new Id(Number::numberWithInteger(NSKeyValueChangeSetting));
  auto change = Dictionary::dictionaryWithCapacity(3);
  change->setObject_forKey(setting, kindKey());
  if (prior) change->setObject_forKey(Number::numberWithBool(true), priorKey());
  if (newValue) change->setObject_forKey(newValue, newKey());
  if (oldValue) change->setObject_forKey(oldValue, oldKey());
  change->makeImmutable();
  return change;
}

Ref<PathNode> makeNode(const Ref<Observation>& owner, PathNode* parent, bool isDependency,
                       const Id& object, std::string_view path) {
  auto [key, rest] = splitFirstComponent(path);
  return std::make_shared<PathNode>(owner, parent, isDependency, object, key, rest);
}

// Puts the node's trigger, and those of the dependencies its class declares
// for the key, in place. Calls no user code. Called with the owner's mutex held.
void attachNode(const Ref<PathNode>& node, const Ref<Observation>& owner) {
  Id object = node->object.lock();
  if (!object) return;
  SideTable::of(*object).addTrigger(node->key, node);
  node->attached = true;
  for (const std::string& path : object->objectClass()->keyPathsForValuesAffectingKey(node->key)) {
    node->dependencies.push_back(makeNode(owner, node.get(), true, object, path));
    attachNode(node->dependencies.back(), owner);
  }
}

// Takes the subtree out of the side tables and marks it detached, before any
// of it can be freed. Called with the owner's mutex held.
void detachNode(PathNode& node) noexcept {
  if (!node.attached) return;
  node.attached = false;
  for (const Ref<PathNode>& dependency : node.dependencies) detachNode(*dependency);
  node.dependencies.clear();
  if (node.next) detachNode(*node.next);
  node.next.reset();
  if (Id object = node.object.lock())
    if (SideTable* table = SideTable::find(*object)) table->removeTrigger(node.key, &node);
}

// The value that follows `node` in the chain, read from its object: a getter,
// called with no lock held.
Id valueBehind(const PathNode& node) {
  Id object = node.object.lock();
  return object ? object->valueForKey(node.key) : nullptr;
}

void extend(const Ref<PathNode>& node, const Ref<Observation>& owner);

// Makes node.next follow the current value behind the node.
void relinkNext(const Ref<PathNode>& node, const Ref<Observation>& owner) {
  for (;;) {
    std::uint64_t seen;
    {
      std::lock_guard lock(owner->mutex);
      if (!node->attached) return;
      seen = node->linkGeneration;
    }
    const Id value = valueBehind(*node);
    Ref<PathNode> fresh, stale;
    {
      std::lock_guard lock(owner->mutex);
      if (!node->attached) return;
      if (node->linkGeneration != seen) continue;  // another re-link committed meanwhile
      if (node->next ? value && node->next->object.lock() == value : !value) return;
      stale = std::move(node->next);
      if (stale) detachNode(*stale);
      if (value) {
        fresh = makeNode(owner, node.get(), false, value, node->rest);
        attachNode(fresh, owner);
        node->next = fresh;
      }
      ++node->linkGeneration;
    }
    if (fresh) extend(fresh, owner);
    return;
  }
}

// Builds what hangs below a node whose trigger is in place: its next link
// and those of its dependencies, recursively.
void extend(const Ref<PathNode>& node, const Ref<Observation>& owner) {
  if (!node->rest.empty()) relinkNext(node, owner);
  std::vector<Ref<PathNode>> dependencies;
  {
    std::lock_guard lock(owner->mutex);
    if (!node->attached) return;
    dependencies = node->dependencies;
  }
  for (const Ref<PathNode>& dependency : dependencies) extend(dependency, owner);
}

// A change reached `node`: re-link every chain link whose value may now be a
// different object. Answers false when the node is no longer attached.
bool relinkAfterChange(const Ref<PathNode>& node, const Ref<Observation>& owner) {
  std::vector<Ref<PathNode>> links;
  {
    std::lock_guard lock(owner->mutex);
    if (!owner->isActive() || !node->attached) return false;
    bool keyChanged = true;
    for (PathNode* link = node.get(); link; link = link->parent) {
      if (keyChanged && !link->rest.empty()) links.push_back(link->shared_from_this());
      keyChanged = link->isDependency;
    }
  }
  for (const Ref<PathNode>& link : links) relinkNext(link, owner);
  return true;
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
  // The object by identity: the weak reference tells a live object from a
  // dead one whose address a new object has taken.
  const Object* address = nullptr;
  WeakRef<const Object> object;
  std::string key;
  Ref<const TriggerList> triggers;
  OldValues oldValues;

  bool isFor(const Object* candidate, std::string_view candidateKey) const {
    return address == candidate && key == candidateKey && !object.expired();
  }
};

struct PendingStack {
  std::vector<PendingChange> changes;

  // The most recent pending change of this object's key, taken off the stack;
  // an empty one when a did comes without its will.
  PendingChange take(const Object* object, std::string_view key) {
    for (std::size_t i = changes.size(); i-- > 0;) {
      if (!changes[i].isFor(object, key)) continue;
      PendingChange change = std::move(changes[i]);
      changes.erase(changes.begin() + static_cast<std::ptrdiff_t>(i));
      dropDead();
      return change;
    }
    dropDead();
    return PendingChange{};
  }

  // Entries of objects that died between their will and did (a will that
  // never got its did) can never match again.
  void dropDead() {
    std::erase_if(changes, [](const PendingChange& change) { return change.object.expired(); });
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

void Observation::detach() noexcept {
  Ref<PathNode> tree;
  {
    std::lock_guard lock(mutex);
    active = false;
    if (root) detachNode(*root);
    tree = std::move(root);
  }
  // `tree` is freed here, outside the lock.
}

// -- Side table -------------------------------------------------------------------

SideTable::~SideTable() {
  for (const Ref<Observation>& observation : registrations) observation->detach();
  for (auto& [name, binding] : bindings) {
    Id observable = binding.info->objectForKey("NSObservedObject");
    Id keyPath = binding.info->objectForKey("NSObservedKeyPath");
    if (observable && keyPath && binding.observer)
      observable->removeObserverIfRegistered_forKeyPath(binding.observer.get(), keyPath->description());
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
  Ref<PathNode> root = detail::makeNode(observation, nullptr, false, self(), keyPath);
  {
    std::lock_guard lock(observation->mutex);
    observation->root = root;
    detail::attachNode(root, observation);
  }
  {
    detail::SideTable& table = ensureSideTable();
    std::lock_guard lock(table.mutex);
    table.registrations.push_back(observation);
  }
  // The triggers are in place: the rest of the chain is read with no lock
  // held, and a change racing with that read re-links what it changed.
  try {
    detail::extend(root, observation);
  } catch (...) {
    detail::SideTable& table = ensureSideTable();
    {
      std::lock_guard lock(table.mutex);
      std::erase(table.registrations, observation);
    }
    observation->detach();
    throw;
  }
  if (options & NSKeyValueObservingOptionInitial) {
    Id value = (options & NSKeyValueObservingOptionNew) ? detail::orNull(valueForKeyPath(keyPath)) : nullptr;
    observation->deliver(self(), detail::makeChange(value, nullptr, false));
  }
}

namespace {

Ref<Observation> takeRegistration(detail::SideTable* table, const Object* observer,
                                  std::string_view keyPath, const void* const* context) noexcept {
  if (!table) return nullptr;
  std::lock_guard lock(table->mutex);
  auto& list = table->registrations;
  for (auto it = list.rbegin(); it != list.rend(); ++it) {
    const Observation& o = **it;
    if (o.observerAddress == observer && o.keyPath == keyPath && (!context || o.context == *context)) {
      Ref<Observation> removed = std::move(*it);
      list.erase(std::next(it).base());
      return removed;
    }
  }
  return nullptr;
}

void removeObservation(Object& object, const Object* observer, std::string_view keyPath,
                       const void* const* context) {
  Ref<Observation> removed =
      takeRegistration(detail::SideTable::find(object), observer, keyPath, context);
  if (!removed)
    throw Exception(NSRangeException,
                    fmt::format("Cannot remove an observer <{}> for the key path \"{}\" from {} "
                                "because it is not registered as an observer.",
                                static_cast<const void*>(observer), keyPath, object.description()));
  removed->detach();
}

}  // namespace

void Object::removeObserver_forKeyPath(const Object* observer, std::string_view keyPath) {
  removeObservation(*this, observer, keyPath, nullptr);
}

void Object::removeObserver_forKeyPath_context(const Object* observer, std::string_view keyPath,
                                               void* context) {
  const void* const expected = context;
  removeObservation(*this, observer, keyPath, &expected);
}

bool Object::removeObserverIfRegistered_forKeyPath(const Object* observer,
                                                   std::string_view keyPath) noexcept {
  Ref<Observation> removed = takeRegistration(sideTable(), observer, keyPath, nullptr);
  if (removed) removed->detach();
  return removed != nullptr;
}

bool Object::removeObserverIfRegistered_forKeyPath_context(const Object* observer,
                                                           std::string_view keyPath,
                                                           void* context) noexcept {
  const void* const expected = context;
  Ref<Observation> removed = takeRegistration(sideTable(), observer, keyPath, &expected);
  if (removed) removed->detach();
  return removed != nullptr;
}

std::size_t Object::observationCountForKeyPath(std::string_view keyPath) const {
  detail::SideTable* table = sideTable();
  if (!table) return 0;
  std::lock_guard lock(table->mutex);
  return static_cast<std::size_t>(std::count_if(
      table->registrations.begin(), table->registrations.end(),
      [&](const Ref<Observation>& o) { return o->keyPath == keyPath; }));
}

// -- Automatic notifications -----------------------------------------------------------

namespace detail {
namespace {
thread_local AutomaticChangeFrame* innermostAutomaticChange = nullptr;
// Changes begun on this thread. Observers of one key path of one object share
// what is read and built for them, unless a change began in between (an
// observer that sets the value again): later observers then get fresh values.
thread_local std::uint64_t changesBegun = 0;

// What the last observer of a change got, for the next one of the same key
// path of the same object.
struct SharedReading {
  Ref<Observation> owner;  // keeps the key path alive
  Id observed;
  std::uint64_t at = 0;
  bool matches(const Ref<Observation>& other, const Id& object) const {
    return owner && observed == object && at == changesBegun && owner->keyPath == other->keyPath;
  }
  void remember(const Ref<Observation>& other, const Id& object) {
    owner = other;
    observed = object;
    at = changesBegun;
  }
};
}  // namespace

AutomaticChangeFrame::AutomaticChangeFrame(const Object& object, std::string_view key) noexcept
    : object_(&object), key_(key), outer_(innermostAutomaticChange) {
  innermostAutomaticChange = this;
}

AutomaticChangeFrame::~AutomaticChangeFrame() { innermostAutomaticChange = outer_; }

void AutomaticChangeFrame::checkManualChange(const Object& object, std::string_view key) {
  for (const AutomaticChangeFrame* frame = innermostAutomaticChange; frame; frame = frame->outer_) {
    if (frame->object_ != &object || frame->key_ != key) continue;
    std::fprintf(stderr,
                 "fennick: the setter of %s's observable property \"%.*s\" notifies observers itself, "
                 "so every change through key-value coding would be announced twice; declare the key "
                 "with property(key, getter, setter), or let the setter just assign\n",
                 object.objectClass()->name().c_str(), static_cast<int>(key.size()), key.data());
    std::abort();
  }
}

}  // namespace detail

void Object::willChangeValueForKey(std::string_view key) {
  if (detail::innermostAutomaticChange) detail::AutomaticChangeFrame::checkManualChange(*this, key);
  detail::SideTable* table = sideTable();
  if (!table) return;
  Ref<const detail::TriggerList> triggers = table->triggersForKey(key);
  if (!triggers) return;
  ++detail::changesBegun;
  detail::OldValues oldValues;
  detail::SharedReading shared;
  Id sharedOldValue;
  for (const Ref<PathNode>& node : *triggers) {
    Ref<Observation> owner = node->owner.lock();
    Id observed = owner ? owner->observed.lock() : nullptr;
    Id oldValue;
    if (observed && owner->wants(NSKeyValueObservingOptionOld)) {
      if (shared.matches(owner, observed)) {
        oldValue = sharedOldValue;
      } else {
        oldValue = detail::orNull(observed->valueForKeyPath(owner->keyPath));
        shared.remember(owner, observed);
        sharedOldValue = oldValue;
      }
    }
    if (observed && owner->wants(NSKeyValueObservingOptionPrior))
      owner->deliver(observed, detail::makeChange(nullptr, oldValue, true));
    oldValues.push(std::move(oldValue));
  }
  detail::pendingStack().changes.push_back(
      detail::PendingChange{this, weak_from_this(), std::string(key), std::move(triggers), std::move(oldValues)});
}

void Object::didChangeValueForKey(std::string_view key) {
  detail::SideTable* table = sideTable();
  if (!table) return;
  detail::PendingChange pending = detail::pendingStack().take(this, key);
  // A did without a will still notifies, without old values.
  if (!pending.triggers) pending.triggers = table->triggersForKey(key);
  if (!pending.triggers) return;
  ++detail::changesBegun;
  const detail::OldValues& olds = pending.oldValues;
  // Observers with the same wishes share one immutable change dictionary.
  detail::SharedReading shared;
  bool sharedWantsNew = false;
  Id sharedOldValue;
  Ref<Dictionary> sharedChange;
  const Id none;
  for (std::size_t i = 0; i < pending.triggers->size(); ++i) {
    const Ref<PathNode>& node = (*pending.triggers)[i];
    Ref<Observation> owner = node->owner.lock();
    if (!owner) continue;
    if (node->keyChangeRelinks) {
      if (!detail::relinkAfterChange(node, owner)) continue;
    } else if (!owner->isActive() || !node->attached.load(std::memory_order_acquire)) {
      continue;
    }
    Id observed = owner->observed.lock();
    if (!observed) continue;
    const Id& oldValue = i < olds.size() ? olds[i] : none;
    const bool wantsNew = owner->wants(NSKeyValueObservingOptionNew);
    if (!sharedChange || !shared.matches(owner, observed) || wantsNew != sharedWantsNew ||
        oldValue != sharedOldValue) {
      Id newValue;
      if (wantsNew) newValue = detail::orNull(observed->valueForKeyPath(owner->keyPath));
      sharedChange = detail::makeChange(newValue, oldValue, false);
      shared.remember(owner, observed);
      sharedWantsNew = wantsNew;
      sharedOldValue = oldValue;
    }
    owner->deliver(observed, sharedChange);
  }
}

void Object::discardPendingChangeForKey(std::string_view key) noexcept {
  if (!sideTable()) return;
  detail::pendingStack().take(this, key);
}

Object::ValueChangeScope::ValueChangeScope(Object& object, std::string_view key)
    : object_(&object), key_(key) {
  object.willChangeValueForKey(key);
}

Object::ValueChangeScope::~ValueChangeScope() {
  if (object_) object_->discardPendingChangeForKey(key_);
}

void Object::ValueChangeScope::commit() {
  Object* object = std::exchange(object_, nullptr);
  if (object) object->didChangeValueForKey(key_);
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
