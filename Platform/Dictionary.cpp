#include <algorithm>
#include <iterator>

#include <QXEventStoring/Platform/Value.h>

namespace qx {
namespace {

bool keyLess(const Dictionary::Entry& a, const Dictionary::Entry& b) {
  return a.first < b.first;
}

template <class Iterator>
Iterator lowerBound(Iterator first, Iterator last, std::string_view key) {
  return std::lower_bound(first, last, key,
                          [](const auto& entry, std::string_view k) { return entry.first < k; });
}

}  // namespace

Dictionary::Dictionary() = default;
Dictionary::Dictionary(const Dictionary&) = default;
Dictionary::Dictionary(Dictionary&&) noexcept = default;
Dictionary& Dictionary::operator=(const Dictionary&) = default;
Dictionary& Dictionary::operator=(Dictionary&&) noexcept = default;
Dictionary::~Dictionary() = default;

Dictionary::Dictionary(std::initializer_list<Entry> entries)
    : Dictionary(fromEntries(std::vector<Entry>(entries))) {}

Dictionary Dictionary::fromEntries(std::vector<Entry> entries) {
  const auto notAscending = [](const Entry& a, const Entry& b) { return !keyLess(a, b); };
  Dictionary result;
  if (std::adjacent_find(entries.begin(), entries.end(), notAscending) == entries.end()) {
    result.entries_ = std::move(entries);
    return result;
  }
  std::stable_sort(entries.begin(), entries.end(), keyLess);
  result.entries_.reserve(entries.size());
  for (Entry& entry : entries) {
    if (!result.entries_.empty() && result.entries_.back().first == entry.first) {
      result.entries_.back().second = std::move(entry.second);
    } else {
      result.entries_.push_back(std::move(entry));
    }
  }
  return result;
}

const Value* Dictionary::find(std::string_view key) const {
  const auto place = lowerBound(entries_.begin(), entries_.end(), key);
  return place != entries_.end() && place->first == key ? &place->second : nullptr;
}

Value* Dictionary::find(std::string_view key) {
  return const_cast<Value*>(std::as_const(*this).find(key));  // NOLINT: the entry is ours
}

void Dictionary::set(std::string key, Value value) {
  if (entries_.empty() || entries_.back().first < key) {
    entries_.emplace_back(std::move(key), std::move(value));
    return;
  }
  const auto place = lowerBound(entries_.begin(), entries_.end(), key);
  if (place->first == key) {
    place->second = std::move(value);
  } else {
    entries_.emplace(place, std::move(key), std::move(value));
  }
}

Value& Dictionary::operator[](std::string_view key) {
  const auto place = lowerBound(entries_.begin(), entries_.end(), key);
  if (place != entries_.end() && place->first == key) return place->second;
  return entries_.emplace(place, std::string(key), Value())->second;
}

bool Dictionary::erase(std::string_view key) {
  const auto place = lowerBound(entries_.begin(), entries_.end(), key);
  if (place == entries_.end() || place->first != key) return false;
  entries_.erase(place);
  return true;
}

void Dictionary::clear() {
  entries_.clear();
}

void Dictionary::merge(const Dictionary& other) {
  if (&other == this || other.empty()) return;
  std::vector<Entry> merged;
  merged.reserve(size() + other.size());
  auto mine = entries_.begin();
  for (const Entry& theirs : other.entries_) {
    while (mine != entries_.end() && keyLess(*mine, theirs))
      merged.push_back(std::move(*mine++));
    if (mine != entries_.end() && mine->first == theirs.first) ++mine;
    merged.push_back(theirs);
  }
  std::move(mine, entries_.end(), std::back_inserter(merged));
  entries_ = std::move(merged);
}

std::size_t Dictionary::size() const {
  return entries_.size();
}
void Dictionary::reserve(std::size_t count) {
  entries_.reserve(count);
}
const Dictionary::Entry* Dictionary::begin() const {
  return entries_.data();
}
const Dictionary::Entry* Dictionary::end() const {
  return entries_.data() + entries_.size();
}

bool operator==(const Dictionary& a, const Dictionary& b) {
  return a.entries_ == b.entries_;
}

}  // namespace qx
