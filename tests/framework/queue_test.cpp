// Queues: creation, what they hand out and when, and cancellation of what waits in them.
#include "framework/framework_test.h"
#include "platform/kernel/fault_injection.h"
#include "platform/kernel/io.h"

#include <thread>

namespace framework_test {
namespace {

using platform::Rule;

class QueueTest : public FrameworkTest {
protected:
    /// Parks `count` requests of the client and returns them in order.
    std::vector<std::unique_ptr<Sent>> Park(Client& client, int count) {
        std::vector<std::unique_ptr<Sent>> sent;
        for (int i = 0; i < count; ++i) {
            sent.push_back(client.Send(kBuffered, std::vector<char>(static_cast<size_t>(i + 1))));
        }
        return sent;
    }
    static WDFREQUEST Find(WDFREQUEST after, NTSTATUS expected = STATUS_SUCCESS) {
        WDFREQUEST found = nullptr;
        EXPECT_EQ(WdfIoQueueFindRequest(objects.parked, after, nullptr, nullptr, &found), expected);
        return found;
    }
    /// Completes everything that is parked.
    static int CompleteAll(NTSTATUS status) {
        int count = 0;
        WDFREQUEST request = nullptr;
        while (NT_SUCCESS(WdfIoQueueRetrieveNextRequest(objects.parked, &request))) {
            WdfRequestComplete(request, status);
            ++count;
        }
        return count;
    }
};

TEST_F(QueueTest, CreationChecksTheConfiguration) {
    struct Case {
        const char* what;
        NTSTATUS status;
        std::function<void(WDF_IO_QUEUE_CONFIG&)> change;
        bool wantsHandle = true;
    };
    const auto manual = [](WDF_IO_QUEUE_CONFIG& config) {
        WDF_IO_QUEUE_CONFIG_INIT(&config, WdfIoQueueDispatchManual);
    };
    const Case cases[] = {
        {"parallel", STATUS_SUCCESS, [](auto&) {}},
        {"size of version 1.9", STATUS_SUCCESS, [](auto& config) { config.Size = 88; }},
        {"size of version 1.7", STATUS_SUCCESS, [](auto& config) { config.Size = 80; }},
        {"size of no version", STATUS_INFO_LENGTH_MISMATCH, [](auto& config) { config.Size = 72; }},
        {"no dispatch type", STATUS_INVALID_PARAMETER,
         [](auto& config) { config.DispatchType = WdfIoQueueDispatchInvalid; }},
        {"no handler", STATUS_WDF_NO_CALLBACK,
         [](auto& config) { config.EvtIoDeviceControl = nullptr; }},
        {"no handle wanted", STATUS_INVALID_PARAMETER_4, [](auto&) {}, false},
        {"second default queue", STATUS_UNSUCCESSFUL,
         [](auto& config) { config.DefaultQueue = TRUE; }},
        {"limit on a sequential queue", STATUS_INVALID_PARAMETER,
         [](auto& config) { config.DispatchType = WdfIoQueueDispatchSequential; }},
        {"manual", STATUS_SUCCESS, manual},
        {"limit on a manual queue", STATUS_INVALID_PARAMETER,
         [&](auto& config) {
             manual(config);
             config.Settings.Parallel.NumberOfPresentedRequests = 1;
         }},
        {"handler on a manual queue", STATUS_INVALID_PARAMETER,
         [&](auto& config) {
             manual(config);
             config.EvtIoDefault = OnDefault;
         }},
    };
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    for (const Case& one : cases) {
        SCOPED_TRACE(one.what);
        WDF_IO_QUEUE_CONFIG config;
        WDF_IO_QUEUE_CONFIG_INIT(&config, WdfIoQueueDispatchParallel);
        config.EvtIoDeviceControl = OnDeviceControl;
        one.change(config);
        WDFQUEUE queue = nullptr;
        EXPECT_EQ(
            WdfIoQueueCreate(objects.device, &config, nullptr, one.wantsHandle ? &queue : nullptr),
            one.status);
        EXPECT_EQ(queue != nullptr, one.status == STATUS_SUCCESS);
        if (queue != nullptr) {
            EXPECT_EQ(WdfIoQueueGetDevice(queue), objects.device);
            WdfObjectDelete(queue);
        }
    }
    const platform::FaultPlan plan({.routine = "WdfIoQueueCreate"});
    WDFQUEUE queue = nullptr;
    EXPECT_EQ(CreateManualQueue(objects.device, true, nullptr, &queue),
              STATUS_INSUFFICIENT_RESOURCES);
}

TEST_F(QueueTest, ParallelQueuePresentsInTheSendersThread) {
    std::thread::id presentedIn;
    std::uintptr_t process = 0;
    behaviour.deviceControl = [&](WDFREQUEST request, size_t, size_t, ULONG) {
        presentedIn = std::this_thread::get_id();
        process = reinterpret_cast<std::uintptr_t>(PsGetCurrentProcessId());
        EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
        WdfRequestComplete(request, STATUS_SUCCESS);
    };
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    const auto client = Open();
    const auto sent = client->Send(kBuffered);
    EXPECT_EQ(sent->returned, STATUS_PENDING) << "even though it was completed inside";
    EXPECT_EQ(client->Wait(*sent), STATUS_SUCCESS);
    EXPECT_EQ(presentedIn, std::this_thread::get_id());
    EXPECT_EQ(process, client->Owner().Id());
}

struct LimitCase {
    WDF_IO_QUEUE_DISPATCH_TYPE type;
    ULONG limit;
    int presentedOfFour;
};

class LimitTest : public QueueTest, public testing::WithParamInterface<LimitCase> {};

TEST_P(LimitTest, DriverHoldsNoMoreThanTheLimit) {
    std::vector<WDFREQUEST> held;
    behaviour.dispatchType = GetParam().type;
    behaviour.presentedRequests = GetParam().limit;
    behaviour.deviceControl = [&](WDFREQUEST request, size_t, size_t, ULONG) {
        held.push_back(request);
    };
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    const auto client = Open();
    const auto sent = Park(*client, 4);
    EXPECT_EQ(held.size(), static_cast<size_t>(GetParam().presentedOfFour));
    // Each completion makes the next one due, in the completing thread.
    for (size_t i = 0; i < held.size(); ++i)
        WdfRequestComplete(held[i], STATUS_SUCCESS);
    EXPECT_EQ(held.size(), GetParam().presentedOfFour == 0 ? 0U : 4U);
    client->Close();
    for (const auto& one : sent) {
        EXPECT_EQ(client->Wait(*one), held.empty() ? STATUS_CANCELLED : STATUS_SUCCESS);
    }
}

INSTANTIATE_TEST_SUITE_P(Kinds, LimitTest,
                         testing::Values(LimitCase{WdfIoQueueDispatchParallel, 0xFFFFFFFF, 4},
                                         LimitCase{WdfIoQueueDispatchParallel, 2, 2},
                                         LimitCase{WdfIoQueueDispatchParallel, 0, 0},
                                         LimitCase{WdfIoQueueDispatchSequential, 0, 1}));

TEST_F(QueueTest, CompletionsInTheHandlerDoNotNest) {
    int depth = 0;
    int deepest = 0;
    int handled = 0;
    behaviour.dispatchType = WdfIoQueueDispatchSequential;
    behaviour.deviceControl = [&](WDFREQUEST request, size_t, size_t, ULONG) {
        deepest = std::max(deepest, ++depth);
        ++handled;
        WdfRequestComplete(request, STATUS_SUCCESS);
        --depth;
    };
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    WdfIoQueueStop(objects.defaultQueue, nullptr, nullptr);
    const auto client = Open();
    const auto sent = Park(*client, 20);
    EXPECT_EQ(handled, 0);
    WdfIoQueueStart(objects.defaultQueue);
    EXPECT_EQ(handled, 20);
    EXPECT_EQ(deepest, 1);
}

TEST_F(QueueTest, RequestsWithoutAHomeAreRefused) {
    behaviour.dispatchType = WdfIoQueueDispatchParallel;
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    const auto client = Open();
    WdfIoQueuePurge(objects.defaultQueue, nullptr, nullptr);
    EXPECT_EQ(client->Wait(*client->Send(kBuffered)), STATUS_INVALID_DEVICE_STATE);
    WdfIoQueueStart(objects.defaultQueue);
    EXPECT_EQ(client->Wait(*client->Send(kBuffered)), STATUS_SUCCESS);
}

TEST_F(QueueTest, DeviceWithoutDefaultQueueRefusesRequests) {
    behaviour.makeDefaultQueue = false;
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    {
        const auto client = Open();
        EXPECT_EQ(client->Wait(*client->Send(kBuffered)), STATUS_INVALID_DEVICE_REQUEST);
    }
    ASSERT_EQ(Unload(), STATUS_SUCCESS);
    behaviour.inCallerContext = [](WDFDEVICE device, WDFREQUEST request) {
        EXPECT_EQ(WdfDeviceEnqueueRequest(device, request), STATUS_INVALID_DEVICE_REQUEST);
        WdfRequestComplete(request, STATUS_NO_MEMORY);  // the driver still owns it
    };
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    const auto client = Open();
    EXPECT_EQ(client->Wait(*client->Send(kBuffered)), STATUS_NO_MEMORY);
}

TEST_F(QueueTest, RequestsWithoutAHandlerAreRefused) {
    WDF_REQUEST_TYPE type = WdfRequestTypeCreate;
    size_t length = 0;
    behaviour.inCallerContext = [&](WDFDEVICE device, WDFREQUEST request) {
        WDF_REQUEST_PARAMETERS parameters;
        WDF_REQUEST_PARAMETERS_INIT(&parameters);
        WdfRequestGetParameters(request, &parameters);
        type = parameters.Type;
        length = parameters.Parameters.ReadWrite.Length;
        EXPECT_EQ(WdfDeviceEnqueueRequest(device, request), STATUS_SUCCESS);
    };
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    const auto client = Open();
    EXPECT_EQ(client->Wait(*client->Write(std::vector<char>(5))), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(type, WdfRequestTypeWrite);
    EXPECT_EQ(length, 5U);
    EXPECT_EQ(client->Wait(*client->Write({})), STATUS_SUCCESS) << "nothing to do is done at once";
}

// --- Finding and retrieving ----------------------------------------------------------------------

TEST_F(QueueTest, FindWalksInOrderAndReferences) {
    ParkRequests();
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    const auto client = Open();
    const auto sent = Park(*client, 3);
    WDF_REQUEST_PARAMETERS parameters;
    WDF_REQUEST_PARAMETERS_INIT(&parameters);
    WDFREQUEST previous = nullptr;
    for (size_t i = 0; i < 3; ++i) {
        WDFREQUEST found = nullptr;
        ASSERT_EQ(WdfIoQueueFindRequest(objects.parked, previous, nullptr, &parameters, &found),
                  STATUS_SUCCESS);
        EXPECT_EQ(parameters.Parameters.DeviceIoControl.InputBufferLength, i + 1);
        if (previous != nullptr) WdfObjectDereference(previous);
        previous = found;
    }
    EXPECT_EQ(Find(previous, STATUS_NO_MORE_ENTRIES), nullptr);
    WdfObjectDereference(previous);
    ExpectViolation(Rule::kObjectBadReference, [&] { WdfObjectDereference(previous); });
    parameters.Size = 32;
    EXPECT_EQ(WdfIoQueueFindRequest(objects.parked, nullptr, nullptr, &parameters, &previous),
              STATUS_INVALID_PARAMETER_4);
    EXPECT_EQ(previous, nullptr);
    EXPECT_EQ(WdfIoQueueFindRequest(objects.defaultQueue, nullptr, nullptr, nullptr, &previous),
              STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(CompleteAll(STATUS_SUCCESS), 3);
}

TEST_F(QueueTest, FoundRequestIsTakenOnce) {
    ParkRequests();
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    const auto client = Open();
    const auto sent = Park(*client, 2);
    WDFREQUEST found = Find(nullptr);
    WDFREQUEST taken = nullptr;

    WdfIoQueueStop(objects.parked, nullptr, nullptr);
    EXPECT_EQ(WdfIoQueueRetrieveFoundRequest(objects.parked, found, &taken), STATUS_WDF_PAUSED);
    EXPECT_EQ(WdfIoQueueRetrieveNextRequest(objects.parked, &taken), STATUS_WDF_PAUSED);
    WDFREQUEST again = Find(nullptr);
    EXPECT_EQ(again, found) << "finding does not look at the queue's state";
    WdfObjectDereference(again);
    WdfIoQueueStart(objects.parked);

    EXPECT_EQ(WdfIoQueueRetrieveFoundRequest(objects.parked, found, &taken), STATUS_SUCCESS);
    EXPECT_EQ(taken, found);
    EXPECT_EQ(WdfIoQueueRetrieveFoundRequest(objects.parked, found, &taken), STATUS_NOT_FOUND);
    EXPECT_EQ(taken, nullptr);
    EXPECT_EQ(Find(found, STATUS_NOT_FOUND), nullptr) << "the tag is in the queue no longer";
    WdfRequestCompleteWithInformation(found, STATUS_SUCCESS, 9);
    EXPECT_EQ(client->Wait(*sent[0]), STATUS_SUCCESS);
    EXPECT_EQ(Find(found, STATUS_NOT_FOUND), nullptr) << "the handle is good while referenced";
    WdfObjectDereference(found);
    EXPECT_EQ(CompleteAll(STATUS_SUCCESS), 1);
    EXPECT_EQ(WdfIoQueueRetrieveNextRequest(objects.parked, &taken), STATUS_NO_MORE_ENTRIES);
    EXPECT_EQ(WdfIoQueueRetrieveNextRequest(objects.defaultQueue, &taken),
              STATUS_INVALID_DEVICE_STATE);
}

// --- Forwarding ----------------------------------------------------------------------------------

TEST_F(QueueTest, RefusedForwardLeavesTheRequestWithTheDriver) {
    HoldRequests();
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    const auto client = Open();
    const auto sent = client->Send(kBuffered);
    WDFREQUEST request = LastHeld();
    WdfIoQueuePurge(objects.parked, nullptr, nullptr);
    EXPECT_EQ(WdfRequestForwardToIoQueue(request, objects.parked), STATUS_WDF_BUSY);
    EXPECT_EQ(WdfRequestForwardToIoQueue(request, objects.defaultQueue),
              STATUS_INVALID_DEVICE_REQUEST)
        << "the queue that it came from";
    WdfIoQueueStart(objects.parked);
    {
        const platform::FaultPlan plan({.routine = "WdfRequestForwardToIoQueue"});
        EXPECT_EQ(WdfRequestForwardToIoQueue(request, objects.parked),
                  STATUS_INSUFFICIENT_RESOURCES);
    }
    EXPECT_EQ(WdfRequestForwardToIoQueue(request, objects.parked), STATUS_SUCCESS);
    EXPECT_EQ(CompleteAll(STATUS_SUCCESS), 1);
    EXPECT_EQ(client->Wait(*sent), STATUS_SUCCESS);
}

TEST_F(QueueTest, ForwardOfACancelledRequestCancelsIt) {
    HoldRequests();
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    const auto client = Open();
    const auto sent = client->Send(kBuffered);
    client->Cancel(*sent);
    EXPECT_FALSE(sent->IsDone()) << "nothing happens while the driver holds it";
    EXPECT_EQ(WdfRequestForwardToIoQueue(LastHeld(), objects.parked), STATUS_SUCCESS);
    EXPECT_EQ(client->Wait(*sent), STATUS_CANCELLED);
    EXPECT_EQ(sent->Information(), 77U) << "by EvtIoCanceledOnQueue";
}

// --- Cancellation --------------------------------------------------------------------------------

enum class Cause { kCancelIo, kCloseFile, kPurge, kDeleteQueue };

struct CancelCase {
    const char* name;
    Cause cause;
    bool callback;   ///< the queue has EvtIoCanceledOnQueue
    bool presented;  ///< the driver saw the request before
    bool byDriver;   ///< who completes it
};

class CancelTest : public QueueTest, public testing::WithParamInterface<CancelCase> {
protected:
    /// A queue that requests reach without having been presented: the default queue, manual.
    static WDFQUEUE QueueUnderTest() {
        return GetParam().presented ? objects.parked : objects.defaultQueue;
    }
    void Cause(Client& client, Sent& sent) {
        switch (GetParam().cause) {
            case Cause::kCancelIo:
                client.Cancel(sent);
                break;
            case Cause::kCloseFile:
                client.Close();
                break;
            case Cause::kPurge:
                WdfIoQueuePurge(QueueUnderTest(), nullptr, nullptr);
                break;
            case Cause::kDeleteQueue:
                WdfObjectDelete(QueueUnderTest());
                break;
        }
    }
};

TEST_P(CancelTest, WhoeverMustCompletesIt) {
    behaviour.cancelCallback = GetParam().callback;
    behaviour.cancelDefaultQueue = GetParam().callback;
    KIRQL callbackIrql = 0xFF;
    behaviour.cancelled = [&](WDFREQUEST request) {
        callbackIrql = KeGetCurrentIrql();
        WdfRequestCompleteWithInformation(request, STATUS_CANCELLED, 77);
    };
    if (GetParam().presented) {
        ParkRequests();
    } else {
        behaviour.dispatchType = WdfIoQueueDispatchManual;
    }
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    const auto client = Open();
    const auto sent = client->Send(kBuffered);
    ASSERT_FALSE(sent->IsDone());
    Cause(*client, *sent);
    EXPECT_EQ(client->Wait(*sent), STATUS_CANCELLED);
    EXPECT_EQ(sent->Information(), GetParam().byDriver ? 77U : 0U);
    if (GetParam().byDriver) {
        const bool raised = GetParam().cause == Cause::kCancelIo;
        EXPECT_EQ(callbackIrql, raised ? DISPATCH_LEVEL : PASSIVE_LEVEL);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Causes, CancelTest,
    testing::Values(CancelCase{"CancelIo", Cause::kCancelIo, true, true, true},
                    CancelCase{"CancelIoWithoutCallback", Cause::kCancelIo, false, true, false},
                    CancelCase{"CancelIoUnseen", Cause::kCancelIo, true, false, false},
                    CancelCase{"CloseFile", Cause::kCloseFile, true, true, true},
                    CancelCase{"CloseFileUnseen", Cause::kCloseFile, true, false, false},
                    CancelCase{"Purge", Cause::kPurge, true, true, true},
                    CancelCase{"PurgeWithoutCallback", Cause::kPurge, false, true, false},
                    CancelCase{"DeleteQueue", Cause::kDeleteQueue, true, true, true}),
    [](const auto& instance) { return std::string(instance.param.name); });

TEST_F(QueueTest, CallersContextCountsAsPresenting) {
    behaviour.inCallerContext = [](WDFDEVICE device, WDFREQUEST request) {
        EXPECT_EQ(WdfDeviceEnqueueRequest(device, request), STATUS_SUCCESS);
    };
    bool called = false;
    behaviour.cancelled = [&](WDFREQUEST request) {
        called = true;
        WdfRequestComplete(request, STATUS_CANCELLED);
    };
    behaviour.dispatchType = WdfIoQueueDispatchManual;
    behaviour.cancelDefaultQueue = true;
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    const auto client = Open();
    const auto sent = client->Send(kBuffered);
    client->Cancel(*sent);
    EXPECT_EQ(client->Wait(*sent), STATUS_CANCELLED);
    EXPECT_TRUE(called);
}

TEST_F(QueueTest, ClosingAFileLeavesOtherFilesRequests) {
    ParkRequests();
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    const auto first = Open();
    const auto second = Open();
    const auto ofFirst = first->Send(kBuffered);
    const auto ofSecond = second->Send(kBuffered);
    first->Close();
    EXPECT_EQ(first->Wait(*ofFirst), STATUS_CANCELLED);
    EXPECT_FALSE(ofSecond->IsDone());
    EXPECT_EQ(CompleteAll(STATUS_SUCCESS), 1);
    EXPECT_EQ(second->Wait(*ofSecond), STATUS_SUCCESS);
}

TEST_F(QueueTest, RequestBeingCancelledIsPassedOver) {
    ParkRequests();
    WDFREQUEST cancelling = nullptr;
    behaviour.cancelled = [&](WDFREQUEST request) {
        cancelling = request;
        WDFREQUEST taken = nullptr;
        EXPECT_EQ(WdfIoQueueRetrieveFoundRequest(objects.parked, request, &taken),
                  STATUS_NOT_FOUND);
        EXPECT_EQ(Find(request, STATUS_NOT_FOUND), nullptr);
        WDFREQUEST other = Find(nullptr);
        EXPECT_NE(other, request);
        WdfObjectDereference(other);
        WdfRequestComplete(request, STATUS_CANCELLED);
    };
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    const auto client = Open();
    const auto sent = Park(*client, 2);
    client->Cancel(*sent[0]);
    EXPECT_EQ(client->Wait(*sent[0]), STATUS_CANCELLED);
    EXPECT_NE(cancelling, nullptr);
    EXPECT_EQ(CompleteAll(STATUS_SUCCESS), 1);
}

TEST_F(QueueTest, PassiveCallsFailInACancelCallback) {
    ParkRequests();
    behaviour.cancelled = [&](WDFREQUEST request) {
        ExpectViolation(Rule::kIrqlTooHigh, [] { WdfDriverGetRegistryPath(objects.driver); });
        WdfRequestComplete(request, STATUS_CANCELLED);
    };
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    const auto client = Open();
    const auto sent = client->Send(kBuffered);
    client->Cancel(*sent);
    EXPECT_EQ(client->Wait(*sent), STATUS_CANCELLED);
}

// --- States --------------------------------------------------------------------------------------

TEST_F(QueueTest, StateCallbacksComeWhenTheDriverHoldsNothing) {
    HoldRequests();
    int context = 0;
    std::vector<WDFCONTEXT> completed;
    behaviour.queueState = [&](WDFQUEUE queue, WDFCONTEXT given) {
        EXPECT_EQ(queue, objects.defaultQueue);
        completed.push_back(given);
    };
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    const auto client = Open();
    const auto sent = client->Send(kBuffered);
    WdfIoQueuePurge(objects.defaultQueue, OnQueueState, &context);
    EXPECT_TRUE(completed.empty());
    ExpectViolation(Rule::kFrameworkContract,
                    [] { WdfIoQueueStop(objects.defaultQueue, OnQueueState, nullptr); },
                    {"outstanding"});
    WdfRequestComplete(LastHeld(), STATUS_SUCCESS);
    EXPECT_EQ(completed, std::vector<WDFCONTEXT>{&context});
    WdfIoQueueStop(objects.defaultQueue, OnQueueState, nullptr);
    EXPECT_EQ(completed.size(), 2U) << "nothing is held: at once";
    EXPECT_EQ(client->Wait(*sent), STATUS_SUCCESS);
}

}  // namespace
}  // namespace framework_test
