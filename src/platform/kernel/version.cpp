#include "platform/kernel/version.h"

#include "platform/kernel/fault_injection.h"
#include "platform/kernel/verifier.h"

#include <atomic>

namespace platform {

namespace {

constexpr ULONG kPlatformNt = 2;

struct Version {
    std::atomic<std::uint32_t> major{10};
    std::atomic<std::uint32_t> minor{0};
    std::atomic<std::uint32_t> build{19045};
};
constinit Version version;

}  // namespace

void SetVersion(std::uint32_t major, std::uint32_t minor, std::uint32_t build) {
    version.major = major;
    version.minor = minor;
    version.build = build;
}

}  // namespace platform

extern "C" NTSTATUS NTAPI RtlGetVersion(PRTL_OSVERSIONINFOW information) {
    platform::RequireIrql("RtlGetVersion", PASSIVE_LEVEL);
    if (const auto status = platform::FailThisCall("RtlGetVersion")) return *status;
    if (information->dwOSVersionInfoSize < sizeof(*information)) return STATUS_INVALID_PARAMETER;
    information->dwMajorVersion = platform::version.major;
    information->dwMinorVersion = platform::version.minor;
    information->dwBuildNumber = platform::version.build;
    information->dwPlatformId = platform::kPlatformNt;
    information->szCSDVersion[0] = 0;
    return STATUS_SUCCESS;
}
