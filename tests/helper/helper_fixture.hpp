// SPDX-License-Identifier: MIT
// The daemon object with fakes around it that write down what happens, in one list.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "helper/privileged_helper.hpp"
#include "operations/privileged_operation_set_kvx.hpp"
#include "support/system_flags.hpp"

namespace corvalen::test {

/// What happened, in order.
class Events {
  public:
    void add(std::string event) { _events.push_back(std::move(event)); }
    std::vector<std::string> take() { return std::exchange(_events, {}); }

  private:
    std::vector<std::string> _events;
};

/// Every line becomes the event "<level> <line>".
class RecordingLog : public SystemLog {
  public:
    explicit RecordingLog(Events& events) : _events(events) {}
    std::string_view destination() const noexcept override { return "test"; }
    bool takesFields() const noexcept override { return true; }
    void log(LogLevel level, std::string_view line, const LogFields& fields) override {
        lastFields = fields;
        _events.add(std::to_string(static_cast<int>(level)).append(" ").append(line));
    }
    LogFields lastFields;

  private:
    Events& _events;
};

/// An authority that answers what it is told to.
class FakeAuthorization : public AuthorizationService {
  public:
    explicit FakeAuthorization(Events& recorder) : events(recorder) {}

    class Reference : public Authorization {
      public:
        explicit Reference(FakeAuthorization& service) : _service(service) {}
        ~Reference() override { _service.events.add("free"); }
        AuthorizationStatus copyRight(std::string_view rightName) override {
            _service.events.add(std::string("right ").append(rightName));
            if (_service.rightStatus == kThrow) throw std::bad_alloc();
            return _service.rightStatus;
        }
        void destroyRights() override { _service.events.add("destroy"); }

      private:
        FakeAuthorization& _service;
    };

    std::string description() const override { return "fake"; }
    std::unique_ptr<Authorization> createFromExternalForm(std::string_view, const PeerIdentity&,
                                                          AuthorizationStatus* status) override {
        return create(status);
    }
    std::unique_ptr<Authorization> create(AuthorizationStatus* status) override {
        *status = referenceStatus;
        return referenceStatus == 0 ? std::make_unique<Reference>(*this) : nullptr;
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
    AuthorizationStatus rightStatus = kAuthorizationSuccess;
};

class HelperTest : public ::testing::Test {
  protected:
    void makeHelper(const QRLPrivilegedOperationSet& operations) {
        helper = QRLPrivilegedHelper::initForOperationSet(&operations, services());
    }
    /// The fakes, which the fixture keeps.
    HelperServices services() {
        const auto borrow = [](auto& fake) {
            return std::shared_ptr<std::decay_t<decltype(fake)>>(&fake, [](auto*) {});
        };
        return {borrow(log), borrow(authorization), borrow(flags), UniqueFd()};
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
