// SPDX-License-Identifier: MIT
#include "foundation/property_list_scalars.hpp"

#include <fmt/format.h>

#include <charconv>
#include <chrono>
#include <limits>

namespace corvalen {

namespace {

bool isWhiteSpace(char c) noexcept {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

struct Signed {
    bool negative;
    std::string_view magnitude;
};

Signed splitSign(std::string_view text) noexcept {
    text = trimmedWhiteSpace(text);
    if (text.empty() || (text.front() != '-' && text.front() != '+')) return {false, text};
    return {text.front() == '-', text.substr(1)};
}

/// Parses all of `text` as a number without a sign.
template <class T, class... Options>
std::optional<T> wholeNumber(std::string_view text, Options... options) noexcept {
    if (text.empty() || text.front() == '-') return std::nullopt;
    T value{};
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), value, options...);
    if (parsed.ec != std::errc() || parsed.ptr != text.data() + text.size()) return std::nullopt;
    return value;
}

/// Reads `count` digits at `offset`; -1 if one is not a digit.
int digitsAt(std::string_view text, std::size_t offset, std::size_t count) noexcept {
    int value = 0;
    for (const char c : text.substr(offset, count)) {
        if (c < '0' || c > '9') return -1;
        value = value * 10 + (c - '0');
    }
    return value;
}

}  // namespace

std::string_view trimmedWhiteSpace(std::string_view text) noexcept {
    while (!text.empty() && isWhiteSpace(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && isWhiteSpace(text.back()))
        text.remove_suffix(1);
    return text;
}

std::optional<Number> integerFromText(std::string_view text) noexcept {
    const auto [negative, magnitude] = splitSign(text);
    const bool hexadecimal = magnitude.substr(0, 2) == "0x" || magnitude.substr(0, 2) == "0X";
    const auto value = hexadecimal ? wholeNumber<std::uint64_t>(magnitude.substr(2), 16)
                                   : wholeNumber<std::uint64_t>(magnitude, 10);
    constexpr std::uint64_t kLargestSigned = std::numeric_limits<std::int64_t>::max();
    if (!value || (negative && *value > kLargestSigned + 1)) return std::nullopt;
    if (negative) return Number::fromSigned(static_cast<std::int64_t>(0 - *value));
    if (*value > kLargestSigned) return Number::fromUnsigned(*value);
    return Number::fromSigned(static_cast<std::int64_t>(*value));
}

std::optional<Number> realFromText(std::string_view text) noexcept {
    const auto [negative, magnitude] = splitSign(text);
    const auto value = wholeNumber<double>(magnitude);
    if (!value) return std::nullopt;
    return Number::fromDouble(negative ? -*value : *value);
}

std::optional<Date> dateFromText(std::string_view text) noexcept {
    using namespace std::chrono;
    static constexpr std::string_view form = "####-##-##T##:##:##Z";
    text = trimmedWhiteSpace(text);
    if (text.size() != form.size()) return std::nullopt;
    for (std::size_t i = 0; i < form.size(); ++i) {
        const bool digit = text[i] >= '0' && text[i] <= '9';
        if (form[i] == '#' ? !digit : text[i] != form[i]) return std::nullopt;
    }
    const year_month_day day{year(digitsAt(text, 0, 4)),
                             month(static_cast<unsigned>(digitsAt(text, 5, 2))),
                             std::chrono::day(static_cast<unsigned>(digitsAt(text, 8, 2)))};
    const int hour = digitsAt(text, 11, 2);
    const int minute = digitsAt(text, 14, 2);
    const int second = digitsAt(text, 17, 2);
    if (!day.ok() || hour > 23 || minute > 59 || second > 59) return std::nullopt;
    const auto time = sys_days(day) + hours(hour) + minutes(minute) + seconds(second);
    return Date{duration_cast<seconds>(time.time_since_epoch()).count(), 0};
}

std::optional<std::string> textFromDate(const Date& date) {
    using namespace std::chrono;
    static constexpr std::int64_t kYear0 = -62'167'219'200;
    static constexpr std::int64_t kYear10000 = 253'402'300'800;
    if (date.nanoseconds != 0 || date.seconds < kYear0 || date.seconds >= kYear10000) {
        return std::nullopt;
    }
    const sys_seconds time{seconds(date.seconds)};
    const auto days = floor<std::chrono::days>(time);
    const year_month_day day(days);
    const hh_mm_ss clock(time - days);
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", static_cast<int>(day.year()),
                       static_cast<unsigned>(day.month()), static_cast<unsigned>(day.day()),
                       clock.hours().count(), clock.minutes().count(), clock.seconds().count());
}

}  // namespace corvalen
