// The driver's diagnostic trace: one event-tracing provider with five flags and the standard
// levels.
//
// A trace is one statement:
//
//     ZPRF_TRACE(TRACE_BUFFER, TRACE_LEVEL_INFORMATION, "buffer %p sealed", buffer);
//
// While no controller has enabled the flag at that level the statement is one load and a compare;
// its arguments are not evaluated. An event carries the message text (8-bit, no terminator) as its
// first block and each argument as a block of its own, so that a viewer needs no other file:
// %u/%x 32-bit, %llu/%lld 64-bit, %p an address, %s 8-bit text, %Z UTF-16 text, %b raw bytes.
#pragma once

#include <ntifs.h>

#include "intercept/trace_filter.h"

namespace zpregflt {

// Flags: the keyword bits of the provider.
inline constexpr ULONG TRACE_DRIVER = 0x1;     ///< start, stop, configuration, dispatcher gates
inline constexpr ULONG TRACE_BUFFER = 0x2;     ///< event buffers and their delivery
inline constexpr ULONG TRACE_OPERATION = 0x4;  ///< handlers and key contexts
inline constexpr ULONG TRACE_CONTROL = 0x8;    ///< the control device and its requests
inline constexpr ULONG TRACE_CAPTURE = 0x10;   ///< the value cache

inline constexpr UCHAR TRACE_LEVEL_ERROR = 2;
inline constexpr UCHAR TRACE_LEVEL_WARNING = 3;
inline constexpr UCHAR TRACE_LEVEL_INFORMATION = 4;
inline constexpr UCHAR TRACE_LEVEL_VERBOSE = 5;

/// The provider's control GUID.
inline constexpr GUID kTraceProviderId = {
    0x5d1c7a44, 0x9b0e, 0x4e1f, {0xa6, 0x3c, 0x71, 0x2f, 0x08, 0xd4, 0xbe, 0x95}};

/// Called at PASSIVE_LEVEL when a controller has turned the provider on or off.
using TraceControlled = void();

/// Registers the provider. Tracing stays off when that fails: the driver works without. What
/// `controlled` traces is lost when the provider turns out to be on already as it registers: it has
/// no handle to write with before that is done. PASSIVE_LEVEL.
void StartTracing(TraceControlled* controlled);
/// Unregisters the provider. PASSIVE_LEVEL.
void StopTracing();

/// An argument of raw bytes. Null data reads NULL, as absent text does.
struct RawBytes {
    const void* data;
    ULONG size;
};

namespace trace_detail {

/// What the controller enabled: flags in the low 24 bits, level above; 0 while disabled.
extern volatile ULONG Enabled;

/// Longest list of arguments, the message text included.
inline constexpr ULONG kMostArguments = 12;

inline EVENT_DATA_DESCRIPTOR Block(const void* data, ULONG size) {
    return {reinterpret_cast<ULONG_PTR>(data), size, 0};
}

/// Numbers and addresses go as their bytes.
template <typename T>
requires std::is_arithmetic_v<T> || std::is_enum_v<T> EVENT_DATA_DESCRIPTOR
Argument(const T& value) {
    return Block(&value, sizeof(value));
}
template <typename T>
requires(!std::is_same_v<std::remove_cv_t<T>, char> &&
         !std::is_same_v<std::remove_cv_t<T>, WCHAR> &&
         !std::is_same_v<std::remove_cv_t<T>, UNICODE_STRING> &&
         !std::is_same_v<std::remove_cv_t<T>, ANSI_STRING>) EVENT_DATA_DESCRIPTOR
    Argument(T* const& address) {
    return Block(&address, sizeof(PVOID));
}
/// Counted and terminated text; a missing one reads NULL, an empty terminated wide one <NULL>.
EVENT_DATA_DESCRIPTOR Argument(const UNICODE_STRING* const& text);
EVENT_DATA_DESCRIPTOR Argument(const ANSI_STRING* const& text);
EVENT_DATA_DESCRIPTOR Argument(const char* const& text);
EVENT_DATA_DESCRIPTOR Argument(const WCHAR* const& text);
EVENT_DATA_DESCRIPTOR Argument(const RawBytes& bytes);

void Write(ULONG flag, UCHAR level, EVENT_DATA_DESCRIPTOR* blocks, ULONG count);

/// Takes its arguments, which are small, by value: a reference would have whoever might trace a
/// variable keep it in memory.
template <typename... Arguments>
[[gnu::noinline, gnu::cold]] void Emit(ULONG flag, UCHAR level, const char* message,
                                       Arguments... arguments) {
    static_assert(sizeof...(arguments) < kMostArguments);
    EVENT_DATA_DESCRIPTOR blocks[] = {Argument(message), Argument(arguments)...};
    Write(flag, level, blocks, sizeof...(arguments) + 1);
}

}  // namespace trace_detail

inline bool TraceEnabled(ULONG flag, UCHAR level) {
    const ULONG enabled = ReadULongNoFence(&trace_detail::Enabled);
    return (enabled & flag) != 0 && (enabled >> 24) >= level;
}

}  // namespace zpregflt

#define ZPRF_TRACE(flag, level, ...)                                  \
    do {                                                              \
        if (::zpregflt::TraceEnabled(flag, level)) [[unlikely]] {     \
            ::zpregflt::trace_detail::Emit(flag, level, __VA_ARGS__); \
        }                                                             \
    } while (false)

/// A trace about an operation of the current process, narrowed by the trace filter.
#define ZPRF_TRACE_FILTERED(flag, level, mask, ...)                                       \
    do {                                                                                  \
        if (::zpregflt::TraceEnabled(flag, level) &&                                      \
            ::zpregflt::TraceFilterMatch(::PsGetCurrentProcessId(), mask)) [[unlikely]] { \
            ::zpregflt::trace_detail::Emit(flag, level, __VA_ARGS__);                     \
        }                                                                                 \
    } while (false)
