// Devices: who may open them, and what their driver hears of opens and closes. What the framework
// makes of devices shows more of them.
#include "test_device.h"

namespace platform::device_tests {

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

TEST_F(DeviceTest, AnOpenThatTheDriverRefusesLeavesNothing) {
    TestDevice device;
    device.createStatus = STATUS_DEVICE_BUSY;  // a warning, which still is no success
    HANDLE handle = nullptr;
    EXPECT_EQ(Open(TestDevice::kName, kReadWrite, &handle), STATUS_DEVICE_BUSY);
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(device.Majors(), (Majors{IRP_MJ_CREATE}));
    EXPECT_FALSE(DriverHasOpenDevices(device.Driver()));
}

TEST_F(DeviceTest, SecurityDescriptorDecidesOnOpens) {
    using enum Token::Account;
    TestDevice device(u"D:P(A;;GA;;;SY)(A;;GR;;;BA)");
    const struct {
        Token::Account account;
        ACCESS_MASK access;
        NTSTATUS status;
    } cases[] = {
        {kLocalSystem, FILE_ALL_ACCESS, STATUS_SUCCESS},
        {kAdministrator, GENERIC_READ, STATUS_SUCCESS},
        {kAdministrator, GENERIC_READ | GENERIC_WRITE, STATUS_ACCESS_DENIED},
        {kUser, GENERIC_READ, STATUS_ACCESS_DENIED},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.access);
        const auto opener = machine_.StartProcess(Client(row.account));
        ThreadScope scope(*opener);
        const std::size_t before = device.Majors().size();
        HANDLE handle = nullptr;
        EXPECT_EQ(Open(TestDevice::kName, row.access, &handle), row.status);
        EXPECT_EQ(device.Majors().size(), before + (NT_SUCCESS(row.status) ? 1 : 0))
            << "the driver never hears of what is refused";
        if (handle != nullptr) NtClose(handle);
    }
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

}  // namespace

}  // namespace platform::device_tests
