// SPDX-License-Identifier: MIT
#include "xpc/message.hpp"

#include <algorithm>

#include "corvalen/error.hpp"
#include "corvalen/value.hpp"

namespace corvalen {

namespace {

enum class Kind : std::uint8_t { none, scalar, text, data, array, map, extension };

/// The meaning of a value's first byte in MessagePack: the kind, the number of length bytes that
/// follow, and the length that the first byte itself encodes.
struct Form {
    Kind kind = Kind::none;
    std::uint8_t lengthBytes = 0;
    std::uint8_t fixedLength = 0;
    /// Bytes, including the first byte and an extension's type.
    std::uint8_t headerSize = 1;
};

constexpr Form formFromC4(std::uint8_t first) {
    if (first <= 0xc6) return {Kind::data, static_cast<std::uint8_t>(1U << (first - 0xc4U)), 0};
    if (first <= 0xc9)
        return {Kind::extension, static_cast<std::uint8_t>(1U << (first - 0xc7U)), 0};
    if (first <= 0xcb) return {Kind::scalar, 0, static_cast<std::uint8_t>(4U << (first - 0xcaU))};
    if (first <= 0xcf) return {Kind::scalar, 0, static_cast<std::uint8_t>(1U << (first - 0xccU))};
    if (first <= 0xd3) return {Kind::scalar, 0, static_cast<std::uint8_t>(1U << (first - 0xd0U))};
    if (first <= 0xd8)
        return {Kind::extension, 0, static_cast<std::uint8_t>(1U << (first - 0xd4U))};
    if (first <= 0xdb) return {Kind::text, static_cast<std::uint8_t>(1U << (first - 0xd9U)), 0};
    if (first <= 0xdd) return {Kind::array, static_cast<std::uint8_t>(2U << (first - 0xdcU)), 0};
    if (first <= 0xdf) return {Kind::map, static_cast<std::uint8_t>(2U << (first - 0xdeU)), 0};
    return {Kind::scalar, 0, 0};
}

constexpr Form formOf(std::uint8_t first) {
    if (first <= 0x7f) return {Kind::scalar, 0, 0};
    if (first <= 0x8f) return {Kind::map, 0, static_cast<std::uint8_t>(first & 0x0fU)};
    if (first <= 0x9f) return {Kind::array, 0, static_cast<std::uint8_t>(first & 0x0fU)};
    if (first <= 0xbf) return {Kind::text, 0, static_cast<std::uint8_t>(first & 0x1fU)};
    if (first == 0xc1) return {Kind::none, 0, 0};
    if (first <= 0xc3) return {Kind::scalar, 0, 0};
    return formFromC4(first);
}

constexpr std::array<Form, 256> kForms = [] {
    std::array<Form, 256> forms{};
    for (std::size_t first = 0; first < forms.size(); ++first) {
        Form& form = forms[first] = formOf(static_cast<std::uint8_t>(first));
        const unsigned typeBytes = form.kind == Kind::extension ? 1 : 0;
        form.headerSize = static_cast<std::uint8_t>(1U + form.lengthBytes + typeBytes);
    }
    return forms;
}();

// Bytes that the allocator adds to a block, and its smallest block.
constexpr std::size_t kBlockOverhead = 16;
constexpr std::size_t kSmallestBlock = 32;
// Sizes of 64-bit machines on all, so that all refuse the same messages. Sorting the entries
// allocates a buffer for half of them.
constexpr std::size_t kValueSize = 40;
constexpr std::size_t kEntrySize = 108;
static_assert(sizeof(Value) <= kValueSize && 3 * sizeof(Dictionary::Entry) / 2 <= kEntrySize);
constexpr std::size_t kErrorSize = sizeof(Error) + 2 * kBlockOverhead;
constexpr std::size_t kEndpointSize = sizeof(UniqueFd) + 2 * kBlockOverhead;

constexpr std::size_t blockSize(std::uint64_t size) {
    return std::max(static_cast<std::size_t>(size) + kBlockOverhead, kSmallestBlock);
}

// A message is an array of three or four elements.
constexpr std::uint64_t kShortestMessage = 3;
constexpr std::uint64_t kLongestMessage = 4;

constexpr std::array<std::uint64_t, 3> kTimestampLengths = {4, 8, 12};

}  // namespace

struct MessageScanner::Header {
    Kind kind = Kind::none;
    std::int8_t extensionType = 0;
    std::uint64_t length = 0;

    Header() = default;
    Header(const Form& form, const char* bytes) noexcept
        : kind(form.kind), length(form.fixedLength) {
        for (std::size_t i = 1; i <= form.lengthBytes; ++i)
            length = (length << 8U) | static_cast<std::uint8_t>(bytes[i]);
        if (kind == Kind::extension)
            extensionType = static_cast<std::int8_t>(bytes[form.headerSize - 1U]);
    }
};

void MessageScanner::restart() {
    // Levels are written before they are read; clearing them would cost more than scanning a
    // message.
    _headerLength = _levelCount = _nesting = _scanned = 0;
    _bodyLeft = 0;
    _decodedSize = _endpointCount = 0;
    _done = false;
}

MessageScanner::Status MessageScanner::scan(std::string_view bytes, std::size_t* used) {
    std::string_view rest = bytes;
    bool good = true;
    while (good && !_done && !rest.empty()) {
        Header header;
        if (_bodyLeft > 0) {
            good = skipBody(rest);
        } else if (takeHeader(rest, header)) {
            good = beginValue(header);
        }
    }
    *used = bytes.size() - rest.size();
    if (!good) return Status::malformed;
    return _done ? Status::complete : Status::incomplete;
}

inline void MessageScanner::take(std::string_view& bytes, std::size_t size) noexcept {
    bytes.remove_prefix(size);
    _scanned += size;
}

inline bool MessageScanner::skipBody(std::string_view& bytes) {
    const auto step = static_cast<std::size_t>(std::min<std::uint64_t>(_bodyLeft, bytes.size()));
    take(bytes, step);
    _bodyLeft -= step;
    return _bodyLeft > 0 || endValue();
}

/// Returns false if part of the header is missing.
inline bool MessageScanner::takeHeader(std::string_view& bytes, Header& header) noexcept {
    if (_headerLength > 0) return completeHeader(bytes, header);
    const Form& form = kForms[static_cast<std::uint8_t>(bytes.front())];
    if (bytes.size() < form.headerSize) return completeHeader(bytes, header);
    header = Header(form, bytes.data());
    take(bytes, form.headerSize);
    return true;
}

/// The slow path, for a header that arrives in pieces.
bool MessageScanner::completeHeader(std::string_view& bytes, Header& header) noexcept {
    const char first = _headerLength > 0 ? _header.front() : bytes.front();
    const Form& form = kForms[static_cast<std::uint8_t>(first)];
    const std::size_t taken = std::min(form.headerSize - _headerLength, bytes.size());
    bytes.copy(_header.data() + _headerLength, taken);
    take(bytes, taken);
    _headerLength += taken;
    if (_headerLength < form.headerSize) return false;
    _headerLength = 0;
    header = Header(form, _header.data());
    return true;
}

/// Returns true if a value of this kind may stand here.
bool MessageScanner::isAllowedHere(const Header& header) const noexcept {
    if (_levelCount == 0) {
        return header.kind == Kind::array && header.length >= kShortestMessage &&
               header.length <= kLongestMessage;
    }
    const Level& level = _levels[_levelCount - 1];
    if (level.kind == LevelKind::error) return header.kind == Kind::array;
    const bool isKey = level.kind == LevelKind::map && level.remaining % 2 == 0;
    return !isKey || header.kind == Kind::text;
}

bool MessageScanner::beginValue(const Header& value) {
    if (_scanned > end() || !isAllowedHere(value)) return false;
    switch (value.kind) {
        case Kind::none:
            return false;
        case Kind::scalar:
            return value.length > 0 ? beginBody(value.length, 0) : endValue();
        case Kind::text: {
            static const std::size_t inPlace = std::string().capacity();
            const bool onHeap = value.length > inPlace;
            return beginBody(value.length, onHeap ? blockSize(value.length + 1) : 0);
        }
        case Kind::data:
            return beginBody(value.length, value.length > 0 ? blockSize(value.length) : 0);
        case Kind::array:
        case Kind::map:
            return beginContainer(value);
        case Kind::extension:
            return beginExtension(value);
    }
    return false;
}

bool MessageScanner::beginContainer(const Header& header) {
    if (_nesting == wire::kMaximumNesting) return false;
    const bool isMap = header.kind == Kind::map;
    const std::uint64_t values = isMap ? 2 * header.length : header.length;
    if (values > end() - _scanned) return false;
    if (!addDecodedSize(header.length, isMap ? kEntrySize : kValueSize)) return false;
    if (values == 0) return endValue();
    if (!addDecodedSize(1, kBlockOverhead)) return false;
    ++_nesting;
    return push(isMap ? LevelKind::map : LevelKind::array, values, end());
}

bool MessageScanner::beginExtension(const Header& header) {
    switch (header.extensionType) {
        case wire::kTimestampType:
            return std::find(kTimestampLengths.begin(), kTimestampLengths.end(), header.length) !=
                       kTimestampLengths.end() &&
                   beginBody(header.length, 0);
        case wire::kEndpointType:
            if (header.length != 1 || _endpointCount == wire::kMaximumEndpoints) return false;
            ++_endpointCount;
            return beginBody(header.length, kEndpointSize);
        case wire::kErrorType:
            return header.length > 0 && header.length <= end() - _scanned &&
                   addDecodedSize(1, kErrorSize) &&
                   push(LevelKind::error, 1, _scanned + static_cast<std::size_t>(header.length));
        default:
            return false;
    }
}

bool MessageScanner::beginBody(std::uint64_t length, std::size_t decodedSize) {
    if (length > end() - _scanned || !addDecodedSize(1, decodedSize)) return false;
    if (length == 0) return endValue();
    _bodyLeft = length;
    return true;
}

bool MessageScanner::push(LevelKind kind, std::uint64_t values, std::size_t end) {
    if (_levelCount == _levels.size()) return false;
    _levels[_levelCount++] = Level{values, end, kind};
    return true;
}

/// Returns the end of the innermost error, or else the maximum message size.
std::size_t MessageScanner::end() const noexcept {
    return _levelCount > 0 ? _levels[_levelCount - 1].end : wire::kMaximumMessageSize;
}

bool MessageScanner::addDecodedSize(std::uint64_t count, std::size_t each) {
    // No overflow: `count` is at most the maximum message size.
    const std::uint64_t more = count * each;
    if (more > wire::kMaximumDecodedSize - _decodedSize) return false;
    _decodedSize += static_cast<std::size_t>(more);
    return true;
}

bool MessageScanner::endValue() {
    while (_levelCount > 0) {
        Level& level = _levels[_levelCount - 1];
        if (--level.remaining > 0) return true;
        if (level.kind == LevelKind::error) {
            if (_scanned != level.end) return false;
        } else {
            --_nesting;
        }
        --_levelCount;
    }
    _done = true;
    return true;
}

}  // namespace corvalen
