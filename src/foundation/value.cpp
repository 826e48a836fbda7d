// SPDX-License-Identifier: MIT
#include "corvalen/value.hpp"

#include <algorithm>
#include <array>

#include "corvalen/error.hpp"

namespace corvalen {

namespace {

bool keyLess(const Dictionary::Entry& entry, std::string_view key) noexcept {
    return entry.key < key;
}

}  // namespace

Dictionary::Dictionary() = default;
Dictionary::Dictionary(std::initializer_list<Entry> entries)
    : Dictionary(fromEntries(std::vector<Entry>(entries))) {}
Dictionary::Dictionary(const Dictionary&) = default;
Dictionary::Dictionary(Dictionary&&) noexcept = default;
Dictionary& Dictionary::operator=(const Dictionary&) = default;
Dictionary& Dictionary::operator=(Dictionary&&) noexcept = default;
Dictionary::~Dictionary() = default;

Dictionary Dictionary::fromEntries(std::vector<Entry> entries) {
    Dictionary result;
    // Entries of records and of received messages are already sorted.
    const auto unordered = [](const Entry& a, const Entry& b) { return a.key >= b.key; };
    if (std::adjacent_find(entries.begin(), entries.end(), unordered) == entries.end()) {
        result._entries = std::move(entries);
        return result;
    }
    std::stable_sort(entries.begin(), entries.end(),
                     [](const Entry& a, const Entry& b) { return a.key < b.key; });
    // The sort is stable: the last of equal keys was given last.
    auto kept = entries.begin();
    for (auto entry = entries.begin(); entry != entries.end(); ++entry) {
        const auto next = entry + 1;
        if (next != entries.end() && next->key == entry->key) continue;
        if (kept != entry) *kept = std::move(*entry);
        ++kept;
    }
    entries.erase(kept, entries.end());
    result._entries = std::move(entries);
    return result;
}

const Value* Dictionary::find(std::string_view key) const noexcept {
    const auto at = std::lower_bound(_entries.begin(), _entries.end(), key, keyLess);
    return at != _entries.end() && at->key == key ? &at->value : nullptr;
}

Value* Dictionary::find(std::string_view key) noexcept {
    return const_cast<Value*>(std::as_const(*this).find(key));
}

void Dictionary::set(std::string_view key, Value value) {
    const auto at = std::lower_bound(_entries.begin(), _entries.end(), key, keyLess);
    if (at != _entries.end() && at->key == key) {
        at->value = std::move(value);
    } else {
        _entries.insert(at, Entry{std::string(key), std::move(value)});
    }
}

bool Dictionary::remove(std::string_view key) {
    const auto at = std::lower_bound(_entries.begin(), _entries.end(), key, keyLess);
    if (at == _entries.end() || at->key != key) return false;
    _entries.erase(at);
    return true;
}

std::size_t Dictionary::size() const noexcept {
    return _entries.size();
}
const Dictionary::Entry* Dictionary::begin() const noexcept {
    return _entries.data();
}
const Dictionary::Entry* Dictionary::end() const noexcept {
    return _entries.data() + _entries.size();
}

bool operator==(const Dictionary& a, const Dictionary& b) {
    return a._entries == b._entries;
}

Value::Value(ErrorRef error) {
    if (error) _held = std::move(error);
}

Value::Value(EndpointRef endpoint) {
    if (endpoint.descriptor) _held = std::move(endpoint);
}

ErrorRef Value::error() const noexcept {
    const ErrorRef* held = get<ErrorRef>();
    return held != nullptr ? *held : nullptr;
}

std::string_view Value::className() const noexcept {
    // In the order of the alternatives of `_held`.
    static constexpr std::array<std::string_view, 9> names = {
        "NSNull",       "NSString", "NSNumber",
        "NSData",       "NSDate",   "NSArray",
        "NSDictionary", "NSError",  "NSXPCListenerEndpoint",
    };
    static_assert(names.size() == std::variant_size_v<decltype(_held)>);
    return names[_held.index()];
}

bool operator==(const Value& a, const Value& b) {
    const ErrorRef errorA = a.error();
    const ErrorRef errorB = b.error();
    if (errorA && errorB) return *errorA == *errorB;
    return a._held == b._held;
}

}  // namespace corvalen
