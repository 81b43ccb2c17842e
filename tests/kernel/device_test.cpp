// Devices: who may open them, and what their driver hears of opens and closes.
#include "test_device.h"

namespace platform::testing {

namespace {

using Majors = std::vector<int>;

TEST_F(DeviceTest, DriverHearsOpenCleanupAndCloseInOrder) {
    TestDevice device;
    const HANDLE first = MustOpen();
    HANDLE second = nullptr;
    const auto self = reinterpret_cast<HANDLE>(process_->Id());
    ASSERT_EQ(NtDuplicateObject(self, first, self, &second, 0, 0, 2), STATUS_SUCCESS);
    NtClose(first);
    EXPECT_EQ(device.Majors(), (Majors{IRP_MJ_CREATE}));  // the other handle keeps the file

    void* file = nullptr;
    ASSERT_EQ(ReferenceHandle(second, 0, &kFileType, KernelMode, &file), STATUS_SUCCESS);
    NtClose(second);
    EXPECT_EQ(device.Majors(), (Majors{IRP_MJ_CREATE, IRP_MJ_CLEANUP}));
    EXPECT_TRUE(DriverHasOpenDevices(device.Driver()));
    DereferenceObject(file);
    EXPECT_EQ(device.Majors(), (Majors{IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}));
    EXPECT_FALSE(DriverHasOpenDevices(device.Driver()));
}

TEST_F(DeviceTest, ProcessExitClosesItsHandles) {
    TestDevice device;
    {
        const auto other = machine_.StartProcess(Client());
        {
            ThreadScope scope(*other);
            MustOpen();
        }
        machine_.ExitProcess(*other);
    }
    EXPECT_EQ(device.Majors(), (Majors{IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}));
}

TEST_F(DeviceTest, AnOpenThatTheDriverRefusesLeavesNothing) {
    TestDevice device;
    device.createStatus = STATUS_DEVICE_BUSY;  // a warning, which still is no success
    HANDLE handle = nullptr;
    EXPECT_EQ(Open(TestDevice::kName, kReadWrite, &handle), STATUS_DEVICE_BUSY);
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(device.Majors(), (Majors{IRP_MJ_CREATE}));
    EXPECT_FALSE(DriverHasOpenDevices(device.Driver()));
}

TEST_F(DeviceTest, NamesLeadToTheDevice) {
    TestDevice device;
    ASSERT_EQ(InsertNameLink(u"\\DosDevices\\TestLink", TestDevice::kName), STATUS_SUCCESS);
    struct Case {
        std::u16string_view name;
        NTSTATUS status;
    };
    const Case cases[] = {
        {u"\\Device\\TestDevice", STATUS_SUCCESS},
        {u"\\DEVICE\\testdevice", STATUS_SUCCESS},
        {u"\\??\\TestLink", STATUS_SUCCESS},
        {u"\\DosDevices\\TestLink", STATUS_SUCCESS},
        {u"\\??\\TestLink\\of the driver\\x", STATUS_SUCCESS},
        {u"\\Device\\TestDevice\\", STATUS_SUCCESS},
        {u"\\Device\\TestDevic", STATUS_OBJECT_NAME_NOT_FOUND},
        {u"\\Device\\None\\x", STATUS_OBJECT_PATH_NOT_FOUND},
        {u"\\Device", STATUS_OBJECT_TYPE_MISMATCH},
        {u"TestDevice", STATUS_OBJECT_PATH_SYNTAX_BAD},
        {u"", STATUS_OBJECT_PATH_SYNTAX_BAD},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(ToUtf8(each.name));
        HANDLE handle = nullptr;
        EXPECT_EQ(Open(each.name, kReadWrite, &handle), each.status);
        if (NT_SUCCESS(each.status)) NtClose(handle);
    }
    RemoveName(u"\\DosDevices\\TestLink");
}

TEST_F(DeviceTest, FileNameIsTheDevicesWithWhatFollows) {
    TestDevice device;
    const HANDLE handle = MustOpen(u"\\device\\testDEVICE\\Rest");
    void* file = nullptr;
    ASSERT_EQ(ReferenceHandle(handle, 0, &kFileType, KernelMode, &file), STATUS_SUCCESS);
    EXPECT_EQ(static_cast<FileObject*>(file)->name, u"\\Device\\TestDevice\\Rest");
    DereferenceObject(file);
    NtClose(handle);
}

TEST_F(DeviceTest, CannotBeOpenedBeforeItsInitializationEnds) {
    TestDevice device({.initializing = true});
    HANDLE handle = nullptr;
    EXPECT_EQ(Open(TestDevice::kName, kReadWrite, &handle), STATUS_NO_SUCH_DEVICE);
    EXPECT_EQ(device.Majors(), Majors{});
    FinishDriverInitialization(device.Driver());
    NtClose(MustOpen());
}

TEST_F(DeviceTest, ExclusiveDeviceIsOpenOnce) {
    TestDevice device({.exclusive = true});
    const HANDLE first = MustOpen();
    HANDLE second = nullptr;
    EXPECT_EQ(Open(TestDevice::kName, kReadWrite, &second), STATUS_ACCESS_DENIED);
    NtClose(first);
    NtClose(MustOpen());
}

TEST_F(DeviceTest, SecurityDescriptorDecidesOnOpens) {
    TestDevice device({.sddl = u"D:P(A;;GA;;;SY)(A;;GR;;;BA)"});
    struct Case {
        Token::Account account;
        ACCESS_MASK access;
        NTSTATUS status;
    };
    const Case cases[] = {
        {Token::Account::kLocalSystem, FILE_ALL_ACCESS, STATUS_SUCCESS},
        {Token::Account::kLocalSystem, GENERIC_WRITE, STATUS_SUCCESS},
        {Token::Account::kAdministrator, GENERIC_READ, STATUS_SUCCESS},
        {Token::Account::kAdministrator, GENERIC_READ | GENERIC_WRITE, STATUS_ACCESS_DENIED},
        {Token::Account::kUser, GENERIC_READ, STATUS_ACCESS_DENIED},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.access);
        const auto opener = machine_.StartProcess(Client(each.account));
        ThreadScope scope(*opener);
        const std::size_t before = device.Majors().size();
        HANDLE handle = nullptr;
        EXPECT_EQ(Open(TestDevice::kName, each.access, &handle), each.status);
        if (NT_SUCCESS(each.status)) {
            NtClose(handle);
        } else {
            EXPECT_EQ(device.Majors().size(), before);  // the driver never heard of it
        }
    }
}

TEST_F(DeviceTest, DeletedDeviceServesItsOpenHandlesUntilTheLastGoes) {
    TestDevice device;
    const HANDLE handle = MustOpen();
    device.Delete();
    HANDLE late = nullptr;
    EXPECT_EQ(Open(TestDevice::kName, kReadWrite, &late), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_TRUE(DriverHasOpenDevices(device.Driver()));

    IO_STATUS_BLOCK ioStatus{};
    EXPECT_EQ(NtDeviceIoControlFile(handle, nullptr, nullptr, nullptr, &ioStatus,
                                    ControlCode(0x800, METHOD_BUFFERED), nullptr, 0, nullptr, 0),
              STATUS_SUCCESS);
    NtClose(handle);
    EXPECT_EQ(device.Majors().back(), IRP_MJ_CLOSE);
    EXPECT_FALSE(DriverHasOpenDevices(device.Driver()));
}

TEST_F(DeviceTest, DriverThatIsToUnloadTakesNoMoreOpens) {
    TestDevice device;
    const HANDLE handle = MustOpen();
    EXPECT_FALSE(PrepareDriverUnload(device.Driver()));
    HANDLE late = nullptr;
    EXPECT_EQ(Open(TestDevice::kName, kReadWrite, &late), STATUS_NO_SUCH_DEVICE);
    NtClose(handle);
    EXPECT_TRUE(PrepareDriverUnload(device.Driver()));
}

TEST_F(DeviceTest, NamesAreTakenOnce) {
    TestDevice device;
    DEVICE_OBJECT* second = nullptr;
    EXPECT_EQ(
        CreateDevice(device.Driver(), TestDevice::kName, {}, FILE_DEVICE_UNKNOWN, false, &second),
        STATUS_OBJECT_NAME_COLLISION);
    device.Delete();
    ASSERT_EQ(
        CreateDevice(device.Driver(), TestDevice::kName, {}, FILE_DEVICE_UNKNOWN, false, &second),
        STATUS_SUCCESS);
    DeleteDevice(second);
}

TEST_F(DeviceTest, BadOpenArgumentsAreRefused) {
    TestDevice device;
    HANDLE handle = nullptr;
    EXPECT_EQ(Open(TestDevice::kName, FILE_READ_DATA, &handle, FILE_SYNCHRONOUS_IO_NONALERT),
              STATUS_INVALID_PARAMETER);  // waiting on the file needs SYNCHRONIZE
    EXPECT_EQ(Open(TestDevice::kName, kReadWrite, reinterpret_cast<HANDLE*>(0x10)),
              STATUS_ACCESS_VIOLATION);
    EXPECT_FALSE(DriverHasOpenDevices(device.Driver()));
    IO_STATUS_BLOCK ioStatus{};
    EXPECT_EQ(NtCreateFile(&handle, kReadWrite, nullptr, &ioStatus, nullptr, 0, 0, FILE_OPEN, 0,
                           nullptr, 0),
              STATUS_ACCESS_VIOLATION);
    const FaultPlan fault({.routine = "NtCreateFile", .status = STATUS_NO_MEMORY});
    EXPECT_EQ(Open(TestDevice::kName, kReadWrite, &handle), STATUS_NO_MEMORY);
}

TEST_F(DeviceTest, AbandonedDriverIsLeftAlone) {
    TestDevice device;
    RegisterShutdown(device.Device(), [] { ADD_FAILURE() << "notified"; });
    const HANDLE handle = MustOpen();
    AbandonDriver(device.Driver());
    machine_.NotifyShutdown();
    NtClose(handle);
    EXPECT_EQ(device.Majors(), (Majors{IRP_MJ_CREATE}));
    HANDLE late = nullptr;
    EXPECT_EQ(Open(TestDevice::kName, kReadWrite, &late), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_FALSE(DriverHasOpenDevices(device.Driver()));
}

TEST_F(DeviceTest, ShutdownNotifiesTheLastRegisteredFirst) {
    TestDevice device;
    DEVICE_OBJECT* second = nullptr;
    ASSERT_EQ(CreateDevice(device.Driver(), u"\\Device\\TestSecond", {}, FILE_DEVICE_UNKNOWN, false,
                           &second),
              STATUS_SUCCESS);
    std::vector<int> calls;
    RegisterShutdown(device.Device(), [&] { calls.push_back(1); });
    RegisterShutdown(second, [&] { calls.push_back(2); });
    machine_.NotifyShutdown();
    EXPECT_EQ(calls, (std::vector{2, 1}));
    DeleteDevice(second);
    machine_.NotifyShutdown();
    EXPECT_EQ(calls, (std::vector{2, 1, 1}));
}

}  // namespace

}  // namespace platform::testing
