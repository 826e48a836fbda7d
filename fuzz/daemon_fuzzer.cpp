// SPDX-License-Identifier: MIT
// Fuzzes the whole daemon: bytes and descriptors sent over a connection pass assembler, dispatch
// and pipeline to the operations. The operations change a scratch directory, which is the root
// directory of the serving threads, and substitutes for the machine's settings. Utilities are left
// out.
//
// The first byte of an input is the size of the pieces, the second selects the pieces with
// descriptors, the third their kind; the rest is the stream. After each input, descriptors and
// quotas must be back at their start values.
#include <sched.h>

#include "fileops/file_operations.hpp"
#include "fuzz.hpp"
#include "helper/privileged_helper.hpp"
#include "operations/privileged_operation_set.hpp"
#include "settings/settings_operations.hpp"
#include "treewalk/tree_walk_operations.hpp"
#include "xpc/connection.hpp"
#include "xpc/limits.hpp"

/// Replaces _exit(2): the end of the daemon ends only the message.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the linker forms the name
extern "C" [[noreturn]] void __wrap__exit(int) {
    throw std::runtime_error("the daemon has ended");
}

namespace corvalen::fuzz {
namespace {

struct NoLog : SystemLog {
    std::string_view destination() const noexcept override { return "nowhere"; }
    bool takesFields() const noexcept override { return true; }
    void log(LogLevel, std::string_view, const LogFields&) override {}
};

/// Grants everything, to reach the code after the authorization.
struct Grants : AuthorizationService {
    struct Reference : Authorization {
        AuthorizationStatus copyRight(std::string_view, const RightPurposeSource&) override {
            return kAuthorizationSuccess;
        }
        void destroyRights() override {}
    };
    std::string description() const override { return "grants"; }
    std::unique_ptr<Authorization> createFromExternalForm(std::string_view, const PeerIdentity&,
                                                          AuthorizationStatus* status) override {
        return create(status);
    }
    std::unique_ptr<Authorization> create(AuthorizationStatus* status) override {
        *status = kAuthorizationSuccess;
        return std::make_unique<Reference>();
    }
    AuthorizationStatus rightGet(std::string_view) override { return kAuthorizationSuccess; }
    AuthorizationStatus rightSet(Authorization*, std::string_view, const Value&, std::string_view,
                                 std::string_view) override {
        return kAuthorizationSuccess;
    }
    AuthorizationStatus rightRemove(Authorization*, std::string_view) override {
        return kAuthorizationSuccess;
    }
};

Result<> resultIf(bool succeeds, int number) {
    if (!succeeds) return failure(number);
    return {};
}

struct NoFlags : FileFlags {
    Result<std::uint32_t> readFlags(const ObjectAddress&, const struct statx&) override {
        return 0U;
    }
    Result<> setFlags(const ObjectAddress&, std::uint32_t) override { return {}; }
};
struct NoDrives : DiskStandby {
    void setTimer(const std::string&, std::uint8_t) override {}
};
struct NoKernel : KernelVariables {
    Result<> setInteger(std::string_view name, std::int64_t) override {
        return resultIf(!name.empty(), 2);
    }
};
struct NoProcesses : Processes {
    Result<> terminate(pid_t process) override { return resultIf(process >= 1, 22); }
};

const QRLPrivilegedOperationSet& operationSet() {
    static NoFlags flags;
    static const auto manager = makeFileManager(flags);
    static const auto acl = makeExtendedAcl();
    static const auto users = makeUserDatabase();
    static const auto* set = [] {
        std::vector<std::unique_ptr<OperationGroup>> groups;
        groups.push_back(std::make_unique<FileOperations>(*manager, flags, *acl));
        groups.push_back(std::make_unique<TreeWalkOperations>(*users, *acl));
        groups.push_back(std::make_unique<SettingsOperations>(
            SettingsServices{makePowerManagement(
                                 {.store = "/store", .powerSupplies = "/p", .blockDevices = "/b"},
                                 std::make_unique<NoDrives>()),
                             std::make_unique<NoKernel>(), makeFirmwareVariables("/efi"),
                             makePreferences("/preferences"),
                             makeSystemConfiguration("/store", "/run"),
                             std::make_unique<NoProcesses>()},
            [](std::string_view) {}));
        return new QRLPrivilegedOperationSetKVX(std::move(groups));
    }();
    return *set;
}

/// The directory that becomes the root directory; restored for each input.
class Root {
  public:
    Root() { fill(); }
    [[nodiscard]] const std::string& path() const { return _folder.path(); }
    void refill() {
        for (const auto& entry : std::filesystem::directory_iterator(path()))
            std::filesystem::remove_all(entry.path());
        fill();
    }

  private:
    void fill() const {
        for (const char* folder : {"/t/sub", "/store", "/efi", "/run", "/preferences"})
            std::filesystem::create_directories(path() + folder);
        for (const char* file : {"/f", "/t/a.log", "/t/sub/b.log"})
            test::putFile(path() + file, "text");
        std::filesystem::create_symlink("a.log", path() + "/t/link");
    }
    test::ScratchFolder _folder;
};

void feed(Input input, Descriptor socket) {
    const std::size_t pieceSize = input.byte() + 1;
    const unsigned withDescriptors = input.byte();
    unsigned kind = input.byte();
    for (unsigned piece = 0; !input.empty(); ++piece) {
        const std::string_view bytes = input.bytes(pieceSize);
        const bool with = ((withDescriptors >> (piece % 8)) & 1U) != 0;
        const UniqueFd first = someDescriptor(kind), second = someDescriptor(kind / 4);
        kind += piece;
        if (!(with ? sendWith(socket, bytes, {first, second}) : sendWith(socket, bytes, {}))) break;
    }
    ::shutdown(socket.get(), SHUT_WR);
    // Read replies until the daemon has closed its side.
    std::array<char, 4096> room{};
    std::vector<UniqueFd> descriptors;
    requireSoon([&] {
        (void)waitFor(socket, POLLIN, Clock::now() + std::chrono::seconds(1));
        const Result<Received> received = receive(socket, room, descriptors);
        return received ? received->size == 0 : !failedWith(received, EAGAIN);
    });
}

void serve(Input input, const std::string& root, const std::shared_ptr<UserQuotas>& quotas) {
    require(::unshare(CLONE_FS) == 0 && ::chroot(root.c_str()) == 0 && ::chdir("/") == 0);
    const auto helper = QRLPrivilegedHelper::initForOperationSet(
        &operationSet(), {std::make_shared<NoLog>(), std::make_shared<Grants>(),
                          std::make_shared<NoFlags>(), UniqueFd()});
    SocketPair pair = makeSocketPair(SOCK_STREAM);
    {
        const auto connection = Connection::adoptSocket(std::move(pair.first), quotas);
        require(connection != nullptr);
        helper->listenerShouldAcceptNewConnection(*helper->listener(), connection);
        feed(input, pair.second);
    }
    helper->listener()->invalidate();
}

}  // namespace
}  // namespace corvalen::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace corvalen;
    using namespace corvalen::fuzz;
    static Root root;
    (void)operationSet();
    const auto quotas = std::make_shared<UserQuotas>();
    const Surroundings surroundings;
    std::thread([&] { serve(Input(data, size), root.path(), quotas); }).join();
    requireSoon([&] { return !QRLPrivilegedHelper::privilegedHelper(); });
    surroundings.requireRestored();
    for (const Resource resource :
         {Resource::connections, Resource::unfinishedBytes, Resource::decodedBytes,
          Resource::endpoints, Resource::registrations})
        requireSoon([&] { return quotas->charged(resource) == 0; });
    root.refill();
    return 0;
}
