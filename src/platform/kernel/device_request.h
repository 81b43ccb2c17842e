// Requests to devices: a packet with its buffers, and the report of its end to the sender.
#pragma once

#include "platform/kernel/caller_memory.h"
#include "platform/kernel/event_object.h"
#include "platform/kernel/io.h"

namespace platform {

/// Where a request reports its end.
class RequestReport {
public:
    explicit RequestReport(KPROCESSOR_MODE mode) : memory_(mode) {}

    /// Probes the status block, finds the event (null: none) and clears it.
    NTSTATUS Prepare(PIO_STATUS_BLOCK ioStatus, HANDLE event);
    /// Writes the status block and sets the event, in any context. Who sees the status there with
    /// an acquiring load, or the event set, sees everything of the request. A status block that
    /// has gone bad meanwhile is passed over, as there is nobody to tell.
    void Deliver(NTSTATUS status, ULONG_PTR information) const;

    PIO_STATUS_BLOCK StatusBlock() const { return ioStatus_; }
    const CallerMemory& Memory() const { return memory_; }

private:
    CallerMemory memory_;
    PIO_STATUS_BLOCK ioStatus_ = nullptr;
    ObjectRef<Event> event_;
};

/// What a caller asks of a device; the addresses are the caller's.
struct DeviceRequest {
    UCHAR major;
    ULONG controlCode = 0;
    void* input = nullptr;
    ULONG inputLength = 0;
    void* output = nullptr;
    ULONG outputLength = 0;
    LONGLONG byteOffset = 0;
};

/// Sends the request to the file's device: its status, when the file is synchronous; otherwise what
/// the driver returned, STATUS_PENDING if the end is reported later. A failure before the driver
/// has the request is not reported.
NTSTATUS SendDeviceRequest(const ObjectRef<FileObject>& file, const DeviceRequest& request,
                           RequestReport report);

}  // namespace platform
