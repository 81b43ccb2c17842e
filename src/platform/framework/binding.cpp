#include "platform/framework/binding.h"

#include "platform/framework/contract.h"
#include "platform/framework/driver.h"
#include "platform/framework/function_table.h"
#include "platform/kernel/process.h"
#include "platform/kernel/text.h"
#include "platform/kernel/verifier.h"

#include <algorithm>
#include <string>
#include <vector>

namespace platform::framework {

namespace {

constexpr std::uint64_t kMagic = 0x676E69646E694246;

struct Bindings {
    std::mutex lock;
    std::vector<Binding*> all;
};

Bindings& TheBindings() {
    static Bindings& bindings = *new Bindings;
    return bindings;
}

/// Function counts of the released versions up to this one.
bool IsReleasedCount(ULONG count) {
    constexpr ULONG kCounts[] = {383, 386, 387, 396, WDF_FUNCTION_COUNT};
    return std::find(std::begin(kCounts), std::end(kCounts), count) != std::end(kCounts);
}

NTSTATUS CheckBindInfo(const WDF_BIND_INFO& info) {
    constexpr ULONG kMajor = 1;
    constexpr ULONG kMinor = 11;
    if (info.Size != sizeof(info) || info.FuncTable == nullptr || info.Component == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (std::u16string_view(reinterpret_cast<const char16_t*>(info.Component)) != u"KmdfLibrary") {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    if (info.Version.Major != kMajor || info.Version.Minor > kMinor ||
        !IsReleasedCount(info.FuncCount)) {
        return STATUS_INVALID_PARAMETER;
    }
    return STATUS_SUCCESS;
}

}  // namespace

Binding::Binding(PDRIVER_OBJECT driverObject, PWDF_BIND_INFO bindInfo)
    : magic_(kMagic), driverObject_(driverObject), bindInfo_(bindInfo) {
    Bindings& bindings = TheBindings();
    std::scoped_lock guard(bindings.lock);
    bindings.all.push_back(this);
}

Binding::~Binding() {
    magic_ = 0;
    Bindings& bindings = TheBindings();
    std::scoped_lock guard(bindings.lock);
    std::erase(bindings.all, this);
}

Binding& Binding::FromGlobals(PWDF_DRIVER_GLOBALS globals, const char* function) {
    auto* binding = reinterpret_cast<Binding*>(globals);
    if (binding == nullptr || binding->magic_ != kMagic) {
        FrameworkBugcheck(std::string(function) + ": the driver's globals are not the framework's",
                          globals);
    }
    return *binding;
}

Binding* Binding::FromDriverObject(PDRIVER_OBJECT driverObject) {
    Bindings& bindings = TheBindings();
    std::scoped_lock guard(bindings.lock);
    const auto found =
        std::find_if(bindings.all.begin(), bindings.all.end(),
                     [&](Binding* binding) { return binding->driverObject_ == driverObject; });
    return found == bindings.all.end() ? nullptr : *found;
}

void Binding::SetDriver(Driver* driver) {
    driver_ = driver;
    globals_.Driver = driver == nullptr ? nullptr : static_cast<WDFDRIVER>(driver->Handle());
}

void Binding::ObjectCreated() {
    std::scoped_lock guard(lock_);
    ++objects_;
}

void Binding::ObjectDestroyed() {
    std::scoped_lock guard(lock_);
    --objects_;
    changed_.notify_all();
}

void Binding::AddDeviceInit(const WDFDEVICE_INIT* init) {
    std::scoped_lock guard(lock_);
    deviceInits_.insert(init);
}

bool Binding::RemoveDeviceInit(const WDFDEVICE_INIT* init) {
    std::scoped_lock guard(lock_);
    return deviceInits_.erase(init) != 0;
}

bool Binding::HasDeviceInit(const WDFDEVICE_INIT* init) {
    std::scoped_lock guard(lock_);
    return deviceInits_.contains(init);
}

void Binding::RunOnWorker(std::function<void()> work) {
    {
        std::scoped_lock guard(lock_);
        ++onWorkers_;
    }
    QueueSystemWork([this, work = std::move(work)]() mutable {
        work();
        work = nullptr;  // with the references that it holds
        std::scoped_lock guard(lock_);
        --onWorkers_;
        changed_.notify_all();
    });
}

void Binding::RunAtPassive(std::function<void()> work) {
    if (currentIrql == PASSIVE_LEVEL) {
        work();
    } else {
        RunOnWorker(std::move(work));
    }
}

bool Binding::FinishObjects() {
    bool clean = false;
    bool leakedInits = false;
    {
        std::unique_lock guard(lock_);
        // Everything is disposed: what the driver does not reference goes by itself.
        changed_.wait(guard, [&] { return onWorkers_ == 0; });
        changed_.wait_for(guard, kPatience, [&] {
            return objects_ == 0 || driverReferences_.load(std::memory_order_relaxed) != 0;
        });
        leakedInits = !deviceInits_.empty();
        clean = objects_ == 0 && !leakedInits;
    }
    if (!clean && VerifierEnabled()) {
        Violation(Rule::kObjectLeaked,
                  "WdfVersionUnbind: the driver left" + ListObjects(*this) +
                      (leakedInits ? "\n  a WDFDEVICE_INIT that was neither freed nor used" : ""));
    }
    return clean;
}

}  // namespace platform::framework

using platform::framework::Binding;

NTSTATUS NTAPI WdfVersionBind(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath,
                              PWDF_BIND_INFO bindInfo, PWDF_COMPONENT_GLOBALS* globals) {
    platform::RequireIrql("WdfVersionBind", PASSIVE_LEVEL);
    if (driverObject == nullptr || registryPath == nullptr || bindInfo == nullptr ||
        globals == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (const auto fault = platform::FailThisCall("WdfVersionBind")) return *fault;
    const NTSTATUS status = platform::framework::CheckBindInfo(*bindInfo);
    if (!NT_SUCCESS(status)) return status;
    if (Binding::FromDriverObject(driverObject) != nullptr) {
        platform::framework::FrameworkBugcheck("WdfVersionBind: the driver is bound already",
                                               driverObject);
    }
    auto* binding = new Binding(driverObject, bindInfo);
    for (ULONG index = 0; index < bindInfo->FuncCount; ++index) {
        bindInfo->FuncTable[index] = platform::framework::TheFunctionTable()[index];
    }
    bindInfo->Module = binding;
    *globals = &binding->Globals();
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI WdfVersionUnbind(PUNICODE_STRING registryPath, PWDF_BIND_INFO bindInfo,
                                PWDF_COMPONENT_GLOBALS globals) {
    platform::RequireIrql("WdfVersionUnbind", PASSIVE_LEVEL);
    if (registryPath == nullptr || bindInfo == nullptr) return STATUS_INVALID_PARAMETER;
    Binding& binding = Binding::FromGlobals(globals, "WdfVersionUnbind");
    if (binding.BindInfo() != bindInfo) return STATUS_INVALID_PARAMETER;
    // Left over when DriverEntry failed after WdfDriverCreate; EvtDriverUnload is not due then.
    if (binding.TheDriver() != nullptr) binding.TheDriver()->DeleteWithDevices();
    const bool clean = binding.FinishObjects();
    for (ULONG index = 0; index < bindInfo->FuncCount; ++index) {
        bindInfo->FuncTable[index] = platform::framework::UnboundFunction(index);
    }
    bindInfo->Module = nullptr;
    // Objects that are still referenced go on pointing to their binding.
    if (clean) delete &binding;
    return STATUS_SUCCESS;
}
