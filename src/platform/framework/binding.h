// One driver's tie to the framework, from WdfVersionBind to WdfVersionUnbind: its globals, its
// function table and the account of its objects.
#pragma once

#include <wdf.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <set>

namespace platform::framework {

class Driver;

class Binding {
public:
    Binding(PDRIVER_OBJECT driverObject, PWDF_BIND_INFO bindInfo);
    ~Binding();
    Binding(const Binding&) = delete;
    Binding& operator=(const Binding&) = delete;

    /// The binding whose globals these are; anything else is a framework bugcheck.
    static Binding& FromGlobals(PWDF_DRIVER_GLOBALS globals, const char* function);
    /// The binding of a driver, or null.
    static Binding* FromDriverObject(PDRIVER_OBJECT driverObject);

    WDF_DRIVER_GLOBALS& Globals() { return globals_; }
    PDRIVER_OBJECT DriverObject() const { return driverObject_; }
    PWDF_BIND_INFO BindInfo() const { return bindInfo_; }
    Driver* TheDriver() const { return driver_; }
    void SetDriver(Driver* driver);

    void ObjectCreated();
    void ObjectDestroyed();
    /// The driver has taken (+1) or given back (-1) a reference on one of its objects.
    void CountDriverReference(int change) {
        driverReferences_.fetch_add(change, std::memory_order_relaxed);
    }

    /// Device-initialisation structures that were allocated and neither freed nor consumed.
    void AddDeviceInit(const WDFDEVICE_INIT* init);
    bool RemoveDeviceInit(const WDFDEVICE_INIT* init);
    bool HasDeviceInit(const WDFDEVICE_INIT* init);

    /// Runs `work` on a system worker, at PASSIVE_LEVEL.
    void RunOnWorker(std::function<void()> work);
    /// Runs `work` at PASSIVE_LEVEL: at once, or on a system worker when the level is higher now.
    void RunAtPassive(std::function<void()> work);

    /// Waits for the workers and for threads that are just leaving the framework, then tells
    /// whether every object and structure was given back; with the verifier on, leftovers stop the
    /// machine.
    bool FinishObjects();

private:
    WDF_DRIVER_GLOBALS globals_{};  // first: drivers hold its address
    std::uint64_t magic_;
    PDRIVER_OBJECT driverObject_;
    PWDF_BIND_INFO bindInfo_;
    Driver* driver_ = nullptr;

    std::atomic<long> driverReferences_{0};

    std::mutex lock_;  // guards everything below
    std::condition_variable changed_;
    long objects_ = 0;
    long onWorkers_ = 0;
    std::set<const WDFDEVICE_INIT*> deviceInits_;
};

}  // namespace platform::framework
