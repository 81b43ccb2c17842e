#include "platform/machine.h"

#include "platform/kernel/io.h"
#include "platform/kernel/process_notify.h"

#include <gtest/gtest.h>

namespace platform {
namespace {

constexpr ULONG kDriverTag = MakeTag("Tst1");
constexpr ULONG kOtherDriverTag = MakeTag("Tst2");

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

void NTAPI Unload(PDRIVER_OBJECT) {
    ++script.unloads;
    if (script.stopAtUnload) KeBugCheckEx(0x1234, 0, 0, 0, 0);
    EXPECT_TRUE(PsIsSystemThread(PsGetCurrentThread()));
    if (script.device != nullptr) DeleteDevice(std::exchange(script.device, nullptr));
    if (!script.leakAtUnload && script.block != nullptr) {
        ExFreePoolWithTag(std::exchange(script.block, nullptr), kDriverTag);
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
        script.block = ExAllocatePoolWithTag(NonPagedPool, 64, kDriverTag);
    }
    if (script.makeDevice) {
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
        if (script.block != nullptr) ExFreePoolWithTag(script.block, kDriverTag);
    }
    static DriverImage Image() { return {u"mtest", Entry, true, {kDriverTag, kOtherDriverTag}}; }
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
    std::optional<Machine> machine(std::in_place);
    EXPECT_THROW(Machine(), std::logic_error) << "one at a time";
    const std::u16string path = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\mtest";
    ASSERT_FALSE(KeyExists(path));
    ASSERT_EQ(machine->LoadDriver(Image()), STATUS_SUCCESS);
    EXPECT_TRUE(KeyExists(path));
    EXPECT_EQ(script.registryPath, path);
    EXPECT_TRUE(script.inSystemThread);
    EXPECT_TRUE(machine->IsLoaded(u"MTEST"));
    EXPECT_EQ(machine->LoadDriver(Image()), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(machine->UnloadDriver(u"mtest"), STATUS_SUCCESS);
    EXPECT_FALSE(machine->IsLoaded(u"mtest"));
    EXPECT_EQ(machine->UnloadDriver(u"mtest"), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(script.entries, 1);
    EXPECT_EQ(script.unloads, 1);
    EXPECT_TRUE(machine->FindLeaks().None());
    ASSERT_EQ(machine->LoadDriver(Image()), STATUS_SUCCESS) << "again; the key exists now";
    machine.reset();
    EXPECT_EQ(script.unloads, 2) << "the machine unloads what is still loaded";
}

TEST_F(MachineTest, AFailingEntryIsNotLoadedAndMustFreeItsPool) {
    Machine machine;
    script.entryStatus = STATUS_NO_MEMORY;
    EXPECT_EQ(machine.LoadDriver(Image()), STATUS_NO_MEMORY);
    EXPECT_FALSE(machine.IsLoaded(u"mtest"));
    EXPECT_EQ(script.unloads, 0);
    EXPECT_TRUE(machine.FindLeaks().None());
    EXPECT_EQ(machine.LoadDriver({.name = u"none"}), STATUS_DRIVER_ENTRYPOINT_NOT_FOUND);
    script.leakAtEntry = true;
    const DriverImage image = Image();
    EXPECT_TRUE(IsRule(CatchBugcheck([&] { machine.LoadDriver(image); }), Rule::kPoolLeaked));
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

TEST_F(MachineTest, WhatIsLeftStopsTheMachineWhenItGoesDown) {
    static HANDLE handle;
    static ObjectRef<Process> kept;
    const struct {
        const char* expected;
        void (*leave)(Machine&);
    } cases[] = {
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
    for (const auto& row : cases) {
        std::optional<Machine> machine(std::in_place);
        row.leave(*machine);
        const auto record = CatchBugcheck([&] { machine.reset(); });
        ASSERT_TRUE(IsRule(record, Rule::kObjectLeaked)) << row.expected;
        EXPECT_NE(record->message.find(row.expected), std::string::npos) << record->message;
        kept = {};
    }
    std::optional<Machine> clean(std::in_place);
    auto running = clean->StartProcess({.imagePath = u"\\x"});
    {
        const ThreadScope inProcess(*running);
        NtCreateEvent(&handle, GENERIC_ALL, nullptr, NotificationEvent, FALSE);
    }
    running = {};
    clean.reset();  // ends what runs, with its handles
    clean.emplace();
    EXPECT_TRUE(clean->FindLeaks().None()) << "what an earlier machine left does not count";
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

}  // namespace
}  // namespace platform
