#include "platform/kernel/event_object.h"

#include "platform/kernel/caller_memory.h"
#include "platform/kernel/process.h"
#include "platform/kernel/syscalls.h"

#include <array>
#include <condition_variable>
#include <mutex>

namespace platform {

namespace {

constexpr ACCESS_MASK kModifyState = 0x2;
constexpr ACCESS_MASK kEventAllAccess = 0x001F0003;
constexpr ULONG kMostObjects = 64;

void DestroyEvent(void* body) {
    static_cast<Event*>(body)->~Event();
}

/// One lock and one condition for all events: a wait for several needs no list of its own, and
/// events are rare.
struct Dispatcher {
    std::mutex lock;
    std::condition_variable changed;
};

Dispatcher& Events() {
    static Dispatcher dispatcher;
    return dispatcher;
}

/// A negative timeout is relative, a positive one a system time, in units of 100 ns.
Event::Deadline DeadlineOf(const LARGE_INTEGER* timeout) {
    if (timeout == nullptr) return std::nullopt;
    LONGLONG units = -timeout->QuadPart;
    if (timeout->QuadPart > 0) {
        LARGE_INTEGER now;
        KeQuerySystemTime(&now);
        units = timeout->QuadPart - now.QuadPart;
    }
    // Whoever waits for more than this waits for ever.
    constexpr LONGLONG kLongest = LONGLONG{10'000'000} * 60 * 60 * 24 * 365;
    if (units > kLongest) return std::nullopt;
    using Units = std::chrono::duration<LONGLONG, std::ratio<1, 10'000'000>>;
    return std::chrono::steady_clock::now() +
           std::chrono::duration_cast<std::chrono::steady_clock::duration>(Units(units));
}

/// The caller's timeout, copied; false for a bad address.
bool CaptureTimeout(PLARGE_INTEGER given, LARGE_INTEGER& copy, const LARGE_INTEGER*& timeout) {
    timeout = nullptr;
    if (given == nullptr) return true;
    timeout = &copy;
    return CallerMemory(UserMode).Load(copy, given);
}

NTSTATUS WaitStatus(std::optional<std::size_t> index) {
    return index ? STATUS_WAIT_0 + static_cast<NTSTATUS>(*index) : STATUS_TIMEOUT;
}

}  // namespace

const ObjectType kEventType = {
    "Event", {0x00020001, 0x00020002, 0x00120000, kEventAllAccess}, kEventAllAccess, DestroyEvent};

bool Event::Set() {
    Dispatcher& dispatcher = Events();
    const std::lock_guard guard(dispatcher.lock);
    const bool before = std::exchange(signalled_, true);
    dispatcher.changed.notify_all();
    return before;
}

void Event::Clear() {
    const std::lock_guard guard(Events().lock);
    signalled_ = false;
}

bool Event::Take() {
    if (!signalled_) return false;
    if (type_ == SynchronizationEvent) signalled_ = false;
    return true;
}

std::optional<std::size_t> Event::WaitForAny(std::span<Event* const> events, Deadline deadline) {
    Dispatcher& dispatcher = Events();
    std::unique_lock guard(dispatcher.lock);
    std::optional<std::size_t> taken;
    const auto tryAll = [&] {
        for (std::size_t index = 0; index < events.size() && !taken; ++index) {
            if (events[index]->Take()) taken = index;
        }
        return taken.has_value();
    };
    if (deadline) {
        dispatcher.changed.wait_until(guard, *deadline, tryAll);
    } else {
        dispatcher.changed.wait(guard, tryAll);
    }
    return taken;
}

}  // namespace platform

using namespace platform;

NTSTATUS NTAPI NtCreateEvent(PHANDLE event, ACCESS_MASK desiredAccess, POBJECT_ATTRIBUTES,
                             EVENT_TYPE type, BOOLEAN state) {
    const UserModeCall call("NtCreateEvent");
    if (type != NotificationEvent && type != SynchronizationEvent) return STATUS_INVALID_PARAMETER;
    const auto object =
        ObjectRef<Event>::Adopt(CreateObject<Event>(kEventType, type, state != FALSE));
    HANDLE handle = nullptr;
    const NTSTATUS status =
        CreateHandle(object.get(), MapAccess(desiredAccess, kEventType), 0, &handle);
    if (!NT_SUCCESS(status)) return status;
    if (!CallerMemory(UserMode).Store(event, handle)) {
        CloseHandle(handle, UserMode);
        return STATUS_ACCESS_VIOLATION;
    }
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI NtSetEvent(HANDLE event, PLONG previousState) {
    const UserModeCall call("NtSetEvent");
    ObjectRef<Event> object;
    const NTSTATUS status = ReferenceHandle(event, kModifyState, kEventType, UserMode, object);
    if (!NT_SUCCESS(status)) return status;
    const LONG before = object->Set() ? 1 : 0;
    if (previousState != nullptr && !CallerMemory(UserMode).Store(previousState, before)) {
        return STATUS_ACCESS_VIOLATION;
    }
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI NtClearEvent(HANDLE event) {
    const UserModeCall call("NtClearEvent");
    ObjectRef<Event> object;
    const NTSTATUS status = ReferenceHandle(event, kModifyState, kEventType, UserMode, object);
    if (NT_SUCCESS(status)) object->Clear();
    return status;
}

NTSTATUS NTAPI NtWaitForSingleObject(HANDLE object, BOOLEAN, PLARGE_INTEGER timeout) {
    const UserModeCall call("NtWaitForSingleObject");
    LARGE_INTEGER copy;
    const LARGE_INTEGER* captured;
    if (!CaptureTimeout(timeout, copy, captured)) return STATUS_ACCESS_VIOLATION;
    ObjectRef<Event> event;
    const NTSTATUS status = ReferenceHandle(object, SYNCHRONIZE, kEventType, UserMode, event);
    if (!NT_SUCCESS(status)) return status;
    Event* const events[] = {event.get()};
    return WaitStatus(Event::WaitForAny(events, DeadlineOf(captured)));
}

NTSTATUS NTAPI NtWaitForMultipleObjects(ULONG count, PHANDLE objects, ULONG waitAny, BOOLEAN,
                                        PLARGE_INTEGER timeout) {
    const UserModeCall call("NtWaitForMultipleObjects");
    if (count == 0 || count > kMostObjects) return STATUS_INVALID_PARAMETER;
    if (waitAny == 0) return STATUS_NOT_IMPLEMENTED;  // a wait for all of them is not offered
    LARGE_INTEGER copy;
    const LARGE_INTEGER* captured;
    std::array<HANDLE, kMostObjects> handles;
    if (!CaptureTimeout(timeout, copy, captured) ||
        !CallerMemory(UserMode).Copy(handles.data(), objects, count * sizeof(HANDLE))) {
        return STATUS_ACCESS_VIOLATION;
    }
    std::array<ObjectRef<Event>, kMostObjects> references;
    std::array<Event*, kMostObjects> events;
    for (ULONG index = 0; index < count; ++index) {
        const NTSTATUS status =
            ReferenceHandle(handles[index], SYNCHRONIZE, kEventType, UserMode, references[index]);
        if (!NT_SUCCESS(status)) return status;
        events[index] = references[index].get();
    }
    return WaitStatus(Event::WaitForAny({events.data(), count}, DeadlineOf(captured)));
}
