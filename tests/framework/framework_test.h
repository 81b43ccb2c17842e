// The fixture of the framework's tests: a machine, the test driver, and clients that send requests
// to its device.
#pragma once

#include "framework/test_driver.h"
#include "platform/machine.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace framework_test {

// Control codes of FILE_DEVICE_UNKNOWN, function 0x800, any access.
constexpr ULONG ControlCode(ULONG method) {
    return FILE_DEVICE_UNKNOWN << 16 | 0x800 << 2 | method;
}
inline constexpr ULONG kBuffered = ControlCode(METHOD_BUFFERED);
inline constexpr ULONG kInDirect = ControlCode(METHOD_IN_DIRECT);
inline constexpr ULONG kOutDirect = ControlCode(METHOD_OUT_DIRECT);
inline constexpr ULONG kNeither = ControlCode(METHOD_NEITHER);

/// One request on its way; its buffers are the sender's memory.
class Sent {
public:
    Sent(std::vector<char> inputBytes, ULONG outputLength)
        : input(std::move(inputBytes)), output(outputLength), status_{} {}

    std::vector<char> input;
    std::vector<char> output;
    NTSTATUS returned = STATUS_PENDING;  ///< by NtDeviceIoControlFile

    bool IsDone() const {
        return __atomic_load_n(&status_.Status, __ATOMIC_ACQUIRE) != STATUS_PENDING;
    }
    NTSTATUS Status() const { return status_.Status; }
    ULONG_PTR Information() const { return status_.Information; }

private:
    friend class Client;
    IO_STATUS_BLOCK status_;
    HANDLE event_ = nullptr;
};

/// A process with the device open for asynchronous requests. Its calls may come from any thread.
class Client {
public:
    /// `opened` gets the status of the open; the client is usable when that is a success.
    Client(platform::Machine& machine, NTSTATUS* opened);
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    platform::Process& Owner() { return *process_; }
    std::unique_ptr<Sent> Send(ULONG code, std::vector<char> input = {}, ULONG outputLength = 0);
    /// METHOD_NEITHER with an output buffer of the caller's choice.
    std::unique_ptr<Sent> SendTo(ULONG code, void* output, ULONG outputLength);
    /// Waits for the end and returns the status.
    NTSTATUS Wait(Sent& sent);
    void Cancel(Sent& sent);
    void Close();

private:
    void Start(Sent& sent, ULONG code, void* output, ULONG outputLength);

    platform::Machine& machine_;
    platform::ObjectRef<platform::Process> process_;
    HANDLE file_ = nullptr;
};

/// Threads wait here for one another.
class Signal {
public:
    void Set() {
        std::scoped_lock guard(lock_);
        set_ = true;
        changed_.notify_all();
    }
    void Wait() {
        std::unique_lock guard(lock_);
        changed_.wait(guard, [this] { return set_; });
    }
    bool IsSet() {
        std::scoped_lock guard(lock_);
        return set_;
    }

private:
    std::mutex lock_;
    std::condition_variable changed_;
    bool set_ = false;
};

class FrameworkTest : public testing::Test {
protected:
    FrameworkTest();
    ~FrameworkTest() override;

    /// Loads the driver with the behaviour set so far; the status is DriverEntry's.
    NTSTATUS Load();
    NTSTATUS Unload();
    /// After a stop in the middle of a deletion: nobody will finish that or unload the driver.
    void AbandonDriver();
    std::unique_ptr<Client> Open();
    /// Requests that the default queue's handler forwards to the parked queue from now on.
    void ParkRequests();
    /// The driver keeps every request that its handler gets.
    void HoldRequests();
    /// The one that the driver got last by HoldRequests.
    WDFREQUEST LastHeld();

    // Expect `action` to stop the machine, with all of `words` in the message.
    void ExpectFrameworkBugcheck(const std::function<void()>& action,
                                 const std::vector<std::string>& words) {
        ExpectStop(platform::kFrameworkBugcheck, 0, action, words);
    }
    void ExpectViolation(platform::Rule rule, const std::function<void()>& action,
                         const std::vector<std::string>& words = {}) {
        ExpectStop(platform::kVerifierBugcheck, static_cast<std::uintptr_t>(rule), action, words);
    }

    std::optional<platform::Machine> machine;

private:
    void ExpectStop(std::uint32_t code, std::uintptr_t parameter,
                    const std::function<void()>& action, const std::vector<std::string>& words);

    std::mutex heldLock_;
    std::vector<WDFREQUEST> held_;
};

}  // namespace framework_test
