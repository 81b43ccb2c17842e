#include "road.h"

#include "driver/driver_state.h"
#include "intercept/registry_callback.h"
#include "records/record_format.h"
#include "zpregmon/replay/drivers.h"

#include <mutex>
#include <stdexcept>

namespace zpregflt_bench {

namespace {

constexpr char16_t kClientImage[] = u"\\Device\\HarddiskVolume1\\zpregmon.exe";
constexpr char16_t kMonitoredImage[] = u"\\Device\\HarddiskVolume1\\program.exe";

constexpr char16_t kMeasuredKeys[] = u"\\Registry\\Machine\\Software\\Measured";

void Require(NTSTATUS status, const char* what) {
    if (!NT_SUCCESS(status)) throw std::runtime_error(what);
}

}  // namespace

std::unique_ptr<Road> Road::instance;

Road& Road::Instance() {
    static std::once_flag once;
    std::call_once(once, [] { instance.reset(new Road); });
    return *instance;
}

void Road::TakeDown() {
    instance.reset();
}

Road::Road() {
    platform::EnableVerifier(false);
    machine_.SetRegistryStrings(platform::ServiceKeyPath(u"zpklib"), u"TrustedImages",
                                {kClientImage});
    const std::u16string parameters = platform::ServiceKeyPath(u"zpregflt") + u"\\Parameters";
    // Deletion, setting of values, the flush that stands for every small record, and what is
    // measured by itself; not the setting of information, so that there is something to filter out.
    machine_.SetRegistryDword(parameters + u"\\Report", u"Operations",
                              zpregflt::operation::kFlushKey | zpregflt::operation::kQueryValueKey |
                                  zpregflt::operation::kEnumerateKey |
                                  zpregflt::operation::kSetKeySecurity);
    Require(machine_.LoadDriver(zpregmon::SupportLibraryImage()), "zpklib does not load");
    Require(machine_.LoadDriver(zpregmon::RegistryMonitorImage()), "zpregflt does not load");
    client_ = machine_.StartProcess({.imagePath = kClientImage});
    monitored_ = machine_.StartProcess({.imagePath = kMonitoredImage});
    // The parent of the keys that are measured with.
    machine_.SetRegistryDword(kMeasuredKeys, u"Version", 1);
    device_.emplace(*client_);
    session_.emplace(*device_);
    session_->Start({.buffers = 64, .bufferSize = 1 << 20}, [](std::span<const std::byte>) {});
}

Road::~Road() {
    session_->Finish();
    session_.reset();
    device_.reset();
    machine_.ExitProcess(*monitored_);
    machine_.ExitProcess(*client_);
    machine_.UnloadDriver(u"zpregflt");
    machine_.UnloadDriver(u"zpklib");
}

OpenKey::OpenKey(std::u16string_view keyName)
    : path_(std::u16string(kMeasuredKeys) + u"\\" + std::u16string(keyName)) {
    UNICODE_STRING name = platform::Describe(path_);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    Require(NtCreateKey(&handle_, KEY_ALL_ACCESS, &attributes, 0, nullptr, 0, nullptr),
            "no key to measure with");
    Require(ObReferenceObjectByHandle(handle_, 0, *CmKeyObjectType, KernelMode, &object_, nullptr),
            "no key object");
    // Swapped out and back in: nobody else uses the key object.
    LARGE_INTEGER cookie = zpregflt::State.CallbackCookie;
    Require(CmSetCallbackObjectContext(object_, &cookie, nullptr, &context_), "no key context");
    Require(CmSetCallbackObjectContext(object_, &cookie, context_, nullptr), "no key context");
    post_.Object = object_;
    post_.ObjectContext = context_;
}

OpenKey::~OpenKey() {
    ObfDereferenceObject(object_);
    NtClose(handle_);
}

void OpenKey::Notify(REG_NOTIFY_CLASS notifyClass) {
    zpregflt::RegistryCallback(
        &zpregflt::State, reinterpret_cast<PVOID>(static_cast<ULONG_PTR>(notifyClass)), &post_);
}

}  // namespace zpregflt_bench
