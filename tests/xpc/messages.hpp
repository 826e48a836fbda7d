// SPDX-License-Identifier: MIT
// The notation of messages and streams in golden files, and the encoding of any message.
#pragma once

#include <fmt/format.h>
#include <sys/mman.h>
#include <unistd.h>

#include <iomanip>
#include <sstream>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "corvalen/error.hpp"
#include "support/packed.hpp"
#include "xpc/message.hpp"

namespace corvalen::test {

/// Bytes from hexadecimal digits and quoted text; "3*c0" stands for three.
inline std::string bytes(std::string_view notation) {
    std::istringstream words{std::string(notation)};
    std::string result, word;
    while (!(words >> std::ws).eof()) {
        const bool isText = words.peek() == '\'';
        words >> std::quoted(word, '\'');
        const std::size_t star = word.find('*');
        if (isText)
            result += word;
        else
            result.append(star == word.npos ? 1 : std::stoul(word),
                          static_cast<char>(std::stoi(word.substr(star + 1), nullptr, 16)));
    }
    return result;
}

/// Calls `take(bytes, descriptors)` for each piece of a stream. "R" begins a response up to its
/// result, "+2" brings two descriptors, and "|" separates pieces.
template <class Take>
void forEachPiece(const std::string& notation, const Take& take) {
    std::istringstream pieces(replaced(notation, "R", "94 01 07 c0"));
    for (std::string piece; std::getline(pieces, piece, '|');) {
        std::istringstream words(piece);
        std::size_t descriptors = 0;
        if ((words >> std::ws).peek() == '+') words >> descriptors;
        std::getline(words, piece);
        take(bytes(piece), descriptors);
    }
}

/// The offset of each file is its number.
inline std::vector<UniqueFd> numberedFiles(std::size_t count) {
    std::vector<UniqueFd> files(count);
    for (std::size_t number = 0; number < count; ++number) {
        files[number].reset(::memfd_create("", MFD_CLOEXEC));
        ::lseek(files[number].get(), static_cast<off_t>(number), SEEK_SET);
    }
    return files;
}

/// Shows a value with its kind, such as "[int 1, 'text']", and an endpoint by the offset of its
/// file.
struct Description {
    std::string operator()(std::monostate /*nothing*/) const { return "nil"; }
    std::string operator()(const std::string& text) const { return "'" + text + "'"; }
    std::string operator()(const Number& number) const {
        constexpr const char* kKinds[] = {"bool", "int", "unsigned", "float", "double"};
        return fmt::format("{} {}", kKinds[static_cast<unsigned>(number.kind())],
                           number.stringValue());
    }
    std::string operator()(const Data& data) const { return fmt::format("data '{}'", data.view()); }
    std::string operator()(const Date& date) const {
        return fmt::format("date {} s {} ns", date.seconds, date.nanoseconds);
    }
    std::string operator()(const Array& array) const {
        std::string text;
        for (const Value& each : array)
            text += (text.empty() ? "" : ", ") + each.visit(*this);
        return "[" + text + "]";
    }
    std::string operator()(const Dictionary& dictionary) const {
        std::string text;
        for (const auto& [key, value] : dictionary)
            text += (text.empty() ? "" : ", ") + key + ": " + value.visit(*this);
        return "{" + text + "}";
    }
    std::string operator()(const ErrorRef& error) const {
        const Dictionary* info = error->userInfo();
        return fmt::format("error {} {} {}", error->domain(), error->code(),
                           info != nullptr ? (*this)(*info) : "nil");
    }
    std::string operator()(const EndpointRef& endpoint) const {
        return fmt::format("endpoint {}", ::lseek(endpoint.descriptor->get(), 0, SEEK_CUR));
    }
};

inline std::string described(const Message& message) {
    const Description description;
    const std::string call = message.method + " " + description(message.params);
    if (message.type == MessageType::notification) return "notification " + call;
    const std::string number = std::to_string(message.identifier);
    if (message.type == MessageType::request) return "request " + number + " " + call;
    return message.callError ? "refusal " + number + " " + *message.callError
                             : "response " + number + " " + message.result.visit(description);
}

inline bool encode(const Message& message, EncodedMessage& out) {
    const std::uint32_t number = message.identifier;
    if (message.type == MessageType::notification)
        return encodeNotification(message.method, message.params, out);
    if (message.type == MessageType::request)
        return encodeRequest(number, message.method, message.params, out);
    return message.callError ? encodeRefusal(number, *message.callError, out)
                             : encodeResult(number, message.result, out);
}

}  // namespace corvalen::test
