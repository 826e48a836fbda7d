// SPDX-License-Identifier: MIT
// The daemon object among fakes that record what happens in one list.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "helper/privileged_helper.hpp"
#include "operations/privileged_operation_set.hpp"
#include "support/eventually.hpp"
#include "support/system_flags.hpp"

namespace corvalen::test {

/// What happened, in order.
struct Events {
    void add(std::string event) { list.push_back(std::move(event)); }
    std::vector<std::string> take() { return std::exchange(list, {}); }
    std::vector<std::string> list;
};

/// Every line becomes the event "<level> <line>".
struct RecordingLog : SystemLog {
    explicit RecordingLog(Events& recorder) : events(recorder) {}
    std::string_view destination() const noexcept override { return "test"; }
    bool takesFields() const noexcept override { return true; }
    void log(LogLevel level, std::string_view line, const LogFields& fields) override {
        if (onLine) onLine(line);
        lastFields = fields;
        events.add(std::to_string(static_cast<int>(level)).append(" ").append(line));
    }
    Events& events;
    LogFields lastFields;
    std::function<void(std::string_view line)> onLine;
};

/// An authority with configurable replies.
struct FakeAuthorization : AuthorizationService {
    explicit FakeAuthorization(Events& recorder) : events(recorder) {}

    struct Reference : Authorization {
        explicit Reference(FakeAuthorization& by) : service(by) {}
        ~Reference() override { service.events.add("free"); }
        AuthorizationStatus copyRight(std::string_view rightName,
                                      const RightPurposeSource&) override {
            service.events.add(std::string("right ").append(rightName));
            if (service.rightStatus == kThrow) throw std::bad_alloc();
            return service.rightStatus;
        }
        void destroyRights() override { service.events.add("destroy"); }
        FakeAuthorization& service;
    };

    std::string description() const override { return "fake"; }
    std::unique_ptr<Authorization> createFromExternalForm(std::string_view, const PeerIdentity&,
                                                          AuthorizationStatus* status) override {
        return create(status);
    }
    std::unique_ptr<Authorization> create(AuthorizationStatus* status) override {
        *status = referenceStatus;
        return referenceStatus == 0 && givesReference ? std::make_unique<Reference>(*this)
                                                      : nullptr;
    }
    AuthorizationStatus rightGet(std::string_view) override { return kAuthorizationSuccess; }
    AuthorizationStatus rightSet(Authorization*, std::string_view, const Value&, std::string_view,
                                 std::string_view) override {
        return kAuthorizationInternal;
    }
    AuthorizationStatus rightRemove(Authorization*, std::string_view rightName) override {
        events.add(std::string("remove ").append(rightName));
        return kAuthorizationDenied;
    }

    static constexpr AuthorizationStatus kThrow = 1;
    Events& events;
    AuthorizationStatus referenceStatus = kAuthorizationSuccess;
    bool givesReference = true;
    AuthorizationStatus rightStatus = kAuthorizationSuccess;
};

class HelperTest : public ::testing::Test {
  protected:
    void makeHelper(const QRLPrivilegedOperationSet& operations) {
        const auto borrow = [](auto& fake) {
            return std::shared_ptr<std::decay_t<decltype(fake)>>(&fake, [](auto*) {});
        };
        helper = QRLPrivilegedHelper::initForOperationSet(
            &operations, {borrow(log), borrow(authorization), borrow(flags), UniqueFd()});
    }
    /// A connection that is ending may hold the helper, of which a process has only one.
    void TearDown() override {
        const std::weak_ptr<QRLPrivilegedHelper> ending = helper;
        helper.reset();
        EXPECT_TRUE(eventually([&] { return ending.expired(); }));
    }

    Events events;
    RecordingLog log{events};
    FakeAuthorization authorization{events};
    FlagsWithSystemBits flags;
    QRLPrivilegedOperationSetKVX catalogue;
    PeerIdentity peer{4711, 1000, 1000, 0, nullptr};
    std::shared_ptr<QRLPrivilegedHelper> helper;
};

}  // namespace corvalen::test
