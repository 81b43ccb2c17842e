// Request packets inside the I/O manager: making them, sending them, waiting for their end.
#pragma once

#include "platform/kernel/io.h"

#include <utility>

namespace platform {

/// Owns one reference on a packet.
class PacketRef {
public:
    PacketRef() = default;
    /// Takes a new reference.
    explicit PacketRef(IRP* irp);
    PacketRef(PacketRef&& other) noexcept : irp_(std::exchange(other.irp_, nullptr)) {}
    PacketRef& operator=(PacketRef other) noexcept {
        std::swap(irp_, other.irp_);
        return *this;
    }
    PacketRef(const PacketRef&) = delete;
    ~PacketRef();
    IRP* get() const { return irp_; }
    IRP* operator->() const { return irp_; }
    IRP& operator*() const { return *irp_; }

private:
    IRP* irp_ = nullptr;
};

/// A packet of the current thread. Besides the reference that is returned it has the one that
/// CompleteIrp drops, so it must be sent.
PacketRef CreatePacket(UCHAR major, ObjectRef<FileObject> file, KPROCESSOR_MODE mode);

/// Gives the packet to the driver of its file's device and returns what the dispatch routine
/// returned. Until its end NtCancelIoFileEx finds it by its file. PASSIVE_LEVEL.
NTSTATUS SendPacket(IRP& irp);
/// Waits for the end of a packet that was sent, and returns its status.
NTSTATUS AwaitPacket(const IRP& irp);

/// Cancels the packets in flight that the current process sent to the file and that report to
/// `userStatus` (null: all of them); false when there is none.
bool CancelPackets(FileObject& file, PIO_STATUS_BLOCK userStatus);

}  // namespace platform
