// Requests: ownership, completion, parameters and buffers.
#include "framework/framework_test.h"
#include "platform/kernel/fault_injection.h"
#include "platform/kernel/io.h"

namespace framework_test {
namespace {

using platform::Rule;

struct REQUEST_NOTE {
    int number;
};
WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(REQUEST_NOTE, NoteOf)

class RequestTest : public FrameworkTest {};

struct RetrieveCase {
    const char* what;
    ULONG code;
    ULONG inputLength;
    ULONG outputLength;
    size_t minimum;
    NTSTATUS inputStatus;
    NTSTATUS outputStatus;
};

TEST_F(RequestTest, BuffersAreRetrievedByTransferMethod) {
    constexpr NTSTATUS kSmall = STATUS_BUFFER_TOO_SMALL;
    constexpr NTSTATUS kRefused = STATUS_INVALID_DEVICE_REQUEST;
    const RetrieveCase cases[] = {
        {"buffered", kBuffered, 8, 16, 0, STATUS_SUCCESS, STATUS_SUCCESS},
        {"nothing given, nothing wanted", kBuffered, 0, 0, 0, kSmall, kSmall},
        {"exactly the minimum", kBuffered, 8, 8, 8, STATUS_SUCCESS, STATUS_SUCCESS},
        {"one byte short", kBuffered, 7, 7, 8, kSmall, kSmall},
        {"out direct", kOutDirect, 8, 16, 8, STATUS_SUCCESS, STATUS_SUCCESS},
        {"in direct", kInDirect, 8, 16, 8, STATUS_SUCCESS, STATUS_SUCCESS},
        {"neither", kNeither, 8, 16, 0, kRefused, kRefused},
    };
    const RetrieveCase* now = nullptr;
    behaviour.deviceControl = [&](WDFREQUEST request, size_t output, size_t input, ULONG code) {
        EXPECT_EQ(input, now->inputLength);
        EXPECT_EQ(output, now->outputLength);
        EXPECT_EQ(code, now->code);
        PVOID in = nullptr;
        PVOID out = nullptr;
        size_t length = 99;
        EXPECT_EQ(WdfRequestRetrieveInputBuffer(request, now->minimum, &in, &length),
                  now->inputStatus);
        EXPECT_EQ(length, now->inputStatus == STATUS_SUCCESS ? now->inputLength : 0);
        EXPECT_EQ(WdfRequestRetrieveOutputBuffer(request, now->minimum, &out, nullptr),
                  now->outputStatus);
        const bool bothBuffered = code == kBuffered && in != nullptr;
        EXPECT_EQ(in == out && in != nullptr, bothBuffered);
        EXPECT_TRUE(in == nullptr || static_cast<char*>(in)[0] == 'i');
        if (out != nullptr) static_cast<char*>(out)[0] = 'o';
        WdfRequestCompleteWithInformation(request, STATUS_SUCCESS, out == nullptr ? 0 : 1);
    };
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    const auto client = Open();
    for (const RetrieveCase& one : cases) {
        SCOPED_TRACE(one.what);
        now = &one;
        const auto sent =
            client->Send(one.code, std::vector<char>(one.inputLength, 'i'), one.outputLength);
        EXPECT_EQ(sent->returned, STATUS_PENDING);
        EXPECT_EQ(client->Wait(*sent), STATUS_SUCCESS);
        EXPECT_TRUE(one.outputStatus != STATUS_SUCCESS || sent->output[0] == 'o');
    }
}

TEST_F(RequestTest, CompletionCarriesStatusAndInformation) {
    const std::pair<NTSTATUS, NTSTATUS> cases[] = {
        {STATUS_SUCCESS, STATUS_SUCCESS},
        {STATUS_NO_MEMORY, STATUS_NO_MEMORY},
        {STATUS_WDF_PAUSED, STATUS_DEVICE_BUSY},
        {STATUS_WDF_BUSY, STATUS_DEVICE_BUSY},
        {STATUS_WDF_INTERNAL_ERROR, STATUS_INTERNAL_ERROR},
        {STATUS_WDF_NO_CALLBACK, STATUS_INVALID_DEVICE_REQUEST},
    };
    NTSTATUS give = STATUS_SUCCESS;
    behaviour.deviceControl = [&](WDFREQUEST request, size_t, size_t, ULONG) {
        WdfRequestSetInformation(request, 5);
        WdfRequestComplete(request, give);
    };
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    const auto client = Open();
    for (const auto& [given, seen] : cases) {
        give = given;
        const auto sent = client->Send(kOutDirect, {}, 16);
        EXPECT_EQ(client->Wait(*sent), seen);
        EXPECT_EQ(sent->Information(), 5U);
    }
}

TEST_F(RequestTest, OnlyTheOwnerMayTouchARequest) {
    HoldRequests();
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    const auto client = Open();
    const auto sent = client->Send(kBuffered, std::vector<char>(4), 4);
    WDFREQUEST request = LastHeld();
    PVOID buffer = nullptr;

    ASSERT_EQ(WdfRequestForwardToIoQueue(request, objects.parked), STATUS_SUCCESS);
    const std::function<void()> touches[] = {
        [&] { WdfRequestComplete(request, STATUS_SUCCESS); },
        [&] { WdfRequestSetInformation(request, 1); },
        [&] { WdfRequestRetrieveInputBuffer(request, 0, &buffer, nullptr); },
        [&] { WdfRequestForwardToIoQueue(request, objects.parked); },
    };
    for (const auto& touch : touches)
        ExpectViolation(Rule::kFrameworkContract, touch, {"waits in a queue"});

    WDFREQUEST taken = nullptr;
    ASSERT_EQ(WdfIoQueueRetrieveNextRequest(objects.parked, &taken), STATUS_SUCCESS);
    EXPECT_EQ(taken, request);
    ExpectViolation(Rule::kFrameworkContract, [&] { WdfRequestComplete(request, STATUS_PENDING); },
                    {"STATUS_PENDING"});
    ExpectViolation(Rule::kFrameworkContract,
                    [&] { WdfDeviceEnqueueRequest(objects.device, request); });

    WdfObjectReference(request);
    WdfRequestComplete(request, STATUS_SUCCESS);
    EXPECT_EQ(client->Wait(*sent), STATUS_SUCCESS);
    for (const auto& touch : {touches[0], touches[1]})
        ExpectViolation(Rule::kRequestTwice, touch, {"was completed before"});
    WdfObjectDereference(request);
    ExpectViolation(Rule::kRequestTwice, touches[0],
                    {"WdfRequestComplete", "was completed before and is gone"});
}

TEST_F(RequestTest, ContextsOutliveTheCompletionWhileReferenced) {
    HoldRequests();
    int destroyed = 0;
    int cleaned = 0;
    behaviour.cleanup = [&](WDFOBJECT) { ++cleaned; };
    behaviour.destroy = [&](WDFOBJECT object) {
        EXPECT_EQ(NoteOf(object)->number, 42);
        ++destroyed;
    };
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    const auto client = Open();
    const auto sent = client->Send(kBuffered);
    WDFREQUEST request = LastHeld();
    WDF_OBJECT_ATTRIBUTES attributes = Attributes(nullptr, &WDF_REQUEST_NOTE_TYPE_INFO);
    attributes.EvtCleanupCallback = OnCleanup;
    attributes.EvtDestroyCallback = OnDestroy;
    PVOID context = nullptr;
    ASSERT_EQ(WdfObjectAllocateContext(request, &attributes, &context), STATUS_SUCCESS);
    NoteOf(request)->number = 42;
    WdfObjectReference(request);
    WdfRequestComplete(request, STATUS_SUCCESS);
    EXPECT_EQ(client->Wait(*sent), STATUS_SUCCESS);
    EXPECT_EQ(cleaned, 1);
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(NoteOf(request)->number, 42);
    EXPECT_EQ(WdfObjectContextGetObject(context), request);
    WdfObjectDereference(request);
    EXPECT_EQ(destroyed, 1);
}

// --- In the caller's context ---------------------------------------------------------------------

class LockedBufferTest : public FrameworkTest {
protected:
    void TearDown() override { platform::FreeUserMemory(memory); }

    static constexpr size_t kSize = 0x10000;
    void* memory = platform::AllocateUserMemory(kSize);
};

TEST_F(LockedBufferTest, DriverWritesTheSendersMemoryUntilCompletion) {
    WDFMEMORY locked = nullptr;
    WDFREQUEST request = nullptr;
    std::uintptr_t presentingProcess = 0;
    behaviour.inCallerContext = [&](WDFDEVICE device, WDFREQUEST arrived) {
        presentingProcess = reinterpret_cast<std::uintptr_t>(PsGetCurrentProcessId());
        request = arrived;
        PVOID buffer = nullptr;
        size_t length = 0;
        EXPECT_EQ(WdfRequestRetrieveUnsafeUserOutputBuffer(request, kSize + 1, &buffer, &length),
                  STATUS_BUFFER_TOO_SMALL);
        EXPECT_EQ(WdfRequestRetrieveUnsafeUserOutputBuffer(request, 0, &buffer, &length),
                  STATUS_SUCCESS);
        EXPECT_EQ(buffer, memory);
        EXPECT_EQ(length, kSize);
        EXPECT_EQ(WdfRequestProbeAndLockUserBufferForWrite(request, buffer, length, &locked),
                  STATUS_SUCCESS);
        EXPECT_EQ(WdfDeviceEnqueueRequest(device, request), STATUS_SUCCESS);
    };
    ParkRequests();
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    const auto client = Open();
    const auto sent = client->SendTo(kNeither, memory, kSize);
    EXPECT_EQ(presentingProcess, client->Owner().Id());

    size_t length = 0;
    auto* kernelAddress = static_cast<char*>(WdfMemoryGetBuffer(locked, &length));
    EXPECT_EQ(length, kSize);
    kernelAddress[kSize - 1] = 'x';
    EXPECT_EQ(static_cast<char*>(memory)[kSize - 1], 'x');

    WDFREQUEST taken = nullptr;
    ASSERT_EQ(WdfIoQueueRetrieveNextRequest(objects.parked, &taken), STATUS_SUCCESS);
    ExpectViolation(Rule::kFrameworkContract,
                    [&] {
                        PVOID buffer = nullptr;
                        WdfRequestRetrieveUnsafeUserOutputBuffer(taken, 0, &buffer, nullptr);
                    },
                    {"outside EvtIoInCallerContext"});
    WdfObjectReference(locked);
    ExpectFrameworkBugcheck([&] { WdfRequestComplete(taken, STATUS_SUCCESS); },
                            {"completed while the driver references its WDFMEMORY"});
    WdfObjectDereference(locked);
    WdfRequestComplete(taken, STATUS_SUCCESS);
    EXPECT_EQ(client->Wait(*sent), STATUS_SUCCESS);
}

TEST_F(LockedBufferTest, LockingRefusesBadBuffers) {
    behaviour.inCallerContext = [&](WDFDEVICE, WDFREQUEST request) {
        WDFMEMORY locked = nullptr;
        EXPECT_EQ(WdfRequestProbeAndLockUserBufferForWrite(request, memory, 0, &locked),
                  STATUS_INVALID_USER_BUFFER);
        EXPECT_EQ(WdfRequestProbeAndLockUserBufferForWrite(request, reinterpret_cast<void*>(0x1000),
                                                           16, &locked),
                  STATUS_ACCESS_VIOLATION);
        ExpectFrameworkBugcheck(
            [&] { WdfRequestProbeAndLockUserBufferForWrite(request, nullptr, 16, &locked); },
            {"Buffer is NULL"});
        const platform::FaultPlan plan({.routine = "WdfRequestProbeAndLockUserBufferForWrite"});
        EXPECT_EQ(WdfRequestProbeAndLockUserBufferForWrite(request, memory, 16, &locked),
                  STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_EQ(locked, nullptr);
        PVOID buffer = nullptr;
        EXPECT_EQ(WdfRequestRetrieveUnsafeUserOutputBuffer(request, 0, &buffer, nullptr),
                  STATUS_BUFFER_TOO_SMALL);
        WdfRequestComplete(request, STATUS_SUCCESS);
    };
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    const auto client = Open();
    const auto sent = client->SendTo(kNeither, memory, 0);
    EXPECT_EQ(client->Wait(*sent), STATUS_SUCCESS);
}

TEST_F(LockedBufferTest, CallersContextComesBeforeAnyQueue) {
    behaviour.inCallerContext = [&](WDFDEVICE device, WDFREQUEST request) {
        ExpectViolation(Rule::kFrameworkContract,
                        [&] { WdfRequestForwardToIoQueue(request, objects.parked); },
                        {"was in no queue yet"});
        PVOID buffer = nullptr;
        EXPECT_EQ(WdfRequestRetrieveUnsafeUserOutputBuffer(request, 0, &buffer, nullptr),
                  STATUS_INVALID_DEVICE_REQUEST)
            << "a buffered request has no raw buffer";
        {
            const platform::FaultPlan plan(
                {.routine = "WdfDeviceEnqueueRequest", .status = STATUS_WDF_BUSY});
            EXPECT_EQ(WdfDeviceEnqueueRequest(device, request), STATUS_WDF_BUSY);
        }
        WdfIoQueuePurge(objects.defaultQueue, nullptr, nullptr);
        EXPECT_EQ(WdfDeviceEnqueueRequest(device, request), STATUS_WDF_BUSY);
        WdfIoQueueStart(objects.defaultQueue);
        EXPECT_EQ(WdfDeviceEnqueueRequest(device, request), STATUS_SUCCESS);
    };
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    const auto client = Open();
    const auto sent = client->Send(kBuffered, {}, 4);
    EXPECT_EQ(client->Wait(*sent), STATUS_SUCCESS);
}

}  // namespace
}  // namespace framework_test
