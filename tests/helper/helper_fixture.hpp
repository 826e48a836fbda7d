// SPDX-License-Identifier: MIT
// The daemon object among fakes that record what happens in one list.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

#include "helper/privileged_helper.hpp"
#include "operations/privileged_operation_set.hpp"
#include "support/eventually.hpp"
#include "support/silent_log.hpp"

namespace corvalen::test {

/// What happened, in order.
struct Events {
    void add(std::string event) { list.push_back(std::move(event)); }
    std::vector<std::string> take() { return std::exchange(list, {}); }
    std::vector<std::string> list;
};

/// Every line becomes the event "<level> <line>".
struct RecordingLog : SilentLog {
    explicit RecordingLog(Events& recorder) : events(recorder) {}
    void log(LogLevel level, std::string_view line, const LogFields& fields) override {
        if (onLine) onLine();
        lastFields = fields;
        events.add(std::to_string(static_cast<int>(level)).append(" ").append(line));
    }
    Events& events;
    LogFields lastFields;
    std::function<void()> onLine;
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
    struct Right {
        Value definition;
        std::string prompt, table;
    };

    std::string description() const override { return "fake"; }
    std::unique_ptr<Authorization> createFromExternalForm(std::string_view, const PeerIdentity&,
                                                          AuthorizationStatus* status) override {
        *status = referenceStatus;
        return referenceStatus == 0 && givesReference ? std::make_unique<Reference>(*this)
                                                      : nullptr;
    }
    std::unique_ptr<Authorization> create(AuthorizationStatus* status) override {
        *status = createStatus;
        return createStatus == 0 ? std::make_unique<Reference>(*this) : nullptr;
    }
    AuthorizationStatus rightGet(std::string_view) override { return getStatus; }
    AuthorizationStatus rightSet(Authorization*, std::string_view rightName,
                                 const Value& definition, std::string_view prompt,
                                 std::string_view table) override {
        events.add(std::string("define ").append(rightName));
        rights[std::string(rightName)] = {definition, std::string(prompt), std::string(table)};
        return changeStatus;
    }
    AuthorizationStatus rightRemove(Authorization*, std::string_view rightName) override {
        events.add(std::string("remove ").append(rightName));
        return changeStatus;
    }

    static constexpr AuthorizationStatus kThrow = 1;
    Events& events;
    std::map<std::string, Right> rights;
    bool givesReference = true;
    AuthorizationStatus referenceStatus = 0, createStatus = 0, rightStatus = 0, getStatus = 0,
                        changeStatus = 0;
};

class HelperTest : public ::testing::Test {
  protected:
    void makeHelper(const QRLPrivilegedOperationSet& operations) {
        const auto borrow = [](auto& fake) {
            return std::shared_ptr<std::decay_t<decltype(fake)>>(&fake, [](auto*) {});
        };
        helper = QRLPrivilegedHelper::initForOperationSet(
            &operations, {borrow(log), borrow(authorization), makeFileFlags(), UniqueFd()});
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
    PeerIdentity peer{4711, 1000, 1000, 0, nullptr};
    std::shared_ptr<QRLPrivilegedHelper> helper;
};

}  // namespace corvalen::test
