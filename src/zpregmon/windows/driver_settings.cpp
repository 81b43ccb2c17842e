#include "zpregmon/windows/driver_settings.h"

#include "zpregmon/windows/drivers.h"
#include "zpregmon/windows/handle.h"
#include "zpregmon/windows/system_error.h"
#include "zpregmon/windows/wide_text.h"

#include <charconv>

namespace zpregmon {

namespace {

void Check(LSTATUS error, const std::wstring& service) {
    if (error != ERROR_SUCCESS) {
        throw SystemError(Attempt::kConfigureService, FromWide(service), static_cast<DWORD>(error));
    }
}

/// A key of a service's own.
class ServiceKey {
public:
    /// Made when there is none. `path` begins with the service's name.
    explicit ServiceKey(const std::wstring& path) : service_(path.substr(0, path.find(L'\\'))) {
        const std::wstring full = L"SYSTEM\\CurrentControlSet\\Services\\" + path;
        HKEY key = nullptr;
        Check(RegCreateKeyExW(HKEY_LOCAL_MACHINE, full.c_str(), 0, nullptr, 0, KEY_SET_VALUE,
                              nullptr, &key, nullptr),
              service_);
        key_.reset(key);
    }

    void Set(const wchar_t* name, std::uint32_t number) const {
        Set(name, REG_DWORD, &number, sizeof(number));
    }
    void Set(const wchar_t* name, std::optional<std::uint32_t> number) const {
        if (number) {
            Set(name, *number);
        }
    }
    void Set(const wchar_t* name, DWORD type, const std::wstring& text) const {
        Set(name, type, text.c_str(), (text.size() + 1) * sizeof(wchar_t));
    }

private:
    void Set(const wchar_t* name, DWORD type, const void* data, std::size_t size) const {
        Check(RegSetValueExW(key_.get(), name, 0, type, static_cast<const BYTE*>(data),
                             static_cast<DWORD>(size)),
              service_);
    }

    std::wstring service_;
    RegistryKey key_;
};

/// A number is a process's id.
void SetTraceProcess(const ServiceKey& trace, const std::string& process) {
    std::uint32_t id = 0;
    const char* const end = process.data() + process.size();
    if (const auto read = std::from_chars(process.data(), end, id);
        read.ec == std::errc() && read.ptr == end) {
        trace.Set(L"Process", id);
    } else if (!process.empty()) {
        trace.Set(L"Process", REG_SZ, ToWide(process));
    }
}

/// The running program's path on its volume. The kernel's own text is asked for, device and path,
/// since the library compares its end with that; the names of devices change.
std::wstring TrustedPath() {
    std::wstring path(32768, L'\0');
    auto length = static_cast<DWORD>(path.size());
    if (!QueryFullProcessImageNameW(GetCurrentProcess(), PROCESS_NAME_NATIVE, path.data(),
                                    &length)) {
        throw SystemError(Attempt::kOther, "find out where the program lies");
    }
    path.resize(length);
    return path.substr(path.find(L'\\', path.find(L'\\', 1) + 1));
}

}  // namespace

void WriteDriverSettings(const DriverSettings& settings) {
    const std::wstring parameters = std::wstring(kMonitorDriver.name) + L"\\Parameters";
    const ServiceKey report(parameters + L"\\Report");
    const SessionSettings& recording = settings.recording;
    report.Set(L"Operations", recording.operations);
    report.Set(L"CaptureMaxSize", recording.captureMaxSize);
    report.Set(L"Original", std::uint32_t{recording.reportOriginal});
    report.Set(L"Override", settings.overrideMask);
    const ServiceKey trace(parameters + L"\\Trace");
    SetTraceProcess(trace, settings.traceProcess);
    trace.Set(L"Operations", settings.traceOperations);

    // A list of texts, each with its end, and one more.
    ServiceKey(kLibraryDriver.name).Set(L"TrustedImages", REG_MULTI_SZ, TrustedPath() + L'\0');
}

}  // namespace zpregmon
