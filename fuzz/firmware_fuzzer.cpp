// SPDX-License-Identifier: MIT
// Fuzzes firmware variables with a name up to a newline, then the contents of a variable. Their
// value is written under the name, and must read back equal if the name has no GUID of its own.
#include "fuzz.hpp"
#include "platform/settings/settings.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace corvalen;
    using namespace corvalen::fuzz;
    static const test::ScratchFolder folder;
    static const auto variables = makeFirmwareVariables(folder.path());
    Input input(data, size);
    const std::string name(input.until('\n'));
    const std::string ours = std::string("v-").append(kFirmwareVendorGuid);
    test::putFile(folder.path(ours), input.rest());
    const auto opened = variables->openOptions();
    require(opened && *opened != nullptr);
    FirmwareOptions* options = opened->get();
    const auto value = options->copyValue("v");
    if (!value || !*value) return 0;
    // Empty contents would delete the variable of another vendor; ours always have their mark.
    if (!options->setValue(name, **value)) return 0;
    const auto again = options->copyValue(name);
    require(again && *again);
    if (name.find('-') == std::string::npos) require(*again == *value);
    for (const auto& entry : std::filesystem::directory_iterator(folder.path()))
        if (entry.path().filename() != ours) std::filesystem::remove(entry.path());
    return 0;
}
