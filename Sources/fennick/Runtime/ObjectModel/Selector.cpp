#include "fennick/Runtime/ObjectModel/Selector.h"

#include <algorithm>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>

namespace fennick {

namespace detail {
struct SelectorName {
  std::string name;
  std::size_t parameterCount;
};
}  // namespace detail

namespace {

struct SelectorTable {
  std::shared_mutex mutex;
  std::unordered_map<std::string_view, std::unique_ptr<detail::SelectorName>> names;
};

SelectorTable& table() {
  static SelectorTable* instance = new SelectorTable;  // lives as long as the process
  return *instance;
}

const std::string& emptyName() {
  static const std::string& empty = *new std::string;
  return empty;
}

}  // namespace

Selector Selector::named(std::string_view name) {
  SelectorTable& t = table();
  {
    std::shared_lock lock(t.mutex);
    if (auto it = t.names.find(name); it != t.names.end()) return Selector(it->second.get());
  }
  std::unique_lock lock(t.mutex);
  if (auto it = t.names.find(name); it != t.names.end()) return Selector(it->second.get());
  auto entry = std::make_unique<detail::SelectorName>(detail::SelectorName{
      std::string(name), static_cast<std::size_t>(std::count(name.begin(), name.end(), ':'))});
  const detail::SelectorName* raw = entry.get();
  t.names.emplace(std::string_view(raw->name), std::move(entry));
  return Selector(raw);
}

const std::string& Selector::name() const noexcept { return data_ ? data_->name : emptyName(); }

std::size_t Selector::parameterCount() const noexcept { return data_ ? data_->parameterCount : 0; }

}  // namespace fennick
