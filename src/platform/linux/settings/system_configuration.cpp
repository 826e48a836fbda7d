// SPDX-License-Identifier: MIT
#include "platform/settings/settings.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <optional>

#include "corvalen/descriptor.hpp"
#include "platform/files/atomic_file.hpp"
#include "platform/files/object_address.hpp"

namespace corvalen {
namespace {

constexpr std::string_view kSubfolder = "system-configuration";
constexpr mode_t kViewFolderMode = 0755;
constexpr mode_t kViewFileMode = 0644;
constexpr std::chrono::seconds kLongestWaitAtStart{1};

std::string lockNameOf(const std::string& identifier) {
    return '.' + identifier + ".lock";
}

Result<UniqueFd> openSubfolderOf(const std::string& path, mode_t mode) {
    return openStoreFolder(path, mode).and_then([mode](const UniqueFd& folder) {
        return openFolderBeneath(folder, kSubfolder, mode, true);
    });
}

class FileSession final : public SystemConfigurationSession {
  public:
    FileSession(UniqueFd store, std::string runtimeFolder, std::string identifier)
        : _store(std::move(store)),
          _runtimeFolder(std::move(runtimeFolder)),
          _identifier(std::move(identifier)) {}

    bool lock() override {
        _lock = lockFile(_store, lockNameOf(_identifier), std::nullopt).value_or(UniqueFd());
        return static_cast<bool>(_lock);
    }

    void unlock() override {
        _values.reset();
        _lock.reset();
    }

    bool setValue(std::string_view key, const Value& value) override {
        if (!load()) return false;
        _values->set(key, value);
        return true;
    }

    bool removeValue(std::string_view key) override {
        if (!load()) return false;
        _values->remove(key);
        return true;
    }

    bool applyChanges() override {
        if (!_values) return false;
        const Result<UniqueFd> view = openSubfolderOf(_runtimeFolder, kViewFolderMode);
        return view && writePropertyListFile(*view, _identifier, *_values, kViewFileMode);
    }

    bool commitChanges() override {
        return _values && writePropertyListFile(_store, _identifier, *_values, kPrivateFileMode);
    }

  private:
    bool load() {
        if (!_lock) return false;
        if (!_values) _values = readPropertyListFile(_store, _identifier);
        return _values.has_value();
    }

    UniqueFd _store;
    std::string _runtimeFolder;
    std::string _identifier;
    UniqueFd _lock;
    std::optional<Dictionary> _values;
};

class FileConfiguration final : public SystemConfiguration {
  public:
    FileConfiguration(std::string storeFolder, std::string runtimeFolder)
        : _storeFolder(std::move(storeFolder)), _runtimeFolder(std::move(runtimeFolder)) {}

    std::unique_ptr<SystemConfigurationSession> create(std::string_view /*sessionName*/,
                                                       std::string_view identifier) override {
        if (identifier.empty()) identifier = kDefaultConfigurationIdentifier;
        // Names with a leading dot are those of locks and unfinished files.
        if (!isSafeFileName(identifier) || identifier.front() == '.') return nullptr;
        Result<UniqueFd> store = openSubfolderOf(_storeFolder, kPrivateFolderMode);
        if (!store) return nullptr;
        return std::make_unique<FileSession>(*std::move(store), _runtimeFolder,
                                             std::string(identifier));
    }

  private:
    std::string _storeFolder;
    std::string _runtimeFolder;
};

void restoreView(Descriptor store, Descriptor view, const std::string& identifier) {
    const Result<UniqueFd> lock = lockFile(store, lockNameOf(identifier), kLongestWaitAtStart);
    const bool isInForce =
        ::faccessat(view.get(), identifier.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0 ||
        errno != ENOENT;
    if (!lock || isInForce) return;
    if (const auto values = readPropertyListFile(store, identifier)) {
        (void)writePropertyListFile(view, identifier, *values, kViewFileMode);
    }
}

}  // namespace

void restoreRunningConfiguration(const std::string& storeFolder, const std::string& runtimeFolder) {
    const std::filesystem::path folder = std::filesystem::path(storeFolder) / kSubfolder;
    std::error_code failure;
    std::filesystem::directory_iterator entries(folder, failure);
    if (failure) return;  // nothing was ever stored
    const Result<UniqueFd> store = openSubfolderOf(storeFolder, kPrivateFolderMode);
    const Result<UniqueFd> view = openSubfolderOf(runtimeFolder, kViewFolderMode);
    for (; store && view && entries != std::filesystem::directory_iterator();
         entries.increment(failure)) {
        const std::string identifier = entries->path().filename();
        if (identifier.front() != '.') restoreView(*store, *view, identifier);
    }
}

std::unique_ptr<SystemConfiguration> makeSystemConfiguration(std::string storeFolder,
                                                             std::string runtimeFolder) {
    return std::make_unique<FileConfiguration>(std::move(storeFolder), std::move(runtimeFolder));
}

}  // namespace corvalen
