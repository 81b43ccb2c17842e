#include "zpregmon/windows/process_image.h"

#include "zpregmon/session/seen_processes.h"
#include "zpregmon/windows/handle.h"

namespace zpregmon {

namespace {

std::uint64_t NumberOf(const FILETIME& time) {
    return std::uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime;
}

bool MayBeOfEvent(HANDLE process, std::uint64_t eventTime) {
    FILETIME begin{};
    FILETIME end{};
    FILETIME kernel{};
    FILETIME user{};
    if (!GetProcessTimes(process, &begin, &end, &kernel, &user)) {
        return false;
    }
    FILETIME now{};
    GetSystemTimeAsFileTime(&now);
    return MayBeOf(NumberOf(begin), eventTime, NumberOf(now));
}

}  // namespace

std::optional<std::u16string> LookUpImage(std::uint32_t processId, std::uint64_t time) {
    constexpr DWORD kLongestPath = 32768;
    const Handle process(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, processId));
    if (!process || !MayBeOfEvent(process.get(), time)) {
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
