#include "platform/machine.h"

#include "platform/kernel/io.h"
#include "platform/kernel/process_notify.h"

#include <gtest/gtest.h>

namespace platform {
namespace {

constexpr ULONG kTag = MakeTag("Tst1");
constexpr ULONG kOtherTag = MakeTag("Tst2");

/// How the driver behaves, and what happened to it.
struct Script {
    NTSTATUS entryStatus = STATUS_SUCCESS;
    bool unloadable = true;
    bool makeDevice = false;
    bool leakAtEntry = false;
    bool leakAtUnload = false;
    bool registerNotify = false;
    bool stopAtUnload = false;

    std::u16string registryPath;
    bool inSystemThread = false;
    NTSTATUS notifyStatus = STATUS_SUCCESS;
    int entries = 0;
    int unloads = 0;
    DEVICE_OBJECT* device = nullptr;
    void* block = nullptr;
};
Script script;

void NTAPI Notify(PEPROCESS, HANDLE, PPS_CREATE_NOTIFY_INFO) {}

NTSTATUS NTAPI Accept(PDEVICE_OBJECT, PIRP irp) {
    irp->status = STATUS_SUCCESS;
    CompleteIrp(irp);
    return STATUS_SUCCESS;
}

void NTAPI Unload(PDRIVER_OBJECT) {
    ++script.unloads;
    if (script.stopAtUnload) KeBugCheckEx(0x1234, 0, 0, 0, 0);
    EXPECT_TRUE(PsIsSystemThread(PsGetCurrentThread()));
    if (script.device != nullptr) DeleteDevice(std::exchange(script.device, nullptr));
    if (!script.leakAtUnload && script.block != nullptr) {
        ExFreePoolWithTag(std::exchange(script.block, nullptr), kTag);
    }
    if (script.registerNotify && NT_SUCCESS(script.notifyStatus)) {
        PsSetCreateProcessNotifyRoutineEx(Notify, TRUE);
    }
}

NTSTATUS NTAPI Entry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath) {
    ++script.entries;
    script.registryPath = View(*registryPath);
    script.inSystemThread = PsIsSystemThread(PsGetCurrentThread()) != FALSE;
    if (script.unloadable) driver->DriverUnload = Unload;
    if (script.registerNotify) {
        script.notifyStatus = PsSetCreateProcessNotifyRoutineEx(Notify, FALSE);
        if (!NT_SUCCESS(script.notifyStatus)) return script.notifyStatus;
    }
    if (NT_SUCCESS(script.entryStatus) || script.leakAtEntry) {
        script.block = ExAllocatePoolWithTag(NonPagedPool, 64, kTag);
    }
    if (script.makeDevice) {
        driver->MajorFunction[IRP_MJ_CREATE] = Accept;
        driver->MajorFunction[IRP_MJ_CLEANUP] = Accept;
        driver->MajorFunction[IRP_MJ_CLOSE] = Accept;
        EXPECT_EQ(CreateDevice(driver, u"\\Device\\MachineTest", {}, FILE_DEVICE_UNKNOWN, false,
                               &script.device),
                  STATUS_SUCCESS);
    }
    return script.entryStatus;
}

class MachineTest : public testing::Test {
protected:
    MachineTest() { script = {}; }
    ~MachineTest() override {
        if (script.block != nullptr) ExFreePoolWithTag(script.block, kTag);
    }
    static DriverImage Image() {
        return {.name = u"mtest",
                .entry = Entry,
                .integrityChecked = true,
                .poolTags = {kTag, kOtherTag}};
    }
    static bool KeyExists(std::u16string_view path) {
        UNICODE_STRING name = Describe(path);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE,
                                   nullptr, nullptr);
        HANDLE key = nullptr;
        if (!NT_SUCCESS(ZwOpenKey(&key, KEY_READ, &attributes))) return false;
        EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
        return true;
    }
    static bool IsRule(const std::optional<BugcheckRecord>& record, Rule rule) {
        return record && record->parameters[0] == static_cast<std::uintptr_t>(rule);
    }
};

TEST_F(MachineTest, LoadsAndUnloadsADriver) {
    Machine machine;
    const std::u16string path = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\mtest";
    ASSERT_FALSE(KeyExists(path));
    ASSERT_EQ(machine.LoadDriver(Image()), STATUS_SUCCESS);
    EXPECT_TRUE(KeyExists(path));
    EXPECT_EQ(script.registryPath, path);
    EXPECT_TRUE(script.inSystemThread);
    EXPECT_TRUE(machine.IsLoaded(u"MTEST"));
    EXPECT_EQ(machine.LoadDriver(Image()), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(machine.UnloadDriver(u"mtest"), STATUS_SUCCESS);
    EXPECT_FALSE(machine.IsLoaded(u"mtest"));
    EXPECT_EQ(machine.UnloadDriver(u"mtest"), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(script.entries, 1);
    EXPECT_EQ(script.unloads, 1);
    EXPECT_TRUE(machine.FindLeaks().None());
    ASSERT_EQ(machine.LoadDriver(Image()), STATUS_SUCCESS) << "again; the key exists now";
}

TEST_F(MachineTest, TheMachineUnloadsWhatIsStillLoaded) {
    {
        Machine machine;
        ASSERT_EQ(machine.LoadDriver(Image()), STATUS_SUCCESS);
    }
    EXPECT_EQ(script.unloads, 1);
}

TEST_F(MachineTest, AFailingEntryIsNotLoaded) {
    Machine machine;
    script.entryStatus = STATUS_NO_MEMORY;
    EXPECT_EQ(machine.LoadDriver(Image()), STATUS_NO_MEMORY);
    EXPECT_FALSE(machine.IsLoaded(u"mtest"));
    EXPECT_EQ(script.unloads, 0);
    EXPECT_TRUE(machine.FindLeaks().None());
    EXPECT_EQ(machine.LoadDriver({.name = u"none"}), STATUS_DRIVER_ENTRYPOINT_NOT_FOUND);
}

TEST_F(MachineTest, AFailingEntryMustFreeItsPool) {
    Machine machine;
    script.entryStatus = STATUS_NO_MEMORY;
    script.leakAtEntry = true;
    const DriverImage image = Image();
    const auto record = CatchBugcheck([&] { machine.LoadDriver(image); });
    EXPECT_TRUE(IsRule(record, Rule::kPoolLeaked));
    machine.ForgetLeaks();
}

TEST_F(MachineTest, PoolLeftAtUnloadStopsTheMachineAndNamesTheTag) {
    Machine machine;
    script.leakAtUnload = true;
    ASSERT_EQ(machine.LoadDriver(Image()), STATUS_SUCCESS);
    const auto record = CatchBugcheck([&] { machine.UnloadDriver(u"mtest"); });
    ASSERT_TRUE(IsRule(record, Rule::kPoolLeaked));
    EXPECT_NE(record->message.find("Tst1"), std::string::npos) << record->message;
    EXPECT_EQ(record->message.find("Tst2"), std::string::npos) << record->message;
    EXPECT_EQ(machine.FindLeaks().lines, std::vector<std::string>{"pool tag Tst1: 1 blocks"});
    machine.ForgetLeaks();
}

TEST_F(MachineTest, ADriverWithoutUnloadRoutineStays) {
    script.unloadable = false;
    Machine machine;
    ASSERT_EQ(machine.LoadDriver(Image()), STATUS_SUCCESS);
    EXPECT_EQ(machine.UnloadDriver(u"mtest"), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_TRUE(machine.IsLoaded(u"mtest"));
    machine.ForgetLeaks();
}

TEST_F(MachineTest, OnlyIntegrityCheckedImagesAreToldOfProcesses) {
    Machine machine;
    script.registerNotify = true;
    DriverImage image = Image();
    image.integrityChecked = false;
    EXPECT_EQ(machine.LoadDriver(image), STATUS_ACCESS_DENIED);
    image.integrityChecked = true;
    EXPECT_EQ(machine.LoadDriver(image), STATUS_SUCCESS);
    EXPECT_EQ(ProcessNotifyRoutineCount(), 1u);
    EXPECT_EQ(machine.UnloadDriver(u"mtest"), STATUS_SUCCESS);
    EXPECT_EQ(ProcessNotifyRoutineCount(), 0u);
}

HANDLE OpenDevice() {
    UNICODE_STRING name = Describe(u"\\Device\\MachineTest");
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    IO_STATUS_BLOCK ioStatus{};
    HANDLE file = nullptr;
    EXPECT_EQ(NtCreateFile(&file, FILE_GENERIC_READ, &attributes, &ioStatus, nullptr, 0, 0,
                           FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0),
              STATUS_SUCCESS);
    return file;
}

TEST_F(MachineTest, UnloadingWaitsForOpenDevices) {
    Machine machine;
    script.makeDevice = true;
    ASSERT_EQ(machine.LoadDriver(Image()), STATUS_SUCCESS);
    const auto process = machine.StartProcess({});
    {
        const ThreadScope inProcess(*process);
        const HANDLE first = OpenDevice();
        const HANDLE second = OpenDevice();
        EXPECT_EQ(machine.UnloadDriver(u"mtest"), STATUS_DEVICE_BUSY);
        EXPECT_EQ(NtClose(first), STATUS_SUCCESS);
        DrainSystemWork();
        EXPECT_TRUE(machine.IsLoaded(u"mtest"));
        EXPECT_EQ(machine.UnloadDriver(u"mtest"), STATUS_DEVICE_BUSY);
        EXPECT_EQ(script.unloads, 0);
        EXPECT_EQ(NtClose(second), STATUS_SUCCESS);
    }
    DrainSystemWork();
    EXPECT_EQ(script.unloads, 1);
    EXPECT_FALSE(machine.IsLoaded(u"mtest"));
}

TEST_F(MachineTest, ProcessesThatRunEndWithTheMachine) {
    std::optional<Machine> machine(std::in_place);
    auto process = machine->StartProcess({.imagePath = u"\\x"});
    {
        const ThreadScope inProcess(*process);
        HANDLE event = nullptr;
        ASSERT_EQ(NtCreateEvent(&event, GENERIC_ALL, nullptr, NotificationEvent, FALSE),
                  STATUS_SUCCESS);
    }
    process = {};
    machine.reset();
}

TEST_F(MachineTest, WhatIsLeftStopsTheMachineWhenItGoesDown) {
    struct Case {
        const char* expected;
        void (*leave)(Machine&);
    };
    static HANDLE handle;
    static ObjectRef<Process> kept;
    const Case cases[] = {
        {"1 handles of type Event",
         [](Machine&) { NtCreateEvent(&handle, GENERIC_ALL, nullptr, NotificationEvent, FALSE); }},
        {"1 objects of type Process",
         [](Machine& machine) {
             kept = machine.StartProcess({});
             machine.ExitProcess(*kept);
         }},
        {"1 process notify routines",
         [](Machine&) { PsSetCreateProcessNotifyRoutineEx(Notify, FALSE); }},
    };
    for (const Case& row : cases) {
        std::optional<Machine> machine(std::in_place);
        row.leave(*machine);
        const auto record = CatchBugcheck([&] { machine.reset(); });
        ASSERT_TRUE(IsRule(record, Rule::kObjectLeaked)) << row.expected;
        EXPECT_NE(record->message.find(row.expected), std::string::npos) << record->message;
        kept = {};
    }
    Machine clean;
    EXPECT_TRUE(clean.FindLeaks().None()) << "what an earlier machine left does not count";
}

TEST_F(MachineTest, AStoppedMachineLeavesTheNextOneAlone) {
    std::optional<Machine> machine(std::in_place);
    script.makeDevice = true;
    script.registerNotify = true;
    script.stopAtUnload = true;
    ASSERT_EQ(machine->LoadDriver(Image()), STATUS_SUCCESS);
    DEVICE_OBJECT* const first = script.device;
    const PETHREAD before = PsGetCurrentThread();
    const auto record = CatchBugcheck([&] { machine->UnloadDriver(u"mtest"); });
    ASSERT_TRUE(record);
    EXPECT_EQ(record->code, 0x1234u);
    EXPECT_EQ(PsGetCurrentThread(), before) << "the system thread of the unload is left";
    auto process = machine->StartProcess({});
    machine->ForgetLeaks();
    process = {};
    machine.reset();
    EXPECT_EQ(script.unloads, 1) << "the stopped driver is not called again";
    DeleteDevice(first);

    script = {};
    script.makeDevice = true;
    machine.emplace();
    EXPECT_EQ(machine->LoadDriver(Image()), STATUS_SUCCESS) << "the device's name is free again";
    EXPECT_EQ(machine->UnloadDriver(u"mtest"), STATUS_SUCCESS);
    EXPECT_TRUE(machine->FindLeaks().None());
}

TEST_F(MachineTest, OnlyOneExistsAtATime) {
    Machine machine;
    EXPECT_THROW(Machine(), std::logic_error);
}

TEST_F(MachineTest, TellsItsVersionAndTime) {
    Machine machine({.majorVersion = 6, .minorVersion = 1, .buildNumber = 7601});
    OSVERSIONINFOW version{};
    version.dwOSVersionInfoSize = sizeof(version);
    ASSERT_EQ(RtlGetVersion(&version), STATUS_SUCCESS);
    EXPECT_EQ(version.dwMajorVersion, 6u);
    EXPECT_EQ(version.dwMinorVersion, 1u);
    EXPECT_EQ(version.dwBuildNumber, 7601u);
    LARGE_INTEGER now;
    machine.SetSystemTime(1000);
    KeQuerySystemTime(&now);
    EXPECT_EQ(now.QuadPart, 1000);
}

TEST_F(MachineTest, SetsRegistryValues) {
    Machine machine;
    constexpr std::u16string_view kKey = u"\\Registry\\Machine\\Software\\Test\\Deep";
    machine.SetRegistryDword(kKey, u"Number", 7);
    machine.SetRegistryString(kKey, u"Text", u"ab");
    machine.SetRegistryStrings(kKey, u"List", {u"a", u"bc"});
    EXPECT_THROW(machine.SetRegistryDword(u"\\Device\\x", u"v", 1), std::invalid_argument);
    ASSERT_TRUE(KeyExists(kKey));
    UNICODE_STRING path = Describe(kKey);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &path, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    HANDLE key = nullptr;
    ASSERT_EQ(ZwOpenKey(&key, KEY_READ, &attributes), STATUS_SUCCESS);
    const struct {
        const char16_t* name;
        ULONG type;
        std::u16string data;
    } cases[] = {
        {u"Number", REG_DWORD, std::u16string(u"\7\0", 2)},
        {u"Text", REG_SZ, std::u16string(u"ab\0", 3)},
        {u"List", REG_MULTI_SZ, std::u16string(u"a\0bc\0\0", 6)},
    };
    for (const auto& row : cases) {
        alignas(8) std::byte buffer[64];
        ULONG length = 0;
        UNICODE_STRING name = Describe(row.name);
        ASSERT_EQ(ZwQueryValueKey(key, &name, KeyValuePartialInformation, buffer, sizeof(buffer),
                                  &length),
                  STATUS_SUCCESS);
        const auto* value = reinterpret_cast<PKEY_VALUE_PARTIAL_INFORMATION>(buffer);
        EXPECT_EQ(value->Type, row.type);
        EXPECT_EQ(std::u16string_view(reinterpret_cast<const char16_t*>(value->Data),
                                      value->DataLength / 2),
                  row.data);
    }
    EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
}

}  // namespace
}  // namespace platform
