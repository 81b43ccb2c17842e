// Handles, references, contexts and the object tree.
#include "framework/framework_test.h"
#include "platform/kernel/fault_injection.h"

#include <map>

namespace framework_test {
namespace {

using platform::Rule;

struct FIRST_CONTEXT {
    unsigned char bytes[64];
};
struct SECOND_CONTEXT {
    int number;
};
struct THIRD_CONTEXT {
    int number;
};
WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(FIRST_CONTEXT, FirstOf)
WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(SECOND_CONTEXT, SecondOf)
WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(THIRD_CONTEXT, ThirdOf)

class ObjectTest : public FrameworkTest {};

TEST_F(ObjectTest, WrongHandlesStopTheMachine) {
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    WDFWORKITEM gone = nullptr;
    ASSERT_EQ(CreateWorkItem(objects.device, &gone), STATUS_SUCCESS);
    WdfObjectDelete(gone);
    int notAnObject = 0;
    auto* const asQueue = reinterpret_cast<WDFQUEUE>(objects.device);
    auto* const noHandle = reinterpret_cast<WDFQUEUE>(&notAnObject);
    struct Case {
        std::function<void()> call;
        std::vector<std::string> words;
    };
    const Case cases[] = {
        {[&] { WdfIoQueueGetDevice(asQueue); }, {"WdfIoQueueGetDevice", "WDFDEVICE", "WDFQUEUE"}},
        {[&] { WdfIoQueueGetDevice(noHandle); }, {"not a framework handle", "WDFQUEUE"}},
        {[&] { WdfIoQueueGetDevice(nullptr); }, {"NULL where a WDFQUEUE is required"}},
        {[&] { WdfWorkItemEnqueue(gone); }, {"WdfWorkItemEnqueue", "a deleted WDFWORKITEM"}},
        {[&] { WdfObjectReference(nullptr); }, {"WdfObjectReferenceActual", "WDFOBJECT"}},
        {[&] { WdfObjectContextGetObject(nullptr); }, {"ContextPointer is NULL"}},
        {[&] { WdfObjectGetTypedContextWorker(objects.device, nullptr); }, {"TypeInfo is NULL"}},
        {[&] { WdfObjectAllocateContext(objects.device, nullptr, nullptr); },
         {"ContextAttributes is NULL"}},
        {[&] { WdfIoQueueCreate(objects.device, nullptr, nullptr, nullptr); }, {"Config is NULL"}},
        {[&] { WdfIoQueueRetrieveNextRequest(objects.parked, nullptr); }, {"OutRequest is NULL"}},
        {[&] { WdfDeviceCreateSymbolicLink(objects.device, nullptr); },
         {"SymbolicLinkName is NULL"}},
        {[&] { WdfControlDeviceInitAllocate(objects.driver, nullptr); }, {"SDDLString is NULL"}},
    };
    for (const Case& one : cases)
        ExpectFrameworkBugcheck(one.call, one.words);
}

TEST_F(ObjectTest, ContextsAreFoundByTheAddressOfTheirType) {
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    EXPECT_EQ(FirstOf(objects.device), nullptr);
    WDF_OBJECT_ATTRIBUTES attributes = Attributes(nullptr, &WDF_FIRST_CONTEXT_TYPE_INFO);
    PVOID first = nullptr;
    ASSERT_EQ(WdfObjectAllocateContext(objects.device, &attributes, &first), STATUS_SUCCESS);
    EXPECT_EQ(FirstOf(objects.device), first);
    for (const unsigned char byte : FirstOf(objects.device)->bytes)
        EXPECT_EQ(byte, 0);

    PVOID again = nullptr;
    EXPECT_EQ(WdfObjectAllocateContext(objects.device, &attributes, &again),
              STATUS_OBJECT_NAME_EXISTS);
    EXPECT_EQ(again, first);
    attributes = Attributes(nullptr, &WDF_SECOND_CONTEXT_TYPE_INFO);
    EXPECT_EQ(WdfObjectAllocateContext(objects.device, &attributes, nullptr), STATUS_SUCCESS);
    EXPECT_NE(SecondOf(objects.device), nullptr);
    EXPECT_EQ(ThirdOf(objects.device), nullptr);
    EXPECT_EQ(WdfObjectContextGetObject(SecondOf(objects.device)), objects.device);

    attributes = Attributes();
    EXPECT_EQ(WdfObjectAllocateContext(objects.device, &attributes, nullptr),
              STATUS_OBJECT_NAME_INVALID);
    attributes = Attributes(nullptr, &WDF_THIRD_CONTEXT_TYPE_INFO);
    attributes.ParentObject = objects.driver;
    EXPECT_EQ(WdfObjectAllocateContext(objects.device, &attributes, nullptr),
              STATUS_WDF_PARENT_ASSIGNMENT_NOT_ALLOWED);
    attributes.ParentObject = nullptr;
    const platform::FaultPlan plan({.routine = "WdfObjectAllocateContext"});
    EXPECT_EQ(WdfObjectAllocateContext(objects.device, &attributes, nullptr),
              STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(ThirdOf(objects.device), nullptr);
}

TEST_F(ObjectTest, ChildrenEndBeforeTheirParent) {
    std::map<WDFOBJECT, std::string> names;
    std::vector<std::string> ends;
    behaviour.cleanup = [&](WDFOBJECT object) { ends.push_back("cleanup " + names[object]); };
    behaviour.destroy = [&](WDFOBJECT object) {
        EXPECT_EQ(SecondOf(object)->number, 1) << "contexts are good until destroy returns";
        ends.push_back("destroy " + names[object]);
    };
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    WDF_OBJECT_ATTRIBUTES attributes = Attributes(nullptr, &WDF_SECOND_CONTEXT_TYPE_INFO);
    attributes.EvtCleanupCallback = OnCleanup;
    attributes.EvtDestroyCallback = OnDestroy;
    WDFQUEUE queue = nullptr;
    ASSERT_EQ(CreateManualQueue(objects.device, false, &attributes, &queue), STATUS_SUCCESS);
    names[queue] = "queue";
    SecondOf(queue)->number = 1;
    WDF_WORKITEM_CONFIG config;
    WDF_WORKITEM_CONFIG_INIT(&config, OnWorkItem);
    attributes.ParentObject = queue;
    WDFWORKITEM items[2] = {};
    for (WDFWORKITEM& item : items) {
        ASSERT_EQ(WdfWorkItemCreate(&config, &attributes, &item), STATUS_SUCCESS);
        names[item] = &item == items ? "first" : "second";
        SecondOf(item)->number = 1;
    }
    WdfObjectReference(items[1]);
    WdfObjectDelete(queue);
    const std::vector<std::string> disposed = {"cleanup first", "destroy first", "cleanup second",
                                               "cleanup queue"};
    EXPECT_EQ(ends, disposed) << "the reference keeps the second item and its parent";
    ends.clear();
    WdfObjectDereference(items[1]);
    EXPECT_EQ(ends, (std::vector<std::string>{"destroy second", "destroy queue"}));
}

TEST_F(ObjectTest, SomeObjectsAreNotTheDriversToDelete) {
    HoldRequests();
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    const auto client = Open();
    const auto sent = client->Send(kBuffered);
    for (const WDFOBJECT object :
         {WDFOBJECT{objects.driver}, WDFOBJECT{objects.defaultQueue}, WDFOBJECT{LastHeld()}}) {
        ExpectViolation(Rule::kFrameworkContract, [&] { WdfObjectDelete(object); },
                        {"WdfObjectDelete", "deleted by the framework only"});
        platform::EnableVerifier(false);
        WdfObjectDelete(object);  // ignored
        platform::EnableVerifier(true);
    }
    WdfRequestComplete(LastHeld(), STATUS_SUCCESS);
    EXPECT_EQ(client->Wait(*sent), STATUS_SUCCESS);
}

TEST_F(ObjectTest, DeletingTwiceIsNoticed) {
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    WDFWORKITEM item = nullptr;
    ASSERT_EQ(CreateWorkItem(objects.device, &item), STATUS_SUCCESS);
    WdfObjectReference(item);
    WdfObjectDelete(item);
    ExpectViolation(Rule::kFrameworkContract, [&] { WdfObjectDelete(item); }, {"deleted before"});
    WDF_OBJECT_ATTRIBUTES attributes = Attributes(nullptr, &WDF_FIRST_CONTEXT_TYPE_INFO);
    EXPECT_EQ(WdfObjectAllocateContext(item, &attributes, nullptr), STATUS_DELETE_PENDING);
    WdfObjectDereference(item);
}

TEST_F(ObjectTest, SlotsThatAreNotOfferedSayTheirNumber) {
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    const std::map<size_t, std::string> named = {
        {207, "WdfObjectCreate"}, {256, "WdfRequestUnmarkCancelable"}, {318, "WdfTimerCreate"}};
    int notOffered = 0;
    for (size_t index = 0; index < WDF_FUNCTION_COUNT; ++index) {
        // Offered functions stop at their first argument, a required one.
        using AnyFunction =
            void(NTAPI*)(PWDF_DRIVER_GLOBALS, PVOID, PVOID, PVOID, PVOID, PVOID, PVOID);
        const auto call = reinterpret_cast<AnyFunction>(WdfFunctions[index]);
        const auto record = platform::CatchBugcheck(
            [&] { call(WdfDriverGlobals, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr); });
        ASSERT_TRUE(record.has_value()) << "slot " << index;
        if (record->parameters[0] != static_cast<std::uintptr_t>(Rule::kNotOffered)) continue;
        ++notOffered;
        EXPECT_NE(record->message.find("slot " + std::to_string(index) + " "), std::string::npos);
        if (const auto found = named.find(index); found != named.end()) {
            EXPECT_NE(record->message.find(found->second), std::string::npos);
        }
    }
    EXPECT_EQ(notOffered, 432 - 46);
}

}  // namespace
}  // namespace framework_test
