#include "zpregmon/windows/process_image.h"

#include "zpregmon/windows/handle.h"

namespace zpregmon {

namespace {

/// A process with that id that began later is another one.
bool BeganBy(HANDLE process, std::uint64_t time) {
    FILETIME begin{};
    FILETIME end{};
    FILETIME kernel{};
    FILETIME user{};
    if (!GetProcessTimes(process, &begin, &end, &kernel, &user)) {
        return false;
    }
    return (std::uint64_t{begin.dwHighDateTime} << 32 | begin.dwLowDateTime) <= time;
}

}  // namespace

std::optional<std::u16string> LookUpImage(std::uint32_t processId, std::uint64_t time) {
    constexpr DWORD kLongestPath = 32768;
    const Handle process(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, processId));
    if (!process || !BeganBy(process.get(), time)) {
        return std::nullopt;
    }
    std::wstring path(kLongestPath, L'\0');
    DWORD length = kLongestPath;
    if (!QueryFullProcessImageNameW(process.get(), 0, path.data(), &length)) {
        return std::nullopt;
    }
    return std::u16string(path.begin(), path.begin() + length);
}

}  // namespace zpregmon
