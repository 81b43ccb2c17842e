// A registry callback that writes down what it is told.
#pragma once

#include "platform/kernel/text.h"

#include <ntifs.h>

#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace platform {

using Lines = std::vector<std::string>;

/// What callbacks were told, one "name class" a line.
class Log {
public:
    void Add(std::string line) {
        const std::lock_guard guard(lock_);
        lines_.push_back(std::move(line));
    }
    Lines Take() {
        const std::lock_guard guard(lock_);
        return std::exchange(lines_, {});
    }

private:
    std::mutex lock_;
    Lines lines_;
};

/// A callback that is registered as long as it lives and answers as the test says.
class TestCallback {
public:
    using Answer = std::function<NTSTATUS(REG_NOTIFY_CLASS, void* information)>;

    TestCallback(Log& log, std::string name, std::u16string_view altitude, Answer answer = {})
        : log_(log), name_(std::move(name)), answer_(std::move(answer)) {
        UNICODE_STRING text = Describe(altitude);
        status_ = CmRegisterCallbackEx(Called, &text, this, this, &cookie_, nullptr);
    }
    ~TestCallback() {
        if (NT_SUCCESS(status_)) Unregister();
    }
    TestCallback(const TestCallback&) = delete;
    TestCallback& operator=(const TestCallback&) = delete;

    NTSTATUS Status() const { return status_; }
    NTSTATUS Unregister() {
        status_ = STATUS_UNSUCCESSFUL;
        return CmUnRegisterCallback(cookie_);
    }
    NTSTATUS SetContext(void* object, void* context, void** old = nullptr) {
        return CmSetCallbackObjectContext(object, &cookie_, context, old);
    }

private:
    static NTSTATUS NTAPI Called(PVOID context, PVOID notifyClass, PVOID information) {
        auto& self = *static_cast<TestCallback*>(context);
        const auto number = static_cast<int>(reinterpret_cast<std::intptr_t>(notifyClass));
        self.log_.Add(self.name_ + " " + std::to_string(number));
        if (!self.answer_) return STATUS_SUCCESS;
        return self.answer_(static_cast<REG_NOTIFY_CLASS>(number), information);
    }

    Log& log_;
    std::string name_;
    Answer answer_;
    LARGE_INTEGER cookie_{};
    NTSTATUS status_;
};

inline REG_POST_OPERATION_INFORMATION& Post(void* information) {
    return *static_cast<REG_POST_OPERATION_INFORMATION*>(information);
}

}  // namespace platform
