// The control device's requests.
//
// A control code is device type << 16 | required access << 14 | function << 2 | transfer type.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zpregflt {

namespace control_detail {
inline constexpr std::uint32_t kDeviceType = 0x22;
inline constexpr std::uint32_t kRead = 1, kWrite = 2;
inline constexpr std::uint32_t kBuffered = 0, kOutDirect = 2, kNeither = 3;
constexpr std::uint32_t Code(std::uint32_t access, std::uint32_t function,
                             std::uint32_t transferType) {
    return kDeviceType << 16 | access << 14 | function << 2 | transferType;
}
}  // namespace control_detail

/// Lends the driver the output buffer (at least 64 KiB). Completes when the buffer was filled or
/// flushed; the byte count reported is the number of reservations made in it.
inline constexpr std::uint32_t IOCTL_ZPRF_GET_BUFFER =
    control_detail::Code(control_detail::kRead, 0xE05, control_detail::kNeither);
/// Input: a chain of ExemptionRequest.
inline constexpr std::uint32_t IOCTL_ZPRF_EXEMPT_ADD =
    control_detail::Code(control_detail::kWrite, 0xC02, control_detail::kOutDirect);
inline constexpr std::uint32_t IOCTL_ZPRF_EXEMPT_REMOVE =
    control_detail::Code(control_detail::kWrite, 0xC03, control_detail::kOutDirect);
inline constexpr std::uint32_t IOCTL_ZPRF_EXEMPT_REMOVE_ALL =
    control_detail::Code(control_detail::kWrite, 0xC04, control_detail::kOutDirect);
/// Delivers the current buffer at once.
inline constexpr std::uint32_t IOCTL_ZPRF_FLUSH = control_detail::Code(
    control_detail::kRead | control_detail::kWrite, 0xC06, control_detail::kBuffered);
/// Input: the low 32 bits of a handle to a file opened for synchronous writing.
inline constexpr std::uint32_t IOCTL_ZPRF_SET_DUMP_FILE =
    control_detail::Code(control_detail::kWrite, 0xC07, control_detail::kBuffered);
/// Input: a 32-bit set of operations, for processes seen from now on.
inline constexpr std::uint32_t IOCTL_ZPRF_SET_LOGGED_OPERATIONS =
    control_detail::Code(control_detail::kWrite, 0xC08, control_detail::kBuffered);
/// Input: 32 bits, the most bytes captured of one value.
inline constexpr std::uint32_t IOCTL_ZPRF_SET_CAPTURE_MAX_SIZE =
    control_detail::Code(control_detail::kWrite, 0xC09, control_detail::kBuffered);
/// Input: 32 bits, zero or not.
inline constexpr std::uint32_t IOCTL_ZPRF_SET_REPORT_ORIGINAL =
    control_detail::Code(control_detail::kWrite, 0xC0A, control_detail::kBuffered);

static_assert(IOCTL_ZPRF_GET_BUFFER == 0x227817);
static_assert(IOCTL_ZPRF_EXEMPT_ADD == 0x22B00A);
static_assert(IOCTL_ZPRF_EXEMPT_REMOVE == 0x22B00E);
static_assert(IOCTL_ZPRF_EXEMPT_REMOVE_ALL == 0x22B012);
static_assert(IOCTL_ZPRF_FLUSH == 0x22F018);
static_assert(IOCTL_ZPRF_SET_DUMP_FILE == 0x22B01C);
static_assert(IOCTL_ZPRF_SET_LOGGED_OPERATIONS == 0x22B020);
static_assert(IOCTL_ZPRF_SET_CAPTURE_MAX_SIZE == 0x22B024);
static_assert(IOCTL_ZPRF_SET_REPORT_ORIGINAL == 0x22B028);

/// Bit that the code of every control request of ours has.
inline constexpr std::uint32_t kControlCodeBit = 0x1000;

/// One entry of an exemption request. Offsets count from the entry's first byte, 0: absent; at
/// least one of the first two names is there.
struct ExemptionRequest {
    std::uint16_t NextEntryOffset;   ///< 0 ends the chain
    std::uint16_t NarrowNameOffset;  ///< 8-bit string ending in a zero, not empty
    std::uint16_t WideName1Offset;   ///< UTF-16 string ending in a zero
    std::uint16_t IdentifierOffset;  ///< 16 bytes
    std::uint16_t WideName2Offset;   ///< UTF-16 string ending in a zero
};
static_assert(sizeof(ExemptionRequest) == 10);
static_assert(offsetof(ExemptionRequest, NextEntryOffset) == 0);
static_assert(offsetof(ExemptionRequest, NarrowNameOffset) == 2);
static_assert(offsetof(ExemptionRequest, WideName1Offset) == 4);
static_assert(offsetof(ExemptionRequest, IdentifierOffset) == 6);
static_assert(offsetof(ExemptionRequest, WideName2Offset) == 8);

/// Override setting: processes that are monitored although they are trusted, or exempt.
inline constexpr std::uint32_t OVERRIDE_TRUSTED = 0x1;
inline constexpr std::uint32_t OVERRIDE_EXEMPTIONS = 0x2;

}  // namespace zpregflt
