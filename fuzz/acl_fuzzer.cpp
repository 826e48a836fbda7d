// SPDX-License-Identifier: MIT
// Fuzzes the check of external access control lists. The kernel is the oracle: it must accept every
// valid list and return what was written.
#include <cerrno>

#include "fuzz.hpp"
#include "platform/files/extended_acl.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace corvalen;
    using namespace corvalen::fuzz;
    static const test::ScratchFolder folder;
    static const std::string path = test::putFile(folder.path("file"), "");
    static const auto acl = makeExtendedAcl();
    const ExternalAcl list(data, data + size);
    const bool valid = isValidExternalAcl(Input(data, size).rest());
    const std::vector<AclEntry> entries = entriesOf(list);
    if (valid) require(externalAclOf(entries) == list);
    const ObjectAddress object{kWorkingDirectory, path.c_str(), true};
    const Result<> written = acl->writeList(object, AclKind::access, list);
    require(valid ? written || failedWith(written, EOPNOTSUPP) || failedWith(written, ENOSPC)
                  : failedWith(written, EINVAL));
    if (!written) return 0;
    const Result<ExternalAcl> read = acl->readList(object, AclKind::access);
    require(read.has_value());
    // The kernel stores no list that only repeats the mode, and no id for tags that have none.
    const auto without = [](const std::vector<AclEntry>& all) {
        std::vector<std::pair<unsigned, unsigned>> result;
        result.reserve(all.size());
        for (const AclEntry& entry : all)
            result.emplace_back(entry.tag, entry.permissions);
        return result;
    };
    if (!read->empty()) require(without(entriesOf(*read)) == without(entries));
    require(acl->removeList(object, AclKind::access).has_value());
    return 0;
}
