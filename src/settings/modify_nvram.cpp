// SPDX-License-Identifier: MIT
// modify-nvram: sets a firmware variable. Arguments: name, value as text (S).
#include <array>
#include <cerrno>
#include <optional>
#include <string>

#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"
#include "settings/settings_operations.hpp"

namespace corvalen {
namespace {

/// The suggestion has the wire contract's code.
ErrorRef cannotModifyNvram(SystemError error) {
    const std::int64_t code = posixCodeFromErrno(error.number);
    return makeOperationError(OperationErrorCode::cannotModifyNvram,
                              {.suggestionArguments = {std::to_string(code)}});
}

std::optional<PropertyListType> kindOf(const Value& value) {
    if (const Number* number = value.number(); number != nullptr) {
        return number->kind() == Number::Kind::boolean ? PropertyListType::boolean
                                                       : PropertyListType::number;
    }
    if (value.string() != nullptr) return PropertyListType::string;
    if (value.data() != nullptr) return PropertyListType::data;
    return std::nullopt;
}

/// An existing variable keeps its kind; std::nullopt if the text does not fit it. A new one gets
/// the first kind that its text parses as: data for "%01%FF", else a string, since every text is
/// one.
std::optional<Value> newValueOfVariable(const std::optional<Value>& current,
                                        const std::string& text) {
    if (current) {
        const auto kind = kindOf(*current);
        return kind ? copyCoreFoundationValueWithType(*kind, &text) : std::nullopt;
    }
    constexpr std::array kKinds = {PropertyListType::data, PropertyListType::string,
                                   PropertyListType::number, PropertyListType::boolean};
    for (const PropertyListType kind : kKinds) {
        if (auto value = copyCoreFoundationValueWithType(kind, &text)) return value;
    }
    return std::nullopt;
}

}  // namespace

ErrorRef SettingsOperations::performOperationModifyNvramWithArguments(const Array& arguments) {
    const std::string& name = stringArgument(arguments, 0);
    if (name.empty()) return makePosixError(EINVAL);
    // Two changes would clear and restore the immutable flag of one variable at once.
    const std::lock_guard lock(_firmwareMutex);
    const auto opened = _services.firmwareVariables->openOptions();
    if (!opened) return cannotModifyNvram(opened.error());
    FirmwareOptions* options = opened->get();
    // A machine without firmware variables is not an error.
    if (options == nullptr) return nullptr;
    const Result<std::optional<Value>> current = options->copyValue(name);
    if (!current) return cannotModifyNvram(current.error());
    const auto value = newValueOfVariable(*current, stringArgument(arguments, 1));
    if (!value) return makePosixError(EINVAL);
    const Result<> written = options->setValue(name, *value);
    return written ? nullptr : cannotModifyNvram(written.error());
}

}  // namespace corvalen
