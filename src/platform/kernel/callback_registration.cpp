#include "platform/kernel/callback_registration.h"

#include "platform/kernel/key_object.h"
#include "platform/kernel/verifier.h"

#include <algorithm>

namespace platform {
namespace {

thread_local std::vector<std::uint64_t> cookiesOnThread;

/// For the last one out of any registration. It is not a member: who leaves last must not touch the
/// registration any more, which is free to go as soon as the count is zero.
struct Landing {
    std::mutex lock;
    std::condition_variable landed;
};
Landing& LastLanding() {
    static Landing landing;
    return landing;
}

}  // namespace

// A scope cuts back to the length that it found, so one that a bugcheck skipped does no harm.
ThreadFlights::ThreadFlights() : outer_(cookiesOnThread.size()) {}
ThreadFlights::~ThreadFlights() {
    cookiesOnThread.resize(outer_);
}
void ThreadFlights::Add(std::uint64_t cookie) {
    cookiesOnThread.push_back(cookie);
}
bool ThreadFlights::Contains(std::uint64_t cookie) {
    return std::find(cookiesOnThread.begin(), cookiesOnThread.end(), cookie) !=
           cookiesOnThread.end();
}

NTSTATUS CallbackRegistration::Call(REG_NOTIFY_CLASS notifyClass, void* information) {
    const CallbackCheck check("registry callback");
    return function_(context_, reinterpret_cast<PVOID>(static_cast<ULONG_PTR>(notifyClass)),
                     information);
}

void CallbackRegistration::LeaveFlight() {
    if (flights_.fetch_sub(kFlight, std::memory_order_acq_rel) == (kFlight | kAwaited)) {
        Landing& landing = LastLanding();
        const std::lock_guard guard(landing.lock);
        landing.landed.notify_all();
    }
}

void CallbackRegistration::WaitUntilLanded() {
    flights_.fetch_or(kAwaited, std::memory_order_acq_rel);
    Landing& landing = LastLanding();
    std::unique_lock guard(landing.lock);
    landing.landed.wait(guard,
                        [this] { return flights_.load(std::memory_order_acquire) == kAwaited; });
}

void CallbackRegistration::Link(ObjectContext& context) {
    context.next = firstContext_;
    if (firstContext_ != nullptr) firstContext_->previous = &context;
    firstContext_ = &context;
    context.isLinked = true;
}

void CallbackRegistration::Unlink(ObjectContext& context) {
    if (context.previous != nullptr) {
        context.previous->next = context.next;
    } else {
        firstContext_ = context.next;
    }
    if (context.next != nullptr) context.next->previous = context.previous;
    context.next = context.previous = nullptr;
    context.isLinked = false;
}

NTSTATUS CallbackRegistration::SetContext(KeyObject& object, PVOID context, PVOID* oldContext) {
    const std::lock_guard guard(contextLock_);
    if (refusesContexts_) return STATUS_INVALID_PARAMETER;
    ObjectContext* attached = object.FindContext(cookie_);
    if (attached == nullptr) {
        attached = new ObjectContext;
        attached->registration = shared_from_this();
        attached->object = &object;
        Link(*attached);
        object.AddContext(*attached);
    }
    PVOID old = attached->value.exchange(context, std::memory_order_acq_rel);
    if (oldContext != nullptr) *oldContext = old;
    return STATUS_SUCCESS;
}

/// Takes the context off the list and tells the callback, without the lock.
void CallbackRegistration::CleanUp(ObjectContext& context, std::unique_lock<std::mutex>& guard) {
    Unlink(context);
    REG_CALLBACK_CONTEXT_CLEANUP_INFORMATION information{};
    information.Object = context.object;
    information.ObjectContext = context.value.exchange(nullptr, std::memory_order_acq_rel);
    if (information.ObjectContext == nullptr) return;

    context.isBeingCleaned = true;
    ++cleanUpsUnderWay_;
    guard.unlock();
    {
        ThreadFlights flights;
        flights.Add(cookie_);
        Call(RegNtCallbackObjectContextCleanup, &information);
    }
    guard.lock();
    context.isBeingCleaned = false;
    --cleanUpsUnderWay_;
    cleanedUp_.notify_all();
}

void CallbackRegistration::CleanUpContexts() {
    std::unique_lock guard(contextLock_);
    refusesContexts_ = true;
    while (firstContext_ != nullptr)
        CleanUp(*firstContext_, guard);
    cleanedUp_.wait(guard, [this] { return cleanUpsUnderWay_ == 0; });
}

void CallbackRegistration::AbandonContexts() {
    const std::lock_guard guard(contextLock_);
    refusesContexts_ = true;
    isAbandoned_ = true;
    while (firstContext_ != nullptr)
        Unlink(*firstContext_);
}

void CallbackRegistration::CleanUpForObject(ObjectContext& context) {
    std::unique_lock guard(contextLock_);
    cleanedUp_.wait(guard, [&] { return !context.isBeingCleaned || isAbandoned_; });
    if (context.isLinked) CleanUp(context, guard);
}

void CallbackRegistration::CleanUpContextsOf(KeyObject& object) {
    for (ObjectContext* context = object.FirstContext(); context != nullptr;
         context = context->nextOfObject) {
        context->registration->CleanUpForObject(*context);
    }
}

}  // namespace platform
