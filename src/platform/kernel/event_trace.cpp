#include "platform/kernel/event_trace.h"

#include "platform/kernel/fault_injection.h"
#include "platform/kernel/time.h"
#include "platform/kernel/verifier.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <list>
#include <mutex>
#include <shared_mutex>
#include <stdexcept>

namespace platform {

namespace {

constexpr std::size_t kSlots = 64;
constexpr unsigned kSlotBits = 8;
static_assert(kSlots < 1U << kSlotBits);

/// A registered provider. Slots are never freed, so that a stale handle can be told from a good one
/// without a lock: a handle is its slot's number below a count of the slot's registrations.
struct Provider {
    std::atomic<REGHANDLE> handle{0};  ///< 0 while the slot is free
    std::atomic<bool> enabled{false};  ///< a hint for writers; the session decides
    std::uint64_t registrations = 0;   // as all below: behind controlLock
    GUID id{};
    PETWENABLECALLBACK callback = nullptr;
    PVOID context = nullptr;
};

/// What a controller asked of a provider, registered or not.
struct Session {
    GUID id{};
    std::function<void(const TraceEvent&)> receive;
    bool enabled = false;
    UCHAR level = 0;
    ULONGLONG keywords = 0;

    bool Wants(const EVENT_DESCRIPTOR& event) const {
        const bool levelFits = level == 0 || event.Level <= level;
        const bool keywordFits =
            keywords == 0 || event.Keyword == 0 || (event.Keyword & keywords) != 0;
        return enabled && levelFits && keywordFits;
    }
};

/// Serialises registering and controlling, and is held while a provider's enable callback runs.
std::mutex controlLock;
/// Shared while events are delivered. Acquired after controlLock; whoever changes `sessions` holds
/// both, so that either is enough to read.
std::shared_mutex sessionLock;
std::list<Session> sessions;
constinit std::array<Provider, kSlots> providers{};

bool Same(const GUID& first, const GUID& second) {
    return std::memcmp(&first, &second, sizeof(GUID)) == 0;
}

Session* FindSession(const GUID& id) {
    const auto found = std::find_if(sessions.begin(), sessions.end(),
                                    [&id](const Session& session) { return Same(session.id, id); });
    return found == sessions.end() ? nullptr : &*found;
}

/// The provider behind a handle; null for a handle that never was or is no more.
Provider* FindProvider(REGHANDLE handle) {
    const std::size_t slot = (handle & ((1U << kSlotBits) - 1)) - 1;
    if (slot >= kSlots) return nullptr;
    Provider& provider = providers[slot];
    return provider.handle.load(std::memory_order_acquire) == handle ? &provider : nullptr;
}

/// Tells the provider what its session asks for. controlLock is held.
void Notify(const Provider& provider, bool enable, UCHAR level, ULONGLONG keywords) {
    if (provider.callback == nullptr) return;
    const GUID source{};
    const CallbackCheck check("ETWENABLECALLBACK");
    provider.callback(
        &source, enable ? EVENT_CONTROL_CODE_ENABLE_PROVIDER : EVENT_CONTROL_CODE_DISABLE_PROVIDER,
        level, keywords, 0, nullptr, provider.context);
}

/// Makes writers of the provider look at its session, or pass it by. controlLock is held.
void SetEnabledHints(const GUID& id, bool enabled) {
    for (Provider& provider : providers) {
        if (provider.handle.load() == 0 || !Same(provider.id, id)) continue;
        provider.enabled.store(enabled, std::memory_order_relaxed);
    }
}

void Control(const GUID& id, bool enable, UCHAR level, ULONGLONG keywords) {
    const std::lock_guard control(controlLock);
    // Writers that never pause would keep the lock shared for ever.
    SetEnabledHints(id, false);
    {
        const std::unique_lock change(sessionLock);
        Session& session = *FindSession(id);
        if (!enable && !session.enabled) return;
        session.enabled = enable;
        session.level = level;
        session.keywords = keywords;
    }
    SetEnabledHints(id, enable);
    for (const Provider& provider : providers) {
        if (provider.handle.load() == 0 || !Same(provider.id, id)) continue;
        Notify(provider, enable, level, keywords);
    }
}

TraceEvent CopyEvent(const EVENT_DESCRIPTOR& descriptor, ULONG count,
                     const EVENT_DATA_DESCRIPTOR* data) {
    TraceEvent event{
        descriptor, TimeNow(), reinterpret_cast<std::uintptr_t>(PsGetCurrentProcessId()), {}};
    event.arguments.reserve(count);
    for (ULONG i = 0; i < count; ++i) {
        const auto* const bytes = reinterpret_cast<const std::byte*>(data[i].Ptr);
        event.arguments.emplace_back(bytes, bytes + data[i].Size);
    }
    return event;
}

template <typename Character>
std::basic_string<Character> TextOf(const std::vector<std::byte>& argument) {
    std::basic_string<Character> text(argument.size() / sizeof(Character), 0);
    if (text.empty()) return text;
    std::memcpy(text.data(), argument.data(), text.size() * sizeof(Character));
    if (text.back() == 0) text.pop_back();
    return text;
}

}  // namespace

std::uint64_t TraceEvent::Number(std::size_t index) const {
    const std::vector<std::byte>& argument = arguments.at(index);
    const std::size_t size = argument.size();
    if (size != 1 && size != 2 && size != 4 && size != 8) {
        throw std::invalid_argument("TraceEvent: argument " + std::to_string(index) + " has " +
                                    std::to_string(size) + " bytes, not a number's 1, 2, 4 or 8");
    }
    std::uint64_t number = 0;
    std::memcpy(&number, argument.data(), size);
    return number;
}

std::u16string TraceEvent::Text(std::size_t index) const {
    return TextOf<char16_t>(arguments.at(index));
}

std::string TraceEvent::NarrowText(std::size_t index) const {
    return TextOf<char>(arguments.at(index));
}

TraceController::TraceController(const GUID& provider,
                                 std::function<void(const TraceEvent&)> receive)
    : provider_(provider) {
    const std::lock_guard control(controlLock);
    const std::unique_lock change(sessionLock);
    if (FindSession(provider) != nullptr) {
        throw std::logic_error("TraceController: the provider has a controller already");
    }
    sessions.push_back({provider, std::move(receive)});
}

TraceController::~TraceController() {
    Disable();
    const std::lock_guard control(controlLock);
    const std::unique_lock change(sessionLock);
    sessions.remove_if([this](const Session& session) { return Same(session.id, provider_); });
}

void TraceController::Enable(UCHAR level, ULONGLONG keywords) {
    Control(provider_, true, level, keywords);
}

void TraceController::Disable() {
    Control(provider_, false, 0, 0);
}

std::size_t RegisteredProviderCount() {
    return static_cast<std::size_t>(
        std::count_if(providers.begin(), providers.end(),
                      [](const Provider& provider) { return provider.handle.load() != 0; }));
}

void ForgetProviders() {
    const std::lock_guard control(controlLock);
    for (Provider& provider : providers) {
        provider.enabled = false;
        provider.handle = 0;
    }
}

}  // namespace platform

using namespace platform;

extern "C" {

NTSTATUS NTAPI EtwRegister(LPCGUID providerId, PETWENABLECALLBACK enableCallback,
                           PVOID callbackContext, PREGHANDLE registration) {
    RequireIrql("EtwRegister", PASSIVE_LEVEL);
    if (const auto status = FailThisCall("EtwRegister")) return *status;
    const std::lock_guard control(controlLock);
    const auto free = std::find_if(providers.begin(), providers.end(),
                                   [](const Provider& slot) { return slot.handle.load() == 0; });
    if (free == providers.end()) return STATUS_INSUFFICIENT_RESOURCES;
    Provider& provider = *free;
    provider.id = *providerId;
    provider.callback = enableCallback;
    provider.context = callbackContext;
    const auto slot = static_cast<std::uint64_t>(free - providers.begin()) + 1;
    const REGHANDLE handle = ++provider.registrations << kSlotBits | slot;
    provider.handle.store(handle, std::memory_order_release);
    const Session* const session = FindSession(provider.id);
    if (session != nullptr && session->enabled) {
        provider.enabled.store(true, std::memory_order_relaxed);
        Notify(provider, true, session->level, session->keywords);
    }
    // Only now: a callback that relies on the handle fails on Windows as well.
    *registration = handle;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI EtwUnregister(REGHANDLE registration) {
    RequireIrql("EtwUnregister", PASSIVE_LEVEL);
    const std::lock_guard control(controlLock);
    Provider* const provider = FindProvider(registration);
    if (provider == nullptr) return STATUS_INVALID_HANDLE;
    provider->enabled = false;
    provider->handle = 0;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI EtwWrite(REGHANDLE registration, PCEVENT_DESCRIPTOR descriptor, LPCGUID, ULONG count,
                        PEVENT_DATA_DESCRIPTOR data) {
    Provider* const provider = FindProvider(registration);
    if (provider == nullptr) return STATUS_INVALID_HANDLE;
    if (!provider->enabled.load(std::memory_order_relaxed)) return STATUS_SUCCESS;
    const std::shared_lock deliver(sessionLock);
    const Session* const session = FindSession(provider->id);
    if (session != nullptr && session->Wants(*descriptor)) {
        session->receive(CopyEvent(*descriptor, count, data));
    }
    return STATUS_SUCCESS;
}

}  // extern "C"
