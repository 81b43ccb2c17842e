// Binding, driver and device creation, start-up failures and unloading.
#include "framework/framework_test.h"
#include "platform/kernel/fault_injection.h"
#include "platform/kernel/io.h"

namespace framework_test {
namespace {

using platform::FaultPlan;
using platform::Rule;

class DriverLifecycleTest : public FrameworkTest {};

// --- Binding -------------------------------------------------------------------------------------

struct BoundDriver {
    WDFFUNC table[WDF_FUNCTION_COUNT] = {};
    WCHAR component[12] = L"KmdfLibrary";
    WCHAR pathText[8] = L"\\driver";
    UNICODE_STRING path = {14, 16, pathText};
    WDF_BIND_INFO info = {sizeof(WDF_BIND_INFO), component, {1, 11, 9200},
                          WDF_FUNCTION_COUNT,    table,     nullptr};
    DRIVER_OBJECT object{};
    PWDF_COMPONENT_GLOBALS globals = nullptr;

    NTSTATUS Bind() { return WdfVersionBind(&object, &path, &info, &globals); }
    NTSTATUS Unbind() { return WdfVersionUnbind(&path, &info, globals); }
    NTSTATUS Create(PWDF_OBJECT_ATTRIBUTES attributes, WDF_DRIVER_CONFIG& config,
                    WDFDRIVER* driver) {
        using Function = NTSTATUS(NTAPI*)(PWDF_DRIVER_GLOBALS, PDRIVER_OBJECT, PCUNICODE_STRING,
                                          PWDF_OBJECT_ATTRIBUTES, PWDF_DRIVER_CONFIG, WDFDRIVER*);
        return reinterpret_cast<Function>(table[WdfDriverCreateTableIndex])(
            globals, &object, &path, attributes, &config, driver);
    }
    /// WdfObjectReferenceActual and WdfObjectDereferenceActual.
    void Call(ULONG index, WDFOBJECT handle) {
        using Function = void(NTAPI*)(PWDF_DRIVER_GLOBALS, WDFOBJECT, PVOID, LONG, PCHAR);
        reinterpret_cast<Function>(table[index])(globals, handle, nullptr, 0, nullptr);
    }
};

TEST_F(DriverLifecycleTest, BindChecksWhatTheDriverWasBuiltAgainst) {
    const struct {
        const char* what;
        bool bound;
        void (*change)(BoundDriver&);
    } cases[] = {
        // clang-format off
        {"1.11", true, [](auto&) {}},
        {"1.9", true, [](auto& driver) { driver.info.Version.Minor = 9; driver.info.FuncCount = 396; }},
        {"newer minor version", false, [](auto& driver) { driver.info.Version.Minor = 13; }},
        {"other major version", false, [](auto& driver) { driver.info.Version.Major = 2; }},
        {"more functions", false, [](auto& driver) { driver.info.FuncCount = 438; }},
        {"count of no version", false, [](auto& driver) { driver.info.FuncCount = 431; }},
        {"structure size", false, [](auto& driver) { driver.info.Size = 40; }},
        {"other library", false, [](auto& driver) { driver.component[0] = L'U'; }},
        // clang-format on
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.what);
        BoundDriver driver;
        row.change(driver);
        EXPECT_EQ(NT_SUCCESS(driver.Bind()), row.bound);
        for (ULONG i = 0; i < WDF_FUNCTION_COUNT; ++i) {
            EXPECT_EQ(driver.table[i] != nullptr, row.bound && i < driver.info.FuncCount) << i;
        }
        if (row.bound) {
            EXPECT_EQ(driver.Unbind(), STATUS_SUCCESS);
        }
    }
    const FaultPlan plan({.routine = "WdfVersionBind"});
    BoundDriver driver;
    EXPECT_EQ(driver.Bind(), STATUS_INSUFFICIENT_RESOURCES);
}

TEST_F(DriverLifecycleTest, CallsAfterUnbindAreNamed) {
    BoundDriver driver;
    ASSERT_EQ(driver.Bind(), STATUS_SUCCESS);
    ASSERT_EQ(driver.Unbind(), STATUS_SUCCESS);
    ExpectViolation(Rule::kNotOffered, [&] { driver.table[WdfObjectDeleteTableIndex](); },
                    {"slot 208", "WdfObjectDelete", "after WdfVersionUnbind"});
}

NTSTATUS NTAPI OnDeviceAdd(WDFDRIVER, PWDFDEVICE_INIT) {
    return STATUS_SUCCESS;
}

// --- The driver object ---------------------------------------------------------------------------

TEST_F(DriverLifecycleTest, DriverCreateChecksItsArguments) {
    struct Case {
        const char* what;
        NTSTATUS status;
        std::function<void(WDF_DRIVER_CONFIG&, WDF_OBJECT_ATTRIBUTES&)> change;
    };
    const Case cases[] = {
        {"size", STATUS_INFO_LENGTH_MISMATCH, [](auto& config, auto&) { config.Size = 24; }},
        {"flags", STATUS_INVALID_PARAMETER,
         [](auto& config, auto&) { config.DriverInitFlags |= WdfVerifyOn; }},
        {"device-add of a driver without devices to add", STATUS_INVALID_PARAMETER,
         [](auto& config, auto&) { config.EvtDriverDeviceAdd = OnDeviceAdd; }},
        {"parent", STATUS_WDF_PARENT_ASSIGNMENT_NOT_ALLOWED,
         [](auto&, auto& attributes) { attributes.ParentObject = &attributes; }},
        {"as it should be", STATUS_SUCCESS, [](auto&, auto&) {}},
        {"a second time", STATUS_DRIVER_INTERNAL_ERROR, [](auto&, auto&) {}},
    };
    BoundDriver driver;
    ASSERT_EQ(driver.Bind(), STATUS_SUCCESS);
    for (const Case& one : cases) {
        SCOPED_TRACE(one.what);
        WDF_DRIVER_CONFIG config;
        WDF_DRIVER_CONFIG_INIT(&config, nullptr);
        config.DriverInitFlags = WdfDriverInitNonPnpDriver;
        WDF_OBJECT_ATTRIBUTES attributes = Attributes();
        one.change(config, attributes);
        WDFDRIVER handle = nullptr;
        EXPECT_EQ(driver.Create(&attributes, config, &handle), one.status);
        EXPECT_EQ(handle != nullptr, one.status == STATUS_SUCCESS);
    }
    EXPECT_EQ(driver.object.DriverUnload, nullptr) << "no EvtDriverUnload was given";
    EXPECT_FALSE(driver.globals->DisplaceDriverUnload);
    EXPECT_NE(driver.object.MajorFunction[IRP_MJ_DEVICE_CONTROL], nullptr);
    EXPECT_STREQ(driver.globals->DriverName, "driver");
    EXPECT_EQ(driver.globals->DriverTag, MakeTag("driv"));
    EXPECT_EQ(driver.Unbind(), STATUS_SUCCESS);
}

TEST_F(DriverLifecycleTest, UnloadRunsTheDriversCallbacksInOrder) {
    std::vector<std::string> log;
    behaviour.unload = [&](WDFDRIVER driver) {
        EXPECT_EQ(driver, objects.driver);
        log.push_back("unload");
    };
    behaviour.cleanup = [&](WDFOBJECT object) {
        EXPECT_EQ(WdfGetDriver(), objects.driver);
        log.push_back(object == objects.driver ? "driver" : "queue");
    };
    behaviour.entry = [](PDRIVER_OBJECT driverObject, PUNICODE_STRING path) {
        WDF_OBJECT_ATTRIBUTES attributes = Attributes();
        attributes.EvtCleanupCallback = OnCleanup;
        EXPECT_EQ(CreateDriver(driverObject, path, &attributes), STATUS_SUCCESS);
        EXPECT_EQ(CreateDeviceAndQueues(), STATUS_SUCCESS);
        EXPECT_EQ(WdfDriverWdmGetDriverObject(objects.driver), driverObject);
        EXPECT_EQ(WdfDeviceGetDriver(objects.device), objects.driver);
        EXPECT_EQ(WdfDeviceWdmGetDeviceObject(objects.device)->extension != nullptr, true);
        EXPECT_EQ(
            std::u16string(reinterpret_cast<char16_t*>(WdfDriverGetRegistryPath(objects.driver))),
            std::u16string(platform::View(*path)));
        WDFQUEUE queue = nullptr;
        return CreateManualQueue(objects.device, false, &attributes, &queue);
    };
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    EXPECT_EQ(Unload(), STATUS_SUCCESS);
    EXPECT_EQ(log, (std::vector<std::string>{"unload", "queue", "driver"}));
}

TEST_F(DriverLifecycleTest, FailedStartIsUndoneWithoutEvtDriverUnload) {
    std::vector<std::string> log;
    behaviour.unload = [&](WDFDRIVER) { log.push_back("unload"); };
    behaviour.cleanup = [&](WDFOBJECT) { log.push_back("cleanup"); };
    behaviour.destroy = [&](WDFOBJECT) { log.push_back("destroy"); };
    behaviour.entry = [](PDRIVER_OBJECT driverObject, PUNICODE_STRING path) {
        WDF_OBJECT_ATTRIBUTES attributes = Attributes();
        attributes.EvtCleanupCallback = OnCleanup;
        attributes.EvtDestroyCallback = OnDestroy;
        EXPECT_EQ(CreateDriver(driverObject, path, &attributes), STATUS_SUCCESS);
        EXPECT_EQ(CreateDeviceAndQueues(), STATUS_SUCCESS);
        return STATUS_NO_MEMORY;
    };
    EXPECT_EQ(Load(), STATUS_NO_MEMORY);
    EXPECT_EQ(log, (std::vector<std::string>{"cleanup", "destroy"}));
    behaviour = {};
    EXPECT_EQ(Load(), STATUS_SUCCESS) << "device and link names are free again";
}

TEST_F(DriverLifecycleTest, EveryFailingStepIsReportedAndUndone) {
    std::uint64_t calls = 0;
    for (bool fired = true; fired; ++calls) {
        const FaultPlan plan({.routine = "*", .nth = calls + 1, .thisThreadOnly = true});
        const NTSTATUS status = Load();
        fired = plan.Fired();
        EXPECT_EQ(NT_SUCCESS(status), !fired) << "call " << calls + 1;
        if (NT_SUCCESS(status)) {
            EXPECT_EQ(Unload(), STATUS_SUCCESS);
        }
    }
    EXPECT_GE(calls, 8U) << "bind, driver, init, name, device, link and two queues can fail";
}

TEST_F(DriverLifecycleTest, LeakedReferencesStopTheUnbind) {
    BoundDriver driver;
    ASSERT_EQ(driver.Bind(), STATUS_SUCCESS);
    WDF_DRIVER_CONFIG config;
    WDF_DRIVER_CONFIG_INIT(&config, nullptr);
    config.DriverInitFlags = WdfDriverInitNonPnpDriver;
    WDFDRIVER handle = nullptr;
    ASSERT_EQ(driver.Create(nullptr, config, &handle), STATUS_SUCCESS);
    driver.Call(WdfObjectReferenceActualTableIndex, handle);
    ExpectViolation(Rule::kObjectLeaked, [&] { driver.Unbind(); },
                    {"WdfVersionUnbind", "WDFDRIVER", "the driver's 1"});
    driver.Call(WdfObjectDereferenceActualTableIndex, handle);
    EXPECT_EQ(driver.Unbind(), STATUS_SUCCESS);
}

// --- Control devices -----------------------------------------------------------------------------

TEST_F(DriverLifecycleTest, DeviceCreationReportsWhatIsWrong) {
    static constexpr UNICODE_STRING kNonsense = LiteralString(L"D:P(A;;no such rights");
    static constexpr UNICODE_STRING kTaken = LiteralString(L"\\Device\\fwtest");
    static constexpr UNICODE_STRING kOther = LiteralString(L"\\Device\\fwother");
    const struct {
        const char* what;
        const UNICODE_STRING& sddl;
        const UNICODE_STRING* name;
        bool assign;
        NTSTATUS status;
    } cases[] = {
        {"named", kAllowEveryone, &kOther, true, STATUS_SUCCESS},
        {"generated name", kAllowEveryone, nullptr, false, STATUS_SUCCESS},
        {"security without a name", kAllowEveryone, nullptr, true, STATUS_INVALID_SECURITY_DESCR},
        {"nonsense for security", kNonsense, &kOther, true, STATUS_INVALID_SECURITY_DESCR},
        {"taken name", kAllowEveryone, &kTaken, true, STATUS_OBJECT_NAME_COLLISION},
    };
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    for (const auto& one : cases) {
        SCOPED_TRACE(one.what);
        PWDFDEVICE_INIT init = WdfControlDeviceInitAllocate(objects.driver, &one.sddl);
        if (one.assign) {
            EXPECT_EQ(WdfDeviceInitAssignName(init, one.name), STATUS_SUCCESS);
        }
        WDFDEVICE device = nullptr;
        const NTSTATUS status = WdfDeviceCreate(&init, nullptr, &device);
        EXPECT_EQ(status, one.status);
        EXPECT_EQ(init == nullptr, NT_SUCCESS(status)) << "consumed only by success";
        if (init != nullptr) {
            PWDFDEVICE_INIT stale = init;
            WdfDeviceInitFree(init);
            ExpectFrameworkBugcheck([&] { WdfDeviceInitFree(stale); }, {"WdfDeviceInitFree"});
        } else {
            WdfObjectDelete(device);
        }
    }
}

TEST_F(DriverLifecycleTest, SymbolicLinkGoesWithTheDevice) {
    static constexpr UNICODE_STRING kLink = LiteralString(L"\\DosDevices\\fwlink");
    static constexpr UNICODE_STRING kEmpty = {};
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    EXPECT_EQ(WdfDeviceCreateSymbolicLink(objects.device, &kEmpty), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(WdfDeviceCreateSymbolicLink(objects.device, &kLink), STATUS_INVALID_DEVICE_REQUEST)
        << "a second link";
    PWDFDEVICE_INIT init = WdfControlDeviceInitAllocate(objects.driver, &kAllowEveryone);
    WDFDEVICE unnamed = nullptr;
    ASSERT_EQ(WdfDeviceCreate(&init, nullptr, &unnamed), STATUS_SUCCESS);
    EXPECT_EQ(WdfDeviceCreateSymbolicLink(unnamed, &kLink), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(Unload(), STATUS_SUCCESS);
    EXPECT_EQ(Load(), STATUS_SUCCESS) << "the link's name is free again";
}

TEST_F(DriverLifecycleTest, DeviceOpensOnlyWhenFinished) {
    behaviour.entry = [](PDRIVER_OBJECT driverObject, PUNICODE_STRING path) {
        const NTSTATUS status = CreateDriver(driverObject, path);
        objects.device = nullptr;
        return status;
    };
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    behaviour.finishInitializing = false;
    ASSERT_EQ(CreateDeviceAndQueues(), STATUS_SUCCESS);  // after DriverEntry: nobody finishes it
    NTSTATUS opened = STATUS_SUCCESS;
    { const Client client(*machine, &opened); }
    EXPECT_EQ(opened, STATUS_NO_SUCH_DEVICE);
    WdfControlFinishInitializing(objects.device);
    { const Client client(*machine, &opened); }
    EXPECT_EQ(opened, STATUS_SUCCESS);
}

TEST_F(DriverLifecycleTest, DeletedDeviceLivesUntilItsLastFileCloses) {
    HoldRequests();
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    const auto client = Open();
    const auto sent = client->Send(kBuffered);
    WdfObjectDelete(objects.device);
    NTSTATUS opened = STATUS_SUCCESS;
    { const Client late(*machine, &opened); }
    EXPECT_EQ(opened, STATUS_OBJECT_NAME_NOT_FOUND) << "its names went at once";
    EXPECT_EQ(WdfIoQueueGetDevice(objects.parked), objects.device);
    WdfRequestComplete(LastHeld(), STATUS_SUCCESS);
    EXPECT_EQ(client->Wait(*sent), STATUS_SUCCESS);
    client->Close();
    ExpectFrameworkBugcheck([] { WdfIoQueueGetDevice(objects.parked); }, {"deleted WDFQUEUE"});
    EXPECT_EQ(Unload(), STATUS_SUCCESS);
}

TEST_F(DriverLifecycleTest, QueueThatGoesWaitsForTheDriversRequests) {
    HoldRequests();
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    const auto client = Open();
    const auto sent = client->Send(kBuffered);
    ASSERT_EQ(WdfRequestForwardToIoQueue(LastHeld(), objects.parked), STATUS_SUCCESS);
    WDFREQUEST request = nullptr;
    ASSERT_EQ(WdfIoQueueRetrieveNextRequest(objects.parked, &request), STATUS_SUCCESS);
    ExpectViolation(Rule::kRequestNever, [] { WdfObjectDelete(objects.parked); },
                    {"WDFQUEUE", "WDFREQUEST", "was not completed"});
    WdfRequestComplete(request, STATUS_SUCCESS);
    EXPECT_EQ(client->Wait(*sent), STATUS_SUCCESS);
    AbandonDriver();
}

}  // namespace
}  // namespace framework_test
