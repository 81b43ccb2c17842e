// A machine with zpklib loaded, and the handles that tests of it hold.
#pragma once

#include "platform/machine.h"
#include "supportlib/driver_entry.h"
#include "supportlib/zpklib.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

inline platform::DriverImage LibraryImage() {
    return {u"zpklib", ZPkDriverEntry, true, {zpklib::kPoolTags.begin(), zpklib::kPoolTags.end()}};
}

inline constexpr std::uint32_t kTestContextTag = MakeTag("Tctx");

/// Loads the library before each test and unloads it afterwards, which stops the machine if the
/// library or the test leaked anything.
class LibraryTest : public ::testing::Test {
protected:
    void SetUp() override {
        machine.emplace();
        PrepareMachine();
        ASSERT_EQ(machine->LoadDriver(LibraryImage()), STATUS_SUCCESS);
    }
    void TearDown() override {
        EXPECT_EQ(machine->UnloadDriver(u"zpklib"), STATUS_SUCCESS);
        EXPECT_EQ(platform::QueryPoolUsage(kTestContextTag).blocks, 0u);
        machine.reset();
    }
    /// What is there before the library.
    virtual void PrepareMachine() {}

    std::optional<platform::Machine> machine;
};

/// Calls `attempt` with the first, the second, ... matching call of a routine failing, until a run
/// meets no failure. `attempt` is told whether its call failed for that reason by the status it
/// returns: it must be a failure exactly when a fault was met. Returns the number of failed runs.
template <typename Attempt>
int WalkFaults(platform::PlannedFault fault, Attempt attempt) {
    fault.thisThreadOnly = true;
    for (fault.nth = 1;; ++fault.nth) {
        bool fired = false;
        NTSTATUS status = STATUS_SUCCESS;
        {
            platform::FaultPlan plan(fault);
            status = attempt();
            fired = plan.Fired();
        }
        EXPECT_EQ(fired, !NT_SUCCESS(status)) << "call " << fault.nth << ", status " << std::hex
                                              << static_cast<std::uint32_t>(status);
        if (!fired) return static_cast<int>(fault.nth) - 1;
    }
}
