// SPDX-License-Identifier: MIT
// Feeds the reading of firmware variables: the name up to a newline, then the contents of its file.
// A value that is read and written comes back equal, under our own GUID with its kind.
#include "fuzz.hpp"
#include "platform/firmware_variables.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace corvalen;
    using namespace corvalen::fuzz;
    static const test::ScratchFolder folder;
    static const auto variables = makeFirmwareVariables(folder.path());
    Input input(data, size);
    const std::string name(input.until('\n'));
    const std::string ours = std::string("v-").append(kFirmwareVendorGuid);
    test::putFile(folder.path(ours), input.rest());
    std::int32_t status = 0;
    const auto options = variables->openOptions(&status);
    require(options != nullptr && status == 0);
    const auto value = options->copyValue("v", &status);
    if (!value) return 0;
    // Empty contents would delete the variable of another vendor; ours always have their mark.
    if (options->setValue(name, *value) != 0) return 0;
    const auto again = options->copyValue(name, &status);
    require(again && status == 0);
    if (name.find('-') == std::string::npos) require(*again == *value);
    for (const auto& entry : std::filesystem::directory_iterator(folder.path()))
        if (entry.path().filename() != ours) std::filesystem::remove(entry.path());
    return 0;
}
