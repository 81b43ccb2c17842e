// Whether the records of queries hold, byte for byte, what the callers were given.
#pragma once

#include "client/event.h"
#include "platform/kernel/fault_injection.h"
#include "zpregmon/replay/registry_call.h"
#include "zpregmon/replay/workload.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace zpregmon {

struct LedgerResult {
    std::uint64_t compared = 0;
    std::uint64_t disagreements = 0;
    std::vector<std::string> first;  ///< the first kMostListed of them, each naming its line

    static constexpr std::size_t kMostListed = 20;
};

/// The replaying thread enters what its calls were answered; the thread that receives events
/// compares them as they come. Calls are made one after the other, so that records come in their
/// order.
///
/// When a value is set, the driver may ask the registry what it holds, in the process's name: those
/// queries leave records, too. Their data is the driver's alone and not compared.
class AnswerLedger {
public:
    /// Of the operations, only those in `recorded` must leave records. Made and used by the thread
    /// that replays, but for Compare.
    explicit AnswerLedger(zpregflt::OperationMask recorded);

    void Enter(const Record& record, const Outcome& outcome);
    /// May wait for the end of the call whose record this is.
    void Compare(const Event& event);
    /// After the last call: nothing more will be entered.
    void Close();
    /// After the last event: what was not recorded is a disagreement.
    LedgerResult Finish();

private:
    /// One answer, and what of the question the record repeats.
    struct Entry {
        std::uint32_t line;
        zpregflt::RecordType type;
        std::uint32_t informationClass;
        std::uint32_t index;
        std::u16string_view value;
        std::optional<std::vector<std::byte>> data;  ///< absent: not known
    };

    /// Whether the driver has got an answer from the registry since this was asked last.
    bool DriverHasQueried();
    static Entry Describe(const Record& record, const Outcome& outcome);
    /// What the record does not have as it must; empty: nothing.
    static std::string Difference(const Entry& entry, const Event& event);
    void Disagree(std::string what);

    const zpregflt::OperationMask recorded_;
    const platform::FaultPlan queries_;  ///< counts the driver's calls and fails none
    std::uint64_t queriesSeen_ = 0;
    std::mutex mutex_;  // guards what follows
    std::condition_variable entered_;
    bool isClosed_ = false;
    std::deque<Entry> entries_;
    LedgerResult result_;
};

}  // namespace zpregmon
