// The life of a request packet: sent, cancelled, completed, quarantined.
#include "platform/kernel/packet.h"
#include "platform/kernel/verifier.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace platform {

namespace {

/// Finished packets stay readable for a while, so that touching one is reported as what it is.
class Quarantine {
public:
    void Add(IRP* irp) {
        const std::size_t slot = next_.fetch_add(1, std::memory_order_relaxed) % slots_.size();
        delete slots_[slot].exchange(irp, std::memory_order_acq_rel);
    }

private:
    std::array<std::atomic<IRP*>, 256> slots_{};
    std::atomic<std::size_t> next_{0};
};

constinit Quarantine quarantine;

std::string Describe(const IRP& irp) {
    char text[64];
    std::snprintf(text, sizeof text, "packet %p (major 0x%02X, control code 0x%X)",
                  static_cast<const void*>(&irp), irp.major, irp.controlCode);
    return text;
}

void FreePacket(IRP* irp) {
    irp->completed = nullptr;
    irp->systemBuffer.reset();
    irp->mdl.reset();
    irp->thread = {};
    irp->file = {};
    irp->state.store(PacketState::kFreed, std::memory_order_relaxed);
    if (VerifierEnabled()) {
        quarantine.Add(irp);
    } else {
        delete irp;
    }
}

void ReleasePacket(IRP* irp) {
    if (irp->references.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        FreePacket(irp);
    }
}

void ForgetPacket(FileObject& file, IRP* irp) {
    std::lock_guard guard(file.irpsLock);
    std::erase(file.irps, irp);
}

void RequireCompletable(IRP* irp) {
    if (irp->cancelRoutine.load() != nullptr) {
        Violation(Rule::kRequestTwice,
                  Describe(*irp) + " completed while its cancel routine could still complete it",
                  irp);
    }
    if (irp->status == STATUS_PENDING) {
        Violation(Rule::kRequestNever, Describe(*irp) + " completed with STATUS_PENDING", irp);
    }
    auto expected = PacketState::kActive;
    if (!irp->state.compare_exchange_strong(expected, PacketState::kCompleting)) {
        Violation(Rule::kRequestTwice, Describe(*irp) + " completed twice", irp);
    }
}

}  // namespace

PacketRef::PacketRef(IRP* irp) : irp_(irp) {
    irp_->references.fetch_add(1, std::memory_order_relaxed);
}

PacketRef::~PacketRef() {
    if (irp_ != nullptr) ReleasePacket(irp_);
}

PacketRef CreatePacket(UCHAR major, ObjectRef<FileObject> file, KPROCESSOR_MODE mode) {
    IRP* irp = new IRP;
    irp->major = major;
    irp->requestorMode = mode;
    irp->file = std::move(file);
    irp->thread = ObjectRef<Thread>(&CurrentThread());
    return PacketRef(irp);
}

NTSTATUS SendPacket(IRP& irp) {
    DEVICE_OBJECT* device = irp.file->device.get();
    {
        std::lock_guard guard(irp.file->irpsLock);
        irp.file->irps.push_back(&irp);
    }
    CallbackCheck check("dispatch routine");
    const NTSTATUS status = device->driver->MajorFunction[irp.major](device, &irp);
    if (status != STATUS_PENDING && irp.state.load() == PacketState::kActive) {
        Violation(Rule::kRequestNever,
                  Describe(irp) + " left uncompleted by a dispatch routine that returned its end",
                  &irp);
    }
    return status;
}

NTSTATUS AwaitPacket(const IRP& irp) {
    for (auto state = irp.state.load(); state != PacketState::kDone; state = irp.state.load()) {
        irp.state.wait(state);
    }
    return irp.status;
}

bool CancelPackets(FileObject& file, PIO_STATUS_BLOCK userStatus) {
    std::vector<PacketRef> found;
    {
        // A packet leaves the list before CompleteIrp drops its reference: those found here live.
        std::lock_guard guard(file.irpsLock);
        for (IRP* irp : file.irps) {
            if ((userStatus == nullptr || irp->userStatus == userStatus) &&
                &irp->thread->Owner() == &CurrentProcess()) {
                found.emplace_back(irp);
            }
        }
    }
    for (const PacketRef& irp : found) {
        CancelIrp(irp.get());
    }
    return !found.empty();
}

CancelRoutine SetCancelRoutine(IRP* irp, CancelRoutine routine) {
    return irp->cancelRoutine.exchange(routine);
}

bool CancelIrp(IRP* irp) {
    irp->cancelled.store(true);
    const CancelRoutine routine = irp->cancelRoutine.exchange(nullptr);
    if (routine == nullptr) {
        return false;
    }
    CallbackCheck check("cancel routine");
    routine(irp->file->device.get(), irp);
    return true;
}

void CompleteIrp(IRP* irp) {
    RequireIrql("CompleteIrp", DISPATCH_LEVEL);
    RequireCompletable(irp);
    if (irp->file) ForgetPacket(*irp->file, irp);
    if (irp->completed) irp->completed(*irp);
    irp->state.store(PacketState::kDone);
    irp->state.notify_all();
    ReleasePacket(irp);
}

}  // namespace platform
