// A client that lends buffers, has them cancelled at random and reads what comes back.
#pragma once

#include "platform/machine.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace stress {

/// What identifies a record in these tests: its type and its key's path.
using RecordId = std::pair<std::uint32_t, std::u16string>;
using RecordCounts = std::map<RecordId, int>;
int Total(const RecordCounts& counts);

/// Used by one host thread.
class LendingClient {
public:
    LendingClient(platform::Process& process, std::size_t buffers, unsigned seed);
    ~LendingClient();
    LendingClient(const LendingClient&) = delete;
    LendingClient& operator=(const LendingClient&) = delete;

    /// Lends every buffer that is at home, cancels one now and then, and reads what has come back.
    void Step(bool cancel);
    /// Flushes and reads until nothing more comes, then takes every buffer back.
    void Finish();
    NTSTATUS Flush();
    NTSTATUS SetDumpFile(const std::string& path);

    const RecordCounts& Delivered() const { return delivered_; }
    std::uint64_t Reservations() const { return reservations_; }
    int Cancelled() const { return cancelled_; }
    const std::vector<std::string>& Faults() const { return faults_; }

private:
    struct Loan {
        void* memory = nullptr;
        HANDLE event = nullptr;
        IO_STATUS_BLOCK ioStatus = {};
        bool out = false;
    };

    void Lend(Loan& loan);
    void Collect(Loan& loan);
    bool Settled(const Loan& loan) const;

    platform::ThreadScope thread_;
    std::minstd_rand random_;
    HANDLE device_ = nullptr;
    HANDLE control_ = nullptr;
    std::vector<std::unique_ptr<Loan>> loans_;
    RecordCounts delivered_;
    std::uint64_t reservations_ = 0;
    int cancelled_ = 0;
    std::vector<std::string> faults_;
};

}  // namespace stress
