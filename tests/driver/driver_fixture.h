// A machine with the driver loaded, a trusted client that lends buffers and a monitored process.
#pragma once

#include "channel/memory.h"
#include "driver/control_codes.h"
#include "driver/driver_state.h"
#include "intercept/contexts.h"
#include "intercept/operation_table.h"
#include "kernel/registry_fixture.h"
#include "records/record_format.h"
#include "supportlib/library_test.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace driver_test {

namespace operation = zpregflt::operation;
using platform::FaultPlan;
using platform::KeyHandle;
using platform::ThreadScope;
using zpregflt::EventBuffer;
using zpregflt::Pool;
using zpregflt::State;

inline constexpr char16_t kClientImage[] = u"\\Device\\HarddiskVolume1\\client.exe";
inline constexpr char16_t kWorkerImage[] = u"\\Device\\HarddiskVolume1\\Program\\worker.exe";
inline constexpr std::u16string_view kTestKey = u"\\REGISTRY\\MACHINE\\Test";
inline constexpr std::u16string_view kDeviceName = u"\\??\\zpregflt";

platform::DriverImage MonitorImage();

// --- Buffers and what is in them -----------------------------------------------------------------

/// One record of a buffer's chain.
struct Record {
    zpregflt::RecordHeader header;
    std::size_t offset;  ///< in the buffer
    std::optional<std::u16string> key;

    /// Tells the records apart that tests write themselves; see Space::Commit.
    std::uint64_t Mark() const { return header.SystemTime; }
};

/// The chain in its order. Fails the test when it leaves the buffer, comes back to itself, holds
/// something that is no record, or anything in it is not aligned or not terminated.
std::vector<Record> ReadChain(std::span<const std::byte> image);
std::vector<std::uint64_t> Marks(const std::vector<Record>& records);

/// The image of each block of a dump file; fails the test when the file holds anything else.
std::vector<std::vector<std::byte>> ReadDump(const std::string& path);

/// One reservation of the test's own, as a record writer would make it.
class Space {
public:
    explicit Space(std::uint32_t size, std::uint32_t flags = 0, std::uint32_t sequence = 0);

    explicit operator bool() const { return address_ != nullptr; }
    std::uint32_t Size() const { return size_; }
    std::uint32_t Sequence() const { return sequence_; }
    EventBuffer* Buffer() const { return buffer_; }
    /// From the buffer's first byte.
    std::size_t Offset() const {
        return static_cast<std::size_t>(static_cast<UCHAR*>(address_) - buffer_->base);
    }
    void Commit(std::uint64_t mark) const;
    void Release() const { zpregflt::MemRelease(buffer_); }

private:
    PVOID address_;
    EventBuffer* buffer_ = nullptr;
    std::uint32_t size_;
    std::uint32_t sequence_;
};

/// A whole record, written and released.
void WriteMark(std::uint64_t mark, std::uint32_t size = sizeof(zpregflt::RecordHeader));
/// Sequences of the buffers of a list of the pool, in its order.
std::vector<std::uint32_t> Sequences(LIST_ENTRY& list);

// --- The client ----------------------------------------------------------------------------------

class Client;

/// A buffer request and its memory. Taken back, if it is still out, when it goes away.
class Loan {
public:
    Loan(Client& client, std::size_t size);
    ~Loan();
    Loan(const Loan&) = delete;
    Loan& operator=(const Loan&) = delete;

    /// Sends the request (again). Its status so far: STATUS_PENDING while it is out.
    NTSTATUS Send();
    bool IsOut() const;
    /// The end's status.
    NTSTATUS Wait() const;
    void Cancel();
    std::size_t Information() const { return ioStatus_.Information; }
    std::span<std::byte> Memory() const { return {memory_, size_}; }
    std::vector<Record> Records() const { return ReadChain(Memory()); }

private:
    Client& client_;
    std::byte* memory_;
    std::size_t size_;
    HANDLE event_ = nullptr;
    IO_STATUS_BLOCK ioStatus_ = {};
};

/// A process that has the device open, once for requests that stay and once for those that do not.
/// Every call is made in the process.
class Client {
public:
    explicit Client(platform::Process& process) : process_(process) {}
    ~Client() { Close(); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    NTSTATUS Open();
    void Close();
    platform::Process& Owner() const { return process_; }
    HANDLE Device() const { return device_; }

    /// A request that ends at once; `information` receives what it reports.
    NTSTATUS Control(ULONG code, const void* input = nullptr, std::size_t inputLength = 0,
                     void* output = nullptr, std::size_t outputLength = 0,
                     std::size_t* information = nullptr) const;
    NTSTATUS SetNumber(ULONG code, std::uint32_t number) const {
        return Control(code, &number, sizeof(number));
    }
    NTSTATUS Flush() const { return Control(zpregflt::IOCTL_ZPRF_FLUSH); }
    NTSTATUS SetDumpFile(const std::string& path) const;
    /// Lends a buffer, which must be taken.
    std::unique_ptr<Loan> Lend(std::size_t size = zpregflt::kMinimumBufferSize);

private:
    platform::Process& process_;
    HANDLE device_ = nullptr;
    HANDLE control_ = nullptr;
};

/// Opens a device or file in the current process; null when that fails.
HANDLE OpenFile(std::u16string_view name, ACCESS_MASK access, ULONG disposition, ULONG options);

// --- The fixture ---------------------------------------------------------------------------------

/// Boots with both service keys written. A test sets parameters and then starts the drivers.
class DriverTest : public testing::Test {
protected:
    DriverTest();
    /// The machine stops the program if anything was left behind.
    ~DriverTest() override;

    /// Boots anew, on another system.
    void Boot(const platform::MachineOptions& options);
    void SetParameter(std::u16string_view subkey, std::u16string_view value, std::uint32_t number);
    static std::u16string ParameterKey(std::u16string_view subkey);
    /// Loads both drivers, starts both processes and opens the device.
    void Start();
    /// The same on a system that had no memory for boot buffers: all buffers are lent ones.
    void StartWithoutBootBuffers();
    /// As Start, with these operations recorded besides those that always are.
    void StartRecording(zpregflt::OperationMask operations);
    /// Ends the processes and unloads the drivers, which must leave nothing behind.
    void Stop();
    Client& TheClient() { return *client_; }
    platform::Process& Worker() { return *worker_; }
    /// A path for a dump file, removed at the end.
    const std::string& DumpPath() const { return dumpPath_; }

    std::optional<platform::Machine> machine_;
    platform::ObjectRef<platform::Process> clientProcess_;
    platform::ObjectRef<platform::Process> worker_;
    std::optional<Client> client_;

private:
    void StartProcesses();

    std::string dumpPath_;
};

/// The driver's context of a key of the current process; null when it has none.
zpregflt::KeyObjectContext* ContextOf(HANDLE key);

/// The four counters of a row of the operation table.
struct Counters {
    LONG64 hit, fail, filter, log;
    bool operator==(const Counters&) const = default;
    friend Counters operator-(const Counters& a, const Counters& b) {
        return {a.hit - b.hit, a.fail - b.fail, a.filter - b.filter, a.log - b.log};
    }
    friend void PrintTo(const Counters& counters, std::ostream* out) {
        *out << "hit " << counters.hit << " fail " << counters.fail << " filter " << counters.filter
             << " log " << counters.log;
    }
};
Counters CountersOf(ULONG notifyClass);

}  // namespace driver_test
