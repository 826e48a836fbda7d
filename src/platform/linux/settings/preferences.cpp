// SPDX-License-Identifier: MIT
#include "platform/settings/settings.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <optional>

#include "corvalen/descriptor.hpp"
#include "platform/authorization/identity.hpp"
#include "platform/files/atomic_file.hpp"
#include "platform/files/object_address.hpp"
#include "platform/processes/threads.hpp"

namespace corvalen {
namespace {

constexpr std::string_view kUserFolder = ".config/preferences";
constexpr std::string_view kByHostFolder = "ByHost";
constexpr const char* kLockName = ".lock";
constexpr std::chrono::seconds kLongestLockWait{10};
constexpr mode_t kSharedFolderMode = 0755;
constexpr mode_t kSharedFileMode = 0644;
constexpr std::size_t kHostNameSize = 256;

/// A file, and its directory relative to an open base directory.
struct Place {
    std::string folder;
    std::string fileName;
    mode_t folderMode;
    mode_t fileMode;
};

std::string ownHostName() {
    char name[kHostNameSize] = "";
    if (::gethostname(name, sizeof name - 1) != 0) return {};
    return name;
}

/// Escapes dots of the host as %2E and percent signs as %25, so that the host begins after the last
/// dot: "a.b" on "c" and "a" on "b.c" are two files.
std::string hostForFileName(std::string_view host) {
    std::string escaped;
    for (const char character : host) {
        if (character == '.')
            escaped += "%2E";
        else if (character == '%')
            escaped += "%25";
        else
            escaped.push_back(character);
    }
    return escaped;
}

std::optional<std::string> fileNameFor(const PreferencesDomain& domain) {
    std::string name(domain.application == preferences::kAnyApplication ? ".GlobalPreferences"
                                                                        : domain.application);
    if (!isSafeFileName(name)) return std::nullopt;
    if (domain.host != preferences::kAnyHost) {
        const std::string host =
            domain.host == preferences::kCurrentHost ? ownHostName() : std::string(domain.host);
        if (!isSafeFileName(host)) return std::nullopt;
        name.append(".").append(hostForFileName(host));
        if (!isSafeFileName(name)) return std::nullopt;
    }
    return name + ".plist";
}

Place placeFor(const PreferencesDomain& domain, std::string_view folder, std::string fileName) {
    const bool shared = domain.user == preferences::kAnyUser;
    Place place{std::string(folder), std::move(fileName),
                shared ? kSharedFolderMode : kPrivateFolderMode,
                shared ? kSharedFileMode : kPrivateFileMode};
    if (domain.host != preferences::kAnyHost) place.folder.append("/").append(kByHostFolder);
    return place;
}

bool update(Descriptor base, const Place& place, std::string_view key, const Value* value) {
    const bool create = value != nullptr;
    const Result<UniqueFd> folder = openFolderBeneath(base, place.folder, place.folderMode, create);
    if (!folder) return !create && failedWith(folder, ENOENT);
    const Result<UniqueFd> lock = lockFile(*folder, kLockName, kLongestLockWait);
    if (!lock) return false;
    auto dictionary = readPropertyListFile(*folder, place.fileName);
    if (!dictionary) return false;
    if (value == nullptr) {
        if (!dictionary->remove(key)) return true;
    } else {
        dictionary->set(key, *value);
    }
    return writePropertyListFile(*folder, place.fileName, *dictionary, place.fileMode).has_value();
}

class FilePreferences final : public Preferences {
  public:
    explicit FilePreferences(std::string_view anyUserFolder)
        : _anyUserFolder(anyUserFolder.substr(
              std::min(anyUserFolder.find_first_not_of('/'), anyUserFolder.size()))) {}

    bool setValueAndSynchronize(std::string_view key, const Value* value,
                                const PreferencesDomain& domain) override {
        auto fileName = fileNameFor(domain);
        if (!fileName) return false;
        if (domain.user == preferences::kAnyUser) {
            const UniqueFd root(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
            return root &&
                   update(root, placeFor(domain, _anyUserFolder, std::move(*fileName)), key, value);
        }
        const auto account =
            domain.user == preferences::kCurrentUser ? ownUserAccount() : accountNamed(domain.user);
        if (!account || account->homeFolder.empty() || account->homeFolder.front() != '/') {
            return false;
        }
        const ScopedFileSystemUser asUser(*account);
        if (!asUser) return false;
        const UniqueFd home(::open(account->homeFolder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        return home &&
               update(home, placeFor(domain, kUserFolder, std::move(*fileName)), key, value);
    }

  private:
    static std::optional<UserAccount> accountNamed(std::string_view name) {
        if (name.find('\0') != std::string_view::npos) return std::nullopt;
        return userAccountNamed(std::string(name));
    }

    std::string _anyUserFolder;  // relative to /
};

}  // namespace

std::unique_ptr<Preferences> makePreferences(std::string_view anyUserFolder) {
    return std::make_unique<FilePreferences>(anyUserFolder);
}

}  // namespace corvalen
