// A small driver with one device, for tests of the I/O manager: it writes down what it is asked and
// parks, on demand, requests in a queue that can be cancelled.
#pragma once

#include "platform/kernel/event_object.h"
#include "platform/kernel/io.h"
#include "platform/machine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace platform::device_tests {

constexpr ULONG ControlCode(ULONG function, ULONG method, ULONG access = FILE_ANY_ACCESS) {
    return FILE_DEVICE_UNKNOWN << 16 | access << 14 | function << 2 | method;
}

/// Lives on the test's stack; its device is deleted with it, if not before.
class TestDevice {
public:
    explicit TestDevice(std::u16string_view sddl = u"")
        : driver_(CreateDriverObject(u"TestDriver")) {
        for (UCHAR major : {IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}) {
            driver_->MajorFunction[major] = DispatchFile;
        }
        for (UCHAR major : {IRP_MJ_READ, IRP_MJ_WRITE, IRP_MJ_DEVICE_CONTROL}) {
            driver_->MajorFunction[major] = DispatchRequest;
        }
        SecurityDescriptor security;
        if (!sddl.empty()) {
            EXPECT_EQ(ParseSddl(sddl, security), STATUS_SUCCESS);
        }
        EXPECT_EQ(CreateDevice(driver_, kName, security, FILE_DEVICE_UNKNOWN, false, &device_),
                  STATUS_SUCCESS);
        device_->extension = this;
        FinishDriverInitialization(driver_);
    }
    ~TestDevice() {
        Delete();
        EXPECT_FALSE(DriverHasOpenDevices(driver_));
        DeleteDriverObject(driver_);
    }
    TestDevice(const TestDevice&) = delete;
    TestDevice& operator=(const TestDevice&) = delete;

    void Delete() {
        if (device_ != nullptr) DeleteDevice(std::exchange(device_, nullptr));
    }
    DRIVER_OBJECT* Driver() const { return driver_; }
    DEVICE_OBJECT* Device() const { return device_; }

    /// The major codes in the order in which they came.
    std::vector<int> Majors() {
        std::lock_guard guard(lock_);
        return majors_;
    }

    /// Handles reads, writes and control requests; completes or parks them.
    std::function<NTSTATUS(IRP*)> onRequest = [](IRP* irp) { return Finish(irp, STATUS_SUCCESS); };
    NTSTATUS createStatus = STATUS_SUCCESS;

    static NTSTATUS Finish(IRP* irp, NTSTATUS status, ULONG_PTR information = 0) {
        irp->status = status;
        irp->information = information;
        CompleteIrp(irp);
        return status;
    }

    /// Keeps the request until TakeParked, its cancellation or its file's clean-up.
    NTSTATUS Park(IRP* irp) {
        bool cancelled = false;
        {
            std::lock_guard guard(lock_);
            parked_.push_back(irp);
            SetCancelRoutine(irp, CancelParked);
            cancelled = irp->cancelled && SetCancelRoutine(irp, nullptr) != nullptr;
            if (cancelled) parked_.pop_back();
        }
        if (cancelled) Finish(irp, STATUS_CANCELLED);
        return STATUS_PENDING;
    }
    /// A parked request that the caller then owns; null when there is none.
    IRP* TakeParked() {
        return Take([](const IRP*) { return true; });
    }

    static constexpr std::u16string_view kName = u"\\Device\\TestDevice";

private:
    static TestDevice& Of(PDEVICE_OBJECT device) {
        return *static_cast<TestDevice*>(device->extension);
    }

    template <typename Filter>
    IRP* Take(Filter wanted) {
        std::lock_guard guard(lock_);
        for (auto entry = parked_.begin(); entry != parked_.end(); ++entry) {
            IRP* irp = *entry;
            if (wanted(irp) && SetCancelRoutine(irp, nullptr) != nullptr) {
                parked_.erase(entry);
                return irp;
            }
        }
        return nullptr;
    }

    static void CancelParked(DEVICE_OBJECT* device, IRP* irp) {
        TestDevice& self = Of(device);
        {
            std::lock_guard guard(self.lock_);
            std::erase(self.parked_, irp);
        }
        Finish(irp, STATUS_CANCELLED);
    }

    static NTSTATUS NTAPI DispatchFile(PDEVICE_OBJECT device, PIRP irp) {
        TestDevice& self = Of(device);
        self.Note(irp->major);
        if (irp->major == IRP_MJ_CLEANUP) {
            const FileObject* file = irp->file.get();
            while (IRP* parked = self.Take([&](IRP* each) { return each->file.get() == file; })) {
                Finish(parked, STATUS_CANCELLED);
            }
        }
        return Finish(irp, irp->major == IRP_MJ_CREATE ? self.createStatus : STATUS_SUCCESS);
    }

    static NTSTATUS NTAPI DispatchRequest(PDEVICE_OBJECT device, PIRP irp) {
        TestDevice& self = Of(device);
        self.Note(irp->major);
        return self.onRequest(irp);
    }

    void Note(UCHAR major) {
        std::lock_guard guard(lock_);
        majors_.push_back(major);
    }

    DRIVER_OBJECT* driver_;
    DEVICE_OBJECT* device_ = nullptr;
    std::mutex lock_;
    std::vector<int> majors_;
    std::vector<IRP*> parked_;
};

/// A machine with one process whose thread the test is.
class DeviceTest : public ::testing::Test {
protected:
    static constexpr ACCESS_MASK kReadWrite = FILE_GENERIC_READ | FILE_GENERIC_WRITE;

    static ProcessOptions Client(Token::Account account = Token::Account::kAdministrator) {
        return {.imagePath = u"\\Device\\HarddiskVolume1\\client.exe", .token = {account}};
    }

    NTSTATUS Open(std::u16string_view name, ACCESS_MASK access, HANDLE* handle, ULONG options = 0) {
        UNICODE_STRING text = Describe(name);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &text, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        IO_STATUS_BLOCK ioStatus{};
        return NtCreateFile(handle, access, &attributes, &ioStatus, nullptr, 0, 0, FILE_OPEN,
                            options, nullptr, 0);
    }
    HANDLE MustOpen(std::u16string_view name = TestDevice::kName, ACCESS_MASK access = kReadWrite,
                    ULONG options = 0) {
        HANDLE handle = nullptr;
        EXPECT_EQ(Open(name, access, &handle, options), STATUS_SUCCESS);
        return handle;
    }
    HANDLE MakeEvent() {
        HANDLE event = nullptr;
        EXPECT_EQ(NtCreateEvent(&event, kAllEventAccess, nullptr, NotificationEvent, FALSE),
                  STATUS_SUCCESS);
        return event;
    }
    static NTSTATUS Wait(HANDLE event) { return NtWaitForSingleObject(event, FALSE, nullptr); }
    static bool IsSet(HANDLE event) {
        LARGE_INTEGER now{};
        return NtWaitForSingleObject(event, FALSE, &now) == STATUS_WAIT_0;
    }

    Machine machine_;
    ObjectRef<Process> process_ = machine_.StartProcess(Client());
    ThreadScope scope_{*process_};

private:
    static constexpr ACCESS_MASK kAllEventAccess = 0x1F0003;
};

}  // namespace platform::device_tests
