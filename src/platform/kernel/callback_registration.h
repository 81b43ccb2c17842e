// One registered callback: calling it, waiting for it to be left, and the contexts that it attached
// to key objects.
//
// A context is cleaned up (RegNtCallbackObjectContextCleanup) exactly once, by whoever comes first:
// the thread that drops the last reference to the key object, or the one that unregisters the
// callback. Both wait for a clean-up that the other has under way, so that the key object is still
// there while the callback is told of it, and nothing is under way when unregistration returns.
#pragma once

#include <ntifs.h>

#include "platform/kernel/callback_altitude.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace platform {

class CallbackRegistration;
class KeyObject;

/// The cookies of callbacks that this thread is inside of, or whose two notifications of one
/// operation it is between. Scopes nest.
class ThreadFlights {
public:
    ThreadFlights();
    ~ThreadFlights();
    ThreadFlights(const ThreadFlights&) = delete;
    ThreadFlights& operator=(const ThreadFlights&) = delete;

    /// Until this scope ends.
    void Add(std::uint64_t cookie);
    static bool Contains(std::uint64_t cookie);

private:
    std::size_t outer_;
};

/// What one callback attached to one key object. Owned by the object; guarded by the registration's
/// context lock, except that `value` may be read at any time.
struct ObjectContext {
    std::shared_ptr<CallbackRegistration> registration;
    KeyObject* object = nullptr;
    std::atomic<void*> value{nullptr};
    ObjectContext* nextOfObject = nullptr;
    ObjectContext* next = nullptr;
    ObjectContext* previous = nullptr;
    bool isLinked = false;
    bool isBeingCleaned = false;
};

class CallbackRegistration : public std::enable_shared_from_this<CallbackRegistration> {
public:
    CallbackRegistration(PEX_CALLBACK_FUNCTION function, PVOID context, Altitude altitude,
                         std::uint64_t cookie)
        : function_(function), context_(context), altitude_(std::move(altitude)), cookie_(cookie) {}

    std::uint64_t Cookie() const { return cookie_; }
    const Altitude& GetAltitude() const { return altitude_; }

    NTSTATUS Call(REG_NOTIFY_CLASS notifyClass, void* information);

    /// Around an operation; entering only while the registration is on the list.
    void EnterFlight() { flights_.fetch_add(kFlight, std::memory_order_relaxed); }
    void LeaveFlight();
    /// Returns when nobody is in flight any more; call once, when the registration is off the list.
    void WaitUntilLanded();

    /// STATUS_INVALID_PARAMETER once CleanUpContexts was called.
    NTSTATUS SetContext(KeyObject& object, PVOID context, PVOID* oldContext);
    /// Cleans up every context that is attached and refuses new ones.
    void CleanUpContexts();
    /// Detaches every context without a word and refuses new ones, whatever state a bugcheck left.
    void AbandonContexts();
    /// Cleans up what is attached to an object whose last reference is gone, for all callbacks.
    static void CleanUpContextsOf(KeyObject& object);

private:
    static constexpr std::uint32_t kFlight = 2;
    static constexpr std::uint32_t kAwaited = 1;

    void Link(ObjectContext& context);
    void Unlink(ObjectContext& context);
    void CleanUp(ObjectContext& context, std::unique_lock<std::mutex>& guard);
    void CleanUpForObject(ObjectContext& context);

    const PEX_CALLBACK_FUNCTION function_;
    const PVOID context_;
    const Altitude altitude_;
    const std::uint64_t cookie_;

    /// kFlight for each operation in flight, and kAwaited when somebody waits for the last.
    std::atomic<std::uint32_t> flights_{0};

    std::mutex contextLock_;
    std::condition_variable cleanedUp_;  ///< some clean-up is over
    ObjectContext* firstContext_ = nullptr;
    unsigned cleanUpsUnderWay_ = 0;
    bool refusesContexts_ = false;
    bool isAbandoned_ = false;
};

}  // namespace platform
