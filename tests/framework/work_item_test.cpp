// Work items: creation, running, flushing and the end.
#include "framework/framework_test.h"
#include "platform/kernel/fault_injection.h"

#include <atomic>
#include <thread>

namespace framework_test {
namespace {

using platform::Rule;

class WorkItemTest : public FrameworkTest {};

TEST_F(WorkItemTest, CreationChecksItsArguments) {
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    struct Case {
        const char* what;
        NTSTATUS status;
        std::function<void(WDF_WORKITEM_CONFIG&, WDF_OBJECT_ATTRIBUTES&)> change;
    };
    const Case cases[] = {
        {"below the device", STATUS_SUCCESS, [](auto&, auto&) {}},
        {"below a queue", STATUS_SUCCESS,
         [](auto&, auto& attributes) { attributes.ParentObject = objects.parked; }},
        {"no parent", STATUS_WDF_PARENT_NOT_SPECIFIED,
         [](auto&, auto& attributes) { attributes.ParentObject = nullptr; }},
        {"no device above", STATUS_INVALID_DEVICE_REQUEST,
         [](auto&, auto& attributes) { attributes.ParentObject = objects.driver; }},
        {"size", STATUS_INFO_LENGTH_MISMATCH, [](auto& config, auto&) { config.Size = 16; }},
        {"no function", STATUS_INVALID_PARAMETER,
         [](auto& config, auto&) { config.EvtWorkItemFunc = nullptr; }},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(one.what);
        WDF_WORKITEM_CONFIG config;
        WDF_WORKITEM_CONFIG_INIT(&config, OnWorkItem);
        WDF_OBJECT_ATTRIBUTES attributes;
        WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
        attributes.ParentObject = objects.device;
        one.change(config, attributes);
        WDFWORKITEM item = nullptr;
        EXPECT_EQ(WdfWorkItemCreate(&config, &attributes, &item), one.status);
        EXPECT_EQ(item != nullptr, one.status == STATUS_SUCCESS);
        if (item != nullptr) {
            EXPECT_EQ(WdfWorkItemGetParentObject(item), attributes.ParentObject);
        }
    }
    const platform::FaultPlan plan({.routine = "WdfWorkItemCreate"});
    WDFWORKITEM item = nullptr;
    EXPECT_EQ(CreateWorkItem(objects.device, &item), STATUS_INSUFFICIENT_RESOURCES);
}

TEST_F(WorkItemTest, SerializationUnderADispatchLevelScopeIsRefused) {
    behaviour.entry = [](PDRIVER_OBJECT driverObject, PUNICODE_STRING path) {
        const NTSTATUS status = CreateDriver(driverObject, path);
        if (!NT_SUCCESS(status)) return status;
        PWDFDEVICE_INIT init = WdfControlDeviceInitAllocate(objects.driver, &kAllowEveryone);
        WDF_OBJECT_ATTRIBUTES attributes;
        WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
        attributes.SynchronizationScope = WdfSynchronizationScopeDevice;
        return WdfDeviceCreate(&init, &attributes, &objects.device);
    };
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    WDF_WORKITEM_CONFIG config;
    WDF_WORKITEM_CONFIG_INIT(&config, OnWorkItem);
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.ParentObject = objects.device;
    WDFWORKITEM item = nullptr;
    EXPECT_EQ(WdfWorkItemCreate(&config, &attributes, &item),
              STATUS_WDF_INCOMPATIBLE_EXECUTION_LEVEL);
    config.AutomaticSerialization = FALSE;
    EXPECT_EQ(WdfWorkItemCreate(&config, &attributes, &item), STATUS_SUCCESS);
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
    WDFWORKITEM item = nullptr;
    ASSERT_EQ(CreateWorkItem(objects.device, &item), STATUS_SUCCESS);
    WdfWorkItemEnqueue(item);
    WdfWorkItemFlush(item);
    EXPECT_EQ(runs, 2);
}

TEST_F(WorkItemTest, QueuedItemIsQueuedOnce) {
    std::atomic<int> runs{0};
    behaviour.workItem = [&](WDFWORKITEM) { ++runs; };
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    WDFWORKITEM item = nullptr;
    ASSERT_EQ(CreateWorkItem(objects.device, &item), STATUS_SUCCESS);
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
    WDFWORKITEM item = nullptr;
    ASSERT_EQ(CreateWorkItem(objects.device, &item), STATUS_SUCCESS);
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
    WDFWORKITEM item = nullptr;
    ASSERT_EQ(CreateWorkItem(objects.device, &item), STATUS_SUCCESS);
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
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.ParentObject = objects.device;
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
