#include "platform/kernel/event_trace.h"

#include "bugcheck_matchers.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace platform {
namespace {

constexpr GUID kProvider{0x11, 0x22, 0x33, {4, 5, 6, 7, 8, 9, 10, 11}};
constexpr GUID kOther{0x12, 0x22, 0x33, {4, 5, 6, 7, 8, 9, 10, 11}};

/// What a provider was told, as text; its enable callback's context.
struct Log {
    std::string lines;

    static void NTAPI Callback(LPCGUID, ULONG code, UCHAR level, ULONGLONG any, ULONGLONG all,
                               PVOID filter, PVOID context) {
        EXPECT_EQ(all, 0U);
        EXPECT_EQ(filter, nullptr);
        static_cast<Log*>(context)->lines +=
            std::to_string(code) + ":" + std::to_string(level) + ":" + std::to_string(any) + " ";
    }
};

REGHANDLE Register(Log& log, const GUID& id = kProvider) {
    REGHANDLE handle = 0;
    EXPECT_EQ(EtwRegister(&id, Log::Callback, &log, &handle), STATUS_SUCCESS);
    EXPECT_NE(handle, 0U);
    return handle;
}

NTSTATUS Write(REGHANDLE handle, USHORT id, UCHAR level, ULONGLONG keyword) {
    const EVENT_DESCRIPTOR event{id, 0, 0, level, 0, 0, keyword};
    return EtwWrite(handle, &event, nullptr, 0, nullptr);
}

TEST(EventTrace, ProvidersAreToldBeforeAndAfterRegistering) {
    Log log;
    Log other;
    TraceController controller(kProvider, [](const TraceEvent&) {});
    const REGHANDLE otherHandle = Register(other, kOther);
    const REGHANDLE first = Register(log);
    controller.Enable(4, 0x10);
    controller.Enable(5, 0x3);
    const REGHANDLE second = Register(log);
    EXPECT_EQ(log.lines, "1:4:16 1:5:3 1:5:3 ");
    EXPECT_EQ(EtwUnregister(first), STATUS_SUCCESS);
    controller.Disable();
    controller.Disable();
    EXPECT_EQ(log.lines, "1:4:16 1:5:3 1:5:3 0:0:0 ");
    EXPECT_EQ(EtwUnregister(first), STATUS_INVALID_HANDLE);
    EXPECT_EQ(EtwUnregister(second), STATUS_SUCCESS);
    EXPECT_EQ(other.lines, "");
    EXPECT_EQ(EtwUnregister(otherHandle), STATUS_SUCCESS);
    EXPECT_EQ(RegisteredProviderCount(), 0U);
}

TEST(EventTrace, LevelAndKeywordsSelectEvents) {
    const struct {
        UCHAR level;
        ULONGLONG keywords;
        std::vector<int> expected;
    } rows[] = {
        {2, 0x1, {1, 4}},     {5, 0x1, {1, 2, 4}},  {5, 0x4, {3, 4}},
        {5, 0, {1, 2, 3, 4}}, {0, 0, {1, 2, 3, 4}}, {1, 0x7, {4}},
    };
    std::vector<int> received;
    TraceController controller(
        kProvider, [&](const TraceEvent& event) { received.push_back(event.descriptor.Id); });
    Log log;
    const REGHANDLE handle = Register(log);
    const auto writeAll = [handle] {
        Write(handle, 1, 2, 0x1);
        Write(handle, 2, 5, 0x1);
        Write(handle, 3, 3, 0x4);
        Write(handle, 4, 0, 0);
    };
    for (const auto& row : rows) {
        controller.Enable(row.level, row.keywords);
        received.clear();
        writeAll();
        EXPECT_EQ(received, row.expected) << int{row.level} << " " << row.keywords;
    }
    controller.Disable();
    received.clear();
    writeAll();
    EXPECT_TRUE(received.empty());
    EtwUnregister(handle);
    EXPECT_EQ(Write(handle, 1, 0, 0), STATUS_INVALID_HANDLE);
    EXPECT_EQ(Write(0, 1, 0, 0), STATUS_INVALID_HANDLE);
}

TEST(EventTrace, RegistrationNeedsPassiveLevel) {
    REGHANDLE handle = 0;
    EXPECT_EQ(RuleBrokenBy([&] {
                  KfRaiseIrql(APC_LEVEL);
                  EtwRegister(&kProvider, nullptr, nullptr, &handle);
              }),
              BrokenRule{Rule::kIrqlTooHigh});
}

TEST(EventTrace, NothingIsDeliveredAfterDisableReturns) {
    constexpr int kWriters = 3;
    Log log;
    const REGHANDLE handle = Register(log);
    std::atomic<bool> stop{false};
    std::vector<std::thread> writers;
    for (int i = 0; i < kWriters; ++i) {
        writers.emplace_back([&] {
            while (!stop)
                Write(handle, 1, 1, 1);
        });
    }
    int delivering = 0;
    for (int round = 0; round < 50; ++round) {
        std::atomic<int> delivered{0};
        std::atomic<bool> enabled{true};
        TraceController controller(kProvider, [&](const TraceEvent&) {
            EXPECT_TRUE(enabled);
            ++delivered;
        });
        controller.Enable(5, 1);
        while (delivered == 0)
            std::this_thread::yield();
        ++delivering;
        controller.Disable();
        enabled = false;
    }
    stop = true;
    for (std::thread& writer : writers)
        writer.join();
    EXPECT_EQ(delivering, 50);
    EtwUnregister(handle);
}

}  // namespace
}  // namespace platform
