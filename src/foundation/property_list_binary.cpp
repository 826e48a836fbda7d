// SPDX-License-Identifier: MIT
// The binary form: a table of objects that refer to each other by number.
#include <bit>
#include <cmath>

#include "foundation/encoding.hpp"
#include "foundation/property_list.hpp"

namespace corvalen {

namespace {

constexpr std::size_t kTrailerSize = 32;
constexpr std::int64_t kReferenceDate = 978'307'200;  // 2001-01-01T00:00:00Z
constexpr double kLargestDate = 1e15;                 // seconds
constexpr std::size_t kMaximumCopiedBytes = 32 << 20U;

/// Reads untrusted input: checks every offset, count and reference before use. Throws a Complaint,
/// which does not leave this file.
class BinaryReader {
  public:
    struct Complaint {
        const char* message;
    };

    explicit BinaryReader(std::string_view bytes) : _bytes(bytes) {
        require(bytes.size() >= kBinaryPropertyListMagic.size() + kTrailerSize, "cut off");
        const std::size_t trailer = bytes.size() - kTrailerSize;
        _offsetSize = static_cast<unsigned char>(bytes[trailer + 6]);
        _referenceSize = static_cast<unsigned char>(bytes[trailer + 7]);
        _count = number(trailer + 8, 8);
        _top = number(trailer + 16, 8);
        _table = number(trailer + 24, 8);
        require(isIntegerSize(_offsetSize) && isIntegerSize(_referenceSize), "bad sizes");
        require(_table <= trailer && _count <= (trailer - _table) / _offsetSize, "bad table");
    }

    Value read() { return object(_top); }

  private:
    static void require(bool condition, const char* message) {
        if (!condition) throw Complaint{message};
    }
    static bool isIntegerSize(std::size_t size) noexcept {
        return size == 1 || size == 2 || size == 4 || size == 8;
    }

    [[nodiscard]] std::string_view range(std::uint64_t at, std::uint64_t size) const {
        require(at <= _bytes.size() && size <= _bytes.size() - at, "offset outside the list");
        return _bytes.substr(static_cast<std::size_t>(at), static_cast<std::size_t>(size));
    }
    [[nodiscard]] std::uint64_t number(std::uint64_t at, std::size_t size) const {
        std::uint64_t result = 0;
        for (const char byte : range(at, size))
            result = result << 8U | static_cast<unsigned char>(byte);
        return result;
    }

    /// Returns the count of the object whose marker is just before `at`; moves `at` past the count.
    std::uint64_t count(std::uint64_t& at, unsigned low) const {
        constexpr unsigned kCountFollows = 15;
        if (low != kCountFollows) return low;
        const auto marker = static_cast<unsigned>(number(at++, 1));
        require((marker & 0xF0U) == 0x10 && (marker & 0xFU) <= 3, "bad count");
        const std::size_t size = std::size_t{1} << (marker & 0xFU);
        at += size;
        return number(at - size, size);
    }

    Value object(std::uint64_t reference) {
        require(reference < _count, "reference to no object");
        require(++_nodes <= kMaximumPropertyListNodes, "too many values");
        std::uint64_t at = number(_table + reference * _offsetSize, _offsetSize);
        const auto marker = static_cast<unsigned>(number(at++, 1));
        const unsigned low = marker & 0xFU;
        switch (marker >> 4U) {
            case 0x0:
                require(low == 8 || low == 9, "unknown object");
                return low == 9;
            case 0x1:
                return integer(at, low);
            case 0x2:
                return real(at, low);
            case 0x3:
                require(low == 3, "unknown object");
                return date(std::bit_cast<double>(number(at, 8)));
            case 0x4: {
                const std::uint64_t size = count(at, low);
                return Data::copy(copied(range(at, size)));
            }
            case 0x5: {
                const std::uint64_t size = count(at, low);
                return asciiText(copied(range(at, size)));
            }
            case 0x6: {
                const std::uint64_t units = count(at, low);
                require(units <= _bytes.size(), "offset outside the list");
                return utf16Text(copied(range(at, 2 * units)));
            }
            case 0xA:
                return array(at, low);
            case 0xD:
                return dictionary(at, low);
            default:
                throw Complaint{"unknown object"};
        }
    }

    /// Counts bytes of strings and data: several references copy the same object.
    std::string_view copied(std::string_view bytes) {
        require(bytes.size() <= kMaximumCopiedBytes - _copied, "too large");
        _copied += bytes.size();
        return bytes;
    }

    [[nodiscard]] Value integer(std::uint64_t at, unsigned low) const {
        require(low <= 3, "unknown object");
        const std::size_t size = std::size_t{1} << low;
        const std::uint64_t bits = number(at, size);
        return Number::fromSigned(static_cast<std::int64_t>(bits));  // only 8 bytes are signed
    }
    [[nodiscard]] Value real(std::uint64_t at, unsigned low) const {
        require(low == 2 || low == 3, "unknown object");
        if (low == 3) return Number::fromDouble(std::bit_cast<double>(number(at, 8)));
        const auto bits = static_cast<std::uint32_t>(number(at, 4));
        return Number::fromDouble(static_cast<double>(std::bit_cast<float>(bits)));
    }
    static Value date(double seconds) {
        require(std::abs(seconds) < kLargestDate, "date out of range");  // rejects NaN too
        const double whole = std::floor(seconds);
        return Date{static_cast<std::int64_t>(whole) + kReferenceDate,
                    // Just below a second the difference rounds up to it.
                    std::min(static_cast<std::uint32_t>((seconds - whole) * 1e9), 999'999'999U)};
    }
    static Value asciiText(std::string_view text) {
        for (const char character : text)
            require(static_cast<unsigned char>(character) < 0x80, "bad string");
        return text;
    }
    static Value utf16Text(std::string_view bytes) {
        const auto unit = [bytes](std::size_t at) {
            return static_cast<char32_t>(static_cast<unsigned char>(bytes[at]) << 8U |
                                         static_cast<unsigned char>(bytes[at + 1]));
        };
        std::string text;
        for (std::size_t at = 0; at < bytes.size(); at += 2) {
            char32_t point = unit(at);
            if (point >= 0xD800 && point < 0xE000) {
                at += 2;
                require(point < 0xDC00 && at < bytes.size(), "bad string");
                require(unit(at) >= 0xDC00 && unit(at) < 0xE000, "bad string");
                point = 0x10000 + ((point - 0xD800) << 10U) + (unit(at) - 0xDC00);
            }
            appendUtf8(text, point);
        }
        return text;
    }

    void enter(std::uint64_t references) {
        // Also stops a container that contains itself.
        require(++_depth <= kMaximumPropertyListDepth, "nested too deeply");
        require(references <= _bytes.size(), "offset outside the list");
    }
    Value array(std::uint64_t at, unsigned low) {
        const std::uint64_t items = count(at, low);
        enter(items);
        Array result;
        for (std::uint64_t i = 0; i < items; ++i)
            result.push_back(object(number(at + i * _referenceSize, _referenceSize)));
        --_depth;
        return result;
    }
    Value dictionary(std::uint64_t at, unsigned low) {
        const std::uint64_t items = count(at, low);
        enter(items);
        std::vector<Dictionary::Entry> entries;
        for (std::uint64_t i = 0; i < items; ++i) {
            Value key = object(number(at + i * _referenceSize, _referenceSize));
            --_nodes;  // keys do not count
            require(key.string() != nullptr, "key that is no string");
            entries.push_back(
                {*key.string(), object(number(at + (items + i) * _referenceSize, _referenceSize))});
        }
        --_depth;
        return Dictionary::fromEntries(std::move(entries));
    }

    std::string_view _bytes;
    std::size_t _offsetSize = 0;
    std::size_t _referenceSize = 0;
    std::uint64_t _count = 0;
    std::uint64_t _top = 0;
    std::uint64_t _table = 0;
    std::size_t _nodes = 0;
    std::size_t _copied = 0;
    std::size_t _depth = 0;
};

}  // namespace

PropertyListResult readBinaryPropertyList(std::string_view bytes) {
    try {
        return BinaryReader(bytes).read();
    } catch (const BinaryReader::Complaint& complaint) {
        return failure(PropertyListFault{complaint.message});
    }
}

}  // namespace corvalen
