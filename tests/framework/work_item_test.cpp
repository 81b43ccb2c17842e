// Work items: creation, running, flushing and the end.
#include "framework/framework_test.h"

#include <atomic>
#include <thread>

namespace framework_test {
namespace {

class WorkItemTest : public FrameworkTest {
protected:
    WDFWORKITEM MakeItem() {
        WDFWORKITEM item = nullptr;
        EXPECT_EQ(CreateWorkItem(objects.device, &item), STATUS_SUCCESS);
        return item;
    }
};

TEST_F(WorkItemTest, CreationChecksItsArguments) {
    behaviour.entry = [](PDRIVER_OBJECT driverObject, PUNICODE_STRING path) {
        EXPECT_EQ(CreateDriver(driverObject, path), STATUS_SUCCESS);
        EXPECT_EQ(CreateDeviceAndQueues(), STATUS_SUCCESS);
        // Another device, whose callbacks would be serialized at a raised level.
        PWDFDEVICE_INIT init = WdfControlDeviceInitAllocate(objects.driver, &kAllowEveryone);
        WDF_OBJECT_ATTRIBUTES attributes = Attributes();
        attributes.SynchronizationScope = WdfSynchronizationScopeDevice;
        return WdfDeviceCreate(&init, &attributes, &objects.device);
    };
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    const WDFDEVICE plain = WdfIoQueueGetDevice(objects.parked);
    const struct {
        const char* what;
        NTSTATUS status;
        WDFOBJECT parent;
        ULONG size = sizeof(WDF_WORKITEM_CONFIG);
        EVT_WDF_WORKITEM* function = OnWorkItem;
        BOOLEAN serialized = TRUE;
    } cases[] = {
        {"below the device", STATUS_SUCCESS, plain},
        {"below a queue", STATUS_SUCCESS, objects.parked},
        {"no parent", STATUS_WDF_PARENT_NOT_SPECIFIED, nullptr},
        {"no device above", STATUS_INVALID_DEVICE_REQUEST, objects.driver},
        {"size", STATUS_INFO_LENGTH_MISMATCH, plain, 16},
        {"no function", STATUS_INVALID_PARAMETER, plain, sizeof(WDF_WORKITEM_CONFIG), nullptr},
        {"at a raised level", STATUS_WDF_INCOMPATIBLE_EXECUTION_LEVEL, objects.device},
        {"not serialized", STATUS_SUCCESS, objects.device, sizeof(WDF_WORKITEM_CONFIG), OnWorkItem,
         FALSE},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.what);
        WDF_WORKITEM_CONFIG config;
        WDF_WORKITEM_CONFIG_INIT(&config, row.function);
        config.Size = row.size;
        config.AutomaticSerialization = row.serialized;
        WDF_OBJECT_ATTRIBUTES attributes = Attributes(row.parent);
        WDFWORKITEM item = nullptr;
        EXPECT_EQ(WdfWorkItemCreate(&config, &attributes, &item), row.status);
        EXPECT_EQ(item != nullptr, row.status == STATUS_SUCCESS);
        if (item != nullptr) {
            EXPECT_EQ(WdfWorkItemGetParentObject(item), row.parent);
        }
    }
}

TEST_F(WorkItemTest, RunsInASystemThreadAndMayEnqueueItself) {
    std::atomic<int> runs{0};
    behaviour.workItem = [&](WDFWORKITEM item) {
        if (++runs > 1) return;
        EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
        EXPECT_TRUE(platform::CurrentProcess().IsSystem());
        WdfWorkItemEnqueue(item);
        WdfWorkItemFlush(item);  // must not wait for itself
    };
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    WDFWORKITEM item = MakeItem();
    WdfWorkItemEnqueue(item);
    WdfWorkItemFlush(item);
    EXPECT_EQ(runs, 2);
}

TEST_F(WorkItemTest, QueuedItemIsQueuedOnce) {
    std::atomic<int> runs{0};
    behaviour.workItem = [&](WDFWORKITEM) { ++runs; };
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    WDFWORKITEM item = MakeItem();
    Signal go;
    constexpr int kMoreThanTheWorkers = 64;  // so that none is free for the item
    for (int i = 0; i < kMoreThanTheWorkers; ++i)
        platform::QueueSystemWork([&] { go.Wait(); });
    WdfWorkItemEnqueue(item);
    WdfWorkItemEnqueue(item);
    go.Set();
    WdfWorkItemFlush(item);
    platform::DrainSystemWork();
    EXPECT_EQ(runs, 1);
}

TEST_F(WorkItemTest, DeletionWaitsForTheCallback) {
    Signal started;
    Signal go;
    std::atomic<bool> finished{false};
    behaviour.workItem = [&](WDFWORKITEM) {
        started.Set();
        go.Wait();
        finished = true;
    };
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    WDFWORKITEM item = MakeItem();
    WdfWorkItemEnqueue(item);
    started.Wait();
    bool finishedAtReturn = false;
    std::thread deleter([&] {
        WdfObjectDelete(item);
        finishedAtReturn = finished;
    });
    go.Set();
    deleter.join();
    EXPECT_TRUE(finishedAtReturn);
}

TEST_F(WorkItemTest, CallbackMayDeleteItsItem) {
    Signal done;
    behaviour.workItem = [&](WDFWORKITEM item) {
        WdfObjectDelete(item);
        done.Set();
    };
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    WDFWORKITEM item = MakeItem();
    WdfWorkItemEnqueue(item);
    done.Wait();
    EXPECT_EQ(Unload(), STATUS_SUCCESS);
}

TEST_F(WorkItemTest, RaisedDeletionIsLeftToAWorker) {
    Signal cleaned;
    behaviour.cleanup = [&](WDFOBJECT) {
        EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
        cleaned.Set();
    };
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    WDF_WORKITEM_CONFIG config;
    WDF_WORKITEM_CONFIG_INIT(&config, OnWorkItem);
    WDF_OBJECT_ATTRIBUTES attributes = Attributes(objects.device);
    attributes.EvtCleanupCallback = OnCleanup;
    WDFWORKITEM item = nullptr;
    ASSERT_EQ(WdfWorkItemCreate(&config, &attributes, &item), STATUS_SUCCESS);
    const KIRQL before = KfRaiseIrql(DISPATCH_LEVEL);
    WdfObjectDelete(item);
    KeLowerIrql(before);
    cleaned.Wait();
}

}  // namespace
}  // namespace framework_test
