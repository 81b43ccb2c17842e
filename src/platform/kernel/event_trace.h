// Event tracing: providers of kernel code and the controller of a test or a tool.
#pragma once

#include <wdm.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace platform {

/// One event as written with EtwWrite: the argument blocks copied, in order.
struct TraceEvent {
    EVENT_DESCRIPTOR descriptor;
    std::int64_t time;
    std::uintptr_t processId;
    std::vector<std::vector<std::byte>> arguments;

    /// std::out_of_range, here and below, when there is no such argument; std::invalid_argument
    /// when it has another size. Argument `index` as an unsigned number of its size (1, 2, 4 or 8
    /// bytes).
    std::uint64_t Number(std::size_t index) const;
    /// Argument `index` as UTF-16 text, without a terminator.
    std::u16string Text(std::size_t index) const;
    /// Argument `index` as 8-bit text, without a terminator.
    std::string NarrowText(std::size_t index) const;
};

/// Controls one provider and receives its events. Enabling calls the provider's enable callback, as
/// does disabling; a provider that registers later is told when it does.
class TraceController {
public:
    /// `receive` is called on the thread that writes the event, possibly at DISPATCH_LEVEL and on
    /// several threads at once; not any more once Disable has returned. It must not control any
    /// provider. One controller a provider: std::logic_error for a second one.
    TraceController(const GUID& provider, std::function<void(const TraceEvent&)> receive);
    ~TraceController();
    TraceController(const TraceController&) = delete;
    TraceController& operator=(const TraceController&) = delete;

    /// Asks for events of `level` and below (0: of any) with one of the `keywords` (0: any).
    void Enable(UCHAR level, ULONGLONG keywords);
    void Disable();

private:
    GUID provider_;
};

/// Providers that are registered now.
std::size_t RegisteredProviderCount();
/// For machines that were stopped on purpose: no provider is registered any more.
void ForgetProviders();

}  // namespace platform
