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
    static constexpr auto kManual = [](WDF_IO_QUEUE_CONFIG& config) {
        WDF_IO_QUEUE_CONFIG_INIT(&config, WdfIoQueueDispatchManual);
    };
    const struct {
        const char* what;
        NTSTATUS status;
        void (*change)(WDF_IO_QUEUE_CONFIG&);
    } cases[] = {
        // clang-format off
        {"parallel", STATUS_SUCCESS, [](auto&) {}},
        {"size of version 1.9", STATUS_SUCCESS, [](auto& config) { config.Size = 88; }},
        {"size of no version", STATUS_INFO_LENGTH_MISMATCH, [](auto& config) { config.Size = 72; }},
        {"no dispatch type", STATUS_INVALID_PARAMETER,
         [](auto& config) { config.DispatchType = WdfIoQueueDispatchInvalid; }},
        {"no handler", STATUS_WDF_NO_CALLBACK, [](auto& config) { config.EvtIoDeviceControl = nullptr; }},
        {"second default queue", STATUS_UNSUCCESSFUL, [](auto& config) { config.DefaultQueue = TRUE; }},
        {"limit on a sequential queue", STATUS_INVALID_PARAMETER,
         [](auto& config) { config.DispatchType = WdfIoQueueDispatchSequential; }},
        {"manual", STATUS_SUCCESS, kManual},
        {"limit on a manual queue", STATUS_INVALID_PARAMETER,
         [](auto& config) { kManual(config); config.Settings.Parallel.NumberOfPresentedRequests = 1; }},
        {"handler on a manual queue", STATUS_INVALID_PARAMETER,
         [](auto& config) { kManual(config); config.EvtIoDeviceControl = OnDeviceControl; }},
        // clang-format on
    };
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    for (const auto& row : cases) {
        SCOPED_TRACE(row.what);
        WDF_IO_QUEUE_CONFIG config;
        WDF_IO_QUEUE_CONFIG_INIT(&config, WdfIoQueueDispatchParallel);
        config.EvtIoDeviceControl = OnDeviceControl;
        row.change(config);
        WDFQUEUE queue = nullptr;
        EXPECT_EQ(WdfIoQueueCreate(objects.device, &config, nullptr, &queue), row.status);
        EXPECT_EQ(queue != nullptr, row.status == STATUS_SUCCESS);
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

TEST_F(QueueTest, DriverHoldsNoMoreThanTheLimit) {
    const struct {
        WDF_IO_QUEUE_DISPATCH_TYPE type;
        ULONG limit;
        std::size_t presentedOfFour;
    } cases[] = {{WdfIoQueueDispatchParallel, 0xFFFFFFFF, 4},
                 {WdfIoQueueDispatchParallel, 2, 2},
                 {WdfIoQueueDispatchParallel, 0, 0},
                 {WdfIoQueueDispatchSequential, 0, 1}};
    for (const auto& row : cases) {
        SCOPED_TRACE(row.limit);
        std::vector<WDFREQUEST> held;
        behaviour.dispatchType = row.type;
        behaviour.presentedRequests = row.limit;
        behaviour.deviceControl = [&](WDFREQUEST request, size_t, size_t, ULONG) {
            held.push_back(request);
        };
        ASSERT_EQ(Load(), STATUS_SUCCESS);
        const auto client = Open();
        const auto sent = Park(*client, 4);
        EXPECT_EQ(held.size(), row.presentedOfFour);
        // Each completion makes the next one due, in the completing thread.
        for (size_t i = 0; i < held.size(); ++i)
            WdfRequestComplete(held[i], STATUS_SUCCESS);
        EXPECT_EQ(held.size(), row.presentedOfFour == 0 ? 0U : 4U);
        client->Close();
        for (const auto& one : sent) {
            EXPECT_EQ(client->Wait(*one), held.empty() ? STATUS_CANCELLED : STATUS_SUCCESS);
        }
        ASSERT_EQ(Unload(), STATUS_SUCCESS);
    }
}

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

TEST_F(QueueTest, WhoeverMustCompletesACancelledRequest) {
    enum class Cause { kCancelIo, kCloseFile, kPurge, kDeleteQueue };
    using enum Cause;
    const struct {
        const char* name;
        Cause cause;
        bool callback;   ///< the queue has EvtIoCanceledOnQueue
        bool presented;  ///< the driver saw the request before
        bool byDriver;   ///< who completes it
    } cases[] = {{"cancel", kCancelIo, true, true, true},
                 {"cancel without callback", kCancelIo, false, true, false},
                 {"cancel unseen", kCancelIo, true, false, false},
                 {"close file", kCloseFile, true, true, true},
                 {"close file unseen", kCloseFile, true, false, false},
                 {"purge", kPurge, true, true, true},
                 {"purge without callback", kPurge, false, true, false},
                 {"delete queue", kDeleteQueue, true, true, true}};
    for (const auto& row : cases) {
        SCOPED_TRACE(row.name);
        behaviour = {};
        behaviour.cancelCallback = row.callback;
        behaviour.cancelDefaultQueue = row.callback;
        KIRQL callbackIrql = 0xFF;
        behaviour.cancelled = [&](WDFREQUEST request) {
            callbackIrql = KeGetCurrentIrql();
            WdfRequestCompleteWithInformation(request, STATUS_CANCELLED, 77);
        };
        if (row.presented) {
            ParkRequests();
        } else {
            behaviour.dispatchType = WdfIoQueueDispatchManual;
        }
        ASSERT_EQ(Load(), STATUS_SUCCESS);
        // Requests reach the default queue, being manual, without having been presented.
        WDFQUEUE queue = row.presented ? objects.parked : objects.defaultQueue;
        auto client = Open();
        const auto sent = client->Send(kBuffered);
        ASSERT_FALSE(sent->IsDone());
        if (row.cause == kCancelIo) client->Cancel(*sent);
        if (row.cause == kCloseFile) client->Close();
        if (row.cause == kPurge) WdfIoQueuePurge(queue, nullptr, nullptr);
        if (row.cause == kDeleteQueue) WdfObjectDelete(queue);
        EXPECT_EQ(client->Wait(*sent), STATUS_CANCELLED);
        EXPECT_EQ(sent->Information(), row.byDriver ? 77U : 0U);
        if (row.byDriver) {
            EXPECT_EQ(callbackIrql, row.cause == kCancelIo ? DISPATCH_LEVEL : PASSIVE_LEVEL);
        }
        client.reset();
        ASSERT_EQ(Unload(), STATUS_SUCCESS);
    }
}

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

// --- States --------------------------------------------------------------------------------------

}  // namespace
}  // namespace framework_test
