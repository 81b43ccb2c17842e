// Process tracking registrations and references on what they give, as a client holds them.
#pragma once

#include "library_test.h"

#include <atomic>
#include <functional>

inline constexpr char16_t kShellImage[] = u"\\Device\\Disk1\\Windows\\System32\\shell.exe";

inline HANDLE IdOf(const platform::Process& process) {
    return reinterpret_cast<HANDLE>(process.Id());
}

/// A registration for the handle's lifetime. Its blocks hold one 64-bit number.
class TrackingHandle {
public:
    explicit TrackingHandle(ULONG client = 1) {
        const GUID guid = {client, 2, 3, {4}};
        ProcessTrackingConfig config = {};
        config.Options = ZPK_TRACK_UNTIL_EXIT;
        config.ContextCleanup = Cleanup;
        config.ContextSize = sizeof(std::uint64_t);
        config.PoolTag = kTestContextTag;
        config.PoolType = NonPagedPoolNx;
        status_ = ZPkPsRegister(&guid, &config, &tracking_);
    }
    ~TrackingHandle() { End(); }
    TrackingHandle(const TrackingHandle&) = delete;
    TrackingHandle& operator=(const TrackingHandle&) = delete;

    void End() {
        if (tracking_ != nullptr) ZPkPsUnregister(std::exchange(tracking_, nullptr));
    }
    NTSTATUS Status() const { return status_; }
    ZPK_PROCESS_TRACKING* Get() const { return tracking_; }

    std::uint64_t* NewBlock(std::uint64_t number) const {
        auto* block = static_cast<std::uint64_t*>(ZPkPsAllocateContext(tracking_));
        if (block != nullptr) *block = number;
        return block;
    }

    /// Sum of the numbers of the blocks that were passed to clean-up, and how many they were.
    static inline std::atomic<std::uint64_t> cleanedSum{0};
    static inline std::atomic<int> cleanedCount{0};
    /// Called by each clean-up, unless it is empty.
    static inline std::function<void()> atCleanup;
    static void ForgetCleaned() {
        cleanedSum = 0;
        cleanedCount = 0;
    }

private:
    static void NTAPI Cleanup(PVOID block) {
        EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
        if (atCleanup) atCleanup();
        cleanedSum += *static_cast<std::uint64_t*>(block);
        cleanedCount += 1;
    }

    ZPK_PROCESS_TRACKING* tracking_ = nullptr;
    NTSTATUS status_;
};

/// What ZPkPsGet gave, with its references.
struct Tracked {
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    ProcessRecord* record = nullptr;
    std::uint64_t* block = nullptr;

    Tracked(const TrackingHandle& tracking, HANDLE id) {
        PVOID context = nullptr;
        status = ZPkPsGet(tracking.Get(), id, &record, &context);
        block = static_cast<std::uint64_t*>(context);
        EXPECT_EQ(NT_SUCCESS(status), record != nullptr);
    }
    ~Tracked() {
        if (record != nullptr) ZPkPsRelease(record);
        if (block != nullptr) ZPkPsReleaseContext(block);
    }
    Tracked(const Tracked&) = delete;
    Tracked& operator=(const Tracked&) = delete;

    std::u16string Image() const { return std::u16string(platform::View(record->ImagePath)); }
};
