#include "platform/kernel/fault_injection.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace platform {
namespace {

constexpr ULONG kFaultTag = MakeTag("Tfi0");

/// Which of ten calls fail, as digits 0 to 9.
std::string FailingCalls(const char* routine, ULONG tag) {
    std::string failing;
    for (int call = 0; call < 10; ++call) {
        if (FailThisCall(routine, tag)) failing += std::to_string(call);
    }
    return failing;
}

TEST(FaultPlan, FailsTheCallsItNames) {
    const struct {
        PlannedFault fault;
        const char* failing;
        std::uint64_t matching;
    } rows[] = {
        {{.routine = "A"}, "0", 10},
        {{.routine = "A", .nth = 4}, "3", 10},
        {{.routine = "A", .nth = 8, .andAllAfter = true}, "789", 10},
        {{.routine = "*", .nth = 10}, "9", 10},
        {{.routine = "A", .nth = 11}, "", 10},
        {{.routine = "B"}, "", 0},
        {{.routine = "A", .tag = kFaultTag, .nth = 2}, "1", 10},
        {{.routine = "*", .tag = kFaultTag + 1}, "", 0},
    };
    for (const auto& row : rows) {
        const FaultPlan plan(row.fault);
        EXPECT_EQ(FailingCalls("A", kFaultTag), row.failing) << row.fault.routine << row.fault.nth;
        EXPECT_EQ(plan.Fired(), *row.failing != '\0');
        EXPECT_EQ(plan.MatchingCalls(), row.matching);
    }
    EXPECT_EQ(FailingCalls("A", kFaultTag), "");
}

TEST(FaultPlan, GivesItsStatusAndIsOneAtATime) {
    const FaultPlan plan({.routine = "A", .status = STATUS_DISK_FULL});
    EXPECT_EQ(FailThisCall("A"), STATUS_DISK_FULL);
    EXPECT_THROW(FaultPlan({.routine = "A"}), std::logic_error);
}

TEST(FaultPlan, OtherThreadsAndSuspendedScopesGoOn) {
    const FaultPlan plan({.routine = "A", .andAllAfter = true, .thisThreadOnly = true});
    std::thread([] { EXPECT_EQ(FailingCalls("A", 0), ""); }).join();
    {
        const NoFaults outer;
        const NoFaults inner;
        EXPECT_EQ(FailingCalls("A", 0), "");
    }
    EXPECT_EQ(plan.MatchingCalls(), 0U);
    EXPECT_EQ(FailingCalls("A", 0), "0123456789");
}

TEST(FaultPlan, CountsConcurrentCallsExactly) {
    const FaultPlan plan({.routine = "A", .nth = 1000});
    std::atomic<int> failed{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&] {
            for (int call = 0; call < 500; ++call) {
                if (FailThisCall("A")) ++failed;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failed, 1);
    EXPECT_EQ(plan.MatchingCalls(), 2000U);
}

}  // namespace
}  // namespace platform
