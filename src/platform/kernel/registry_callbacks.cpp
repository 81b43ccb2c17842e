#include "platform/kernel/registry_callbacks.h"

#include "platform/kernel/callback_altitude.h"
#include "platform/kernel/callback_registration.h"
#include "platform/kernel/fault_injection.h"
#include "platform/kernel/text.h"
#include "platform/kernel/verifier.h"

#include <algorithm>
#include <array>
#include <memory>
#include <mutex>
#include <shared_mutex>

namespace platform {

std::atomic<unsigned> callbacks_detail::registered{0};

namespace {

/// More than any machine has; lets an operation keep its callbacks on the stack.
constexpr std::size_t kMaxCallbacks = 32;

using RegistrationRef = std::shared_ptr<CallbackRegistration>;

struct CallbackList {
    std::shared_mutex lock;
    std::vector<RegistrationRef> byAltitude;  ///< highest first
    std::uint64_t lastCookie = 0;
};

CallbackList& Callbacks() {
    static CallbackList list;
    return list;
}

/// The callbacks that take part in one operation, highest altitude first, each held in flight.
class Participants {
public:
    struct Participant {
        CallbackRegistration* registration;
        PVOID callContext;
    };

    Participants() {
        const std::shared_lock guard(Callbacks().lock);
        for (const RegistrationRef& registration : Callbacks().byAltitude) {
            registration->EnterFlight();
            flights_.Add(registration->Cookie());
            participants_[size_++] = {registration.get(), nullptr};
        }
    }
    ~Participants() {
        for (std::size_t i = 0; i < size_; ++i)
            participants_[i].registration->LeaveFlight();
    }
    Participants(const Participants&) = delete;
    Participants& operator=(const Participants&) = delete;

    std::size_t Size() const { return size_; }
    Participant& operator[](std::size_t index) { return participants_[index]; }

private:
    ThreadFlights flights_;
    std::size_t size_ = 0;
    std::array<Participant, kMaxCallbacks> participants_;
};

PVOID ContextOf(KeyObject* key, const CallbackRegistration& registration) {
    return key != nullptr ? key->Context(registration.Cookie()) : nullptr;
}

NTSTATUS TellBefore(const Notification& notification, Participants::Participant& participant) {
    *notification.callContext = nullptr;
    *notification.objectContext = ContextOf(notification.key, *participant.registration);
    const NTSTATUS status =
        participant.registration->Call(notification.before, notification.information);
    participant.callContext = *notification.callContext;
    return status;
}

/// Returns the status that the callback leaves to the next one and to the caller.
NTSTATUS TellAfter(const Notification& notification, const Participants::Participant& participant,
                   NTSTATUS status) {
    PVOID object = notification.key;
    if (notification.result != nullptr) {
        object = status == STATUS_SUCCESS ? *notification.result : nullptr;
    }
    *notification.callContext = participant.callContext;
    *notification.objectContext = ContextOf(notification.key, *participant.registration);
    REG_POST_OPERATION_INFORMATION information{
        object,
        status,
        notification.information,
        status,
        participant.callContext,
        ContextOf(static_cast<KeyObject*>(object), *participant.registration),
        nullptr};
    const NTSTATUS answer = participant.registration->Call(notification.after, &information);
    return answer == STATUS_CALLBACK_BYPASS ? information.ReturnStatus : status;
}

/// Null when the cookie is unknown. The list's lock is held.
RegistrationRef* FindRegistration(LARGE_INTEGER cookie) {
    for (RegistrationRef& registration : Callbacks().byAltitude) {
        if (registration->Cookie() == static_cast<std::uint64_t>(cookie.QuadPart)) {
            return &registration;
        }
    }
    return nullptr;
}

RegistrationRef TakeOffList(LARGE_INTEGER cookie) {
    CallbackList& list = Callbacks();
    const std::unique_lock guard(list.lock);
    RegistrationRef* found = FindRegistration(cookie);
    if (found == nullptr) return nullptr;
    RegistrationRef registration = std::move(*found);
    list.byAltitude.erase(list.byAltitude.begin() + (found - list.byAltitude.data()));
    callbacks_detail::registered.store(static_cast<unsigned>(list.byAltitude.size()),
                                       std::memory_order_release);
    return registration;
}

}  // namespace

NTSTATUS callbacks_detail::NotifyAround(const Notification& notification,
                                        NTSTATUS (*operation)(void*), void* argument) {
    Participants participants;
    NTSTATUS status = STATUS_SUCCESS;
    std::size_t told = 0;
    while (told < participants.Size()) {
        status = TellBefore(notification, participants[told]);
        if (!NT_SUCCESS(status) && !notification.unstoppable) break;
        ++told;
    }
    if (told == participants.Size()) {
        status = operation(argument);
    } else if (status == STATUS_CALLBACK_BYPASS) {
        status = STATUS_SUCCESS;
    }
    while (told > 0)
        status = TellAfter(notification, participants[--told], status);
    return status;
}

void DropRegistryCallbacks() {
    CallbackList& list = Callbacks();
    const std::unique_lock guard(list.lock);
    for (const RegistrationRef& registration : list.byAltitude)
        registration->AbandonContexts();
    list.byAltitude.clear();
    callbacks_detail::registered.store(0, std::memory_order_release);
}

std::vector<std::string> DescribeRegistryCallbacks() {
    const std::shared_lock guard(Callbacks().lock);
    std::vector<std::string> lines;
    for (const RegistrationRef& registration : Callbacks().byAltitude) {
        lines.push_back("registry callback at altitude " +
                        ToUtf8(registration->GetAltitude().Text()) + " is still registered");
    }
    return lines;
}

}  // namespace platform

using namespace platform;

NTSTATUS NTAPI CmRegisterCallbackEx(PEX_CALLBACK_FUNCTION function, PCUNICODE_STRING altitude,
                                    PVOID, PVOID context, PLARGE_INTEGER cookie, PVOID) {
    RequireIrql("CmRegisterCallbackEx", PASSIVE_LEVEL);
    if (const auto fault = FailThisCall("CmRegisterCallbackEx")) return *fault;
    if (function == nullptr || altitude == nullptr || cookie == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    std::optional<Altitude> parsed = Altitude::Parse(View(*altitude));
    if (!parsed) return STATUS_INVALID_PARAMETER;

    CallbackList& list = Callbacks();
    const std::unique_lock guard(list.lock);
    const auto position =
        std::find_if(list.byAltitude.begin(), list.byAltitude.end(),
                     [&](const RegistrationRef& other) { return other->GetAltitude() <= *parsed; });
    if (position != list.byAltitude.end() && (*position)->GetAltitude() == *parsed) {
        return STATUS_FLT_INSTANCE_ALTITUDE_COLLISION;
    }
    if (list.byAltitude.size() == kMaxCallbacks) return STATUS_INSUFFICIENT_RESOURCES;
    const std::uint64_t newCookie = ++list.lastCookie;
    list.byAltitude.insert(position, std::make_shared<CallbackRegistration>(
                                         function, context, std::move(*parsed), newCookie));
    // The callback may run, and use its cookie, as soon as the list's lock is free.
    cookie->QuadPart = static_cast<LONGLONG>(newCookie);
    callbacks_detail::registered.store(static_cast<unsigned>(list.byAltitude.size()),
                                       std::memory_order_release);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI CmUnRegisterCallback(LARGE_INTEGER cookie) {
    RequireIrql("CmUnRegisterCallback", APC_LEVEL);
    if (ThreadFlights::Contains(static_cast<std::uint64_t>(cookie.QuadPart))) {
        Violation(Rule::kCallbackContract,
                  "CmUnRegisterCallback called inside an operation that the callback is told of");
    }
    const RegistrationRef registration = TakeOffList(cookie);
    if (registration == nullptr) return STATUS_INVALID_PARAMETER;
    registration->WaitUntilLanded();
    registration->CleanUpContexts();
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI CmSetCallbackObjectContext(PVOID object, PLARGE_INTEGER cookie, PVOID newContext,
                                          PVOID* oldContext) {
    RequireIrql("CmSetCallbackObjectContext", APC_LEVEL);
    if (const auto fault = FailThisCall("CmSetCallbackObjectContext")) return *fault;
    if (object == nullptr || cookie == nullptr || TypeOf(object) != &kKeyType) {
        return STATUS_INVALID_PARAMETER;
    }
    // A context for an object that is going away would never be cleaned up.
    if (ReferenceCount(object) == 0) return STATUS_INVALID_PARAMETER;
    RegistrationRef registration;
    {
        const std::shared_lock guard(Callbacks().lock);
        if (RegistrationRef* found = FindRegistration(*cookie)) registration = *found;
    }
    if (registration == nullptr) return STATUS_INVALID_PARAMETER;
    return registration->SetContext(*static_cast<KeyObject*>(object), newContext, oldContext);
}
