// Repeats recorded operations: one system call of the machine for each.
#pragma once

#include "zpregmon/replay/hive_files.h"
#include "zpregmon/replay/replay_process.h"
#include "zpregmon/replay/workload.h"

#include <cstddef>
#include <memory>
#include <span>

namespace zpregmon {

/// What the machine answered. Text in the answer is valid until the caller's next operation.
struct Outcome {
    NTSTATUS status = STATUS_SUCCESS;
    std::uint32_t disposition = 0;
    Answer answer;
    /// A whole answer as it came, valid as its text is.
    std::span<const std::byte> bytes;
    /// A query's answer was given in whole or, with STATUS_BUFFER_OVERFLOW, in part.
    bool HasAnswer() const { return status == STATUS_SUCCESS || status == STATUS_BUFFER_OVERFLOW; }
    /// The whole answer fitted.
    bool IsComplete() const { return status == STATUS_SUCCESS; }
};

/// Starts and exits of processes and marks are no calls.
bool IsCall(Op op);

/// Makes calls for one host thread, which is a thread of the process that makes them.
class RegistryCaller {
public:
    /// `hives` outlives the caller.
    explicit RegistryCaller(HiveFiles& hives);

    /// An operation other than kDuplicate. Keeps the process's handle map.
    Outcome Call(const Record& record, ReplayProcess& process);
    /// kDuplicate, in any process's thread.
    static Outcome Duplicate(const Record& record, ReplayProcess& from, ReplayProcess& to);

private:
    Outcome OpenOrCreate(const Record& record, ReplayProcess& process);
    NTSTATUS LoadKey(const Record& record, const ReplayProcess& process);
    NTSTATUS SaveKey(const Record& record, HANDLE key);
    NTSTATUS QuerySecurity(const Record& record, HANDLE key);
    NTSTATUS SetValue(const Record& record, HANDLE key);
    Outcome QueryValue(const Record& record, HANDLE key);
    Outcome EnumerateValue(const Record& record, HANDLE key);
    Outcome QueryKey(const Record& record, HANDLE key);
    std::span<const std::byte> WholeAnswer(const Outcome& outcome, ULONG length) const;
    ULONG BufferLength(const Record& record, std::size_t fixedPart) const;

    HiveFiles& hives_;
    std::unique_ptr<std::byte[]> buffer_;
};

}  // namespace zpregmon
