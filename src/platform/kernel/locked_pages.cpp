// Locked buffers: a second mapping of the caller's pages at an address of the kernel's own.
#include "platform/kernel/fault_injection.h"
#include "platform/kernel/io.h"
#include "platform/kernel/user_memory.h"
#include "platform/kernel/verifier.h"

#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <map>
#include <shared_mutex>

namespace platform {

namespace {

const std::size_t kPageSize = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));

std::size_t RoundToPages(std::size_t size) {
    return (size + kPageSize - 1) & ~(kPageSize - 1);
}

/// Another mapping of the same shared pages; null when there is no room.
void* MapAgain(void* pages, std::size_t size) {
    void* mapping = mremap(pages, 0, size, MREMAP_MAYMOVE);
    return mapping == MAP_FAILED ? nullptr : mapping;
}

/// Mappings of buffers that were unlocked, kept inaccessible for a while so that late accesses
/// fault.
class MappingQuarantine {
public:
    void Add(void* mapping, std::size_t size) {
        // On failure the pages are still mapped, and go at once.
        if (mmap(mapping, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED,
                 -1, 0) == MAP_FAILED) {
            munmap(mapping, size);
            return;
        }
        Range oldest{mapping, size};
        {
            std::lock_guard guard(lock_);
            std::swap(oldest, ranges_[next_++ % ranges_.size()]);
        }
        if (oldest.mapping != nullptr) munmap(oldest.mapping, oldest.size);
    }

private:
    struct Range {
        void* mapping = nullptr;
        std::size_t size = 0;
    };
    std::mutex lock_;
    std::array<Range, 128> ranges_{};
    std::size_t next_ = 0;
};

constinit MappingQuarantine quarantine;

}  // namespace

/// One allocation of user memory. Its pages live as long as anything is mapped to them.
class UserRegion {
public:
    static std::shared_ptr<UserRegion> Create(std::size_t size) {
        const std::size_t rounded = RoundToPages(size);
        if (size == 0 || rounded < size) return nullptr;
        // The reservation's last page stays inaccessible.
        void* base = mmap(nullptr, rounded + kPageSize, PROT_NONE,
                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (base == MAP_FAILED) return nullptr;
        if (mmap(base, rounded, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_FIXED, -1,
                 0) == MAP_FAILED) {
            munmap(base, rounded + kPageSize);
            return nullptr;
        }
        return std::shared_ptr<UserRegion>(new UserRegion(static_cast<std::byte*>(base), rounded));
    }
    ~UserRegion() {
        if (alias_ != nullptr) munmap(alias_, size_);
    }
    UserRegion(const UserRegion&) = delete;
    UserRegion& operator=(const UserRegion&) = delete;

    std::byte* Base() const { return base_; }
    std::size_t Size() const { return size_; }

    /// The kernel's lasting address of the whole region; null when there is no room.
    std::byte* Alias() {
        std::lock_guard guard(aliasLock_);
        if (alias_ == nullptr) alias_ = static_cast<std::byte*>(MapAgain(base_, size_));
        return alias_;
    }
    /// Ends the user's own mapping.
    void Release() { munmap(base_, size_ + kPageSize); }

private:
    UserRegion(std::byte* base, std::size_t size) : base_(base), size_(size) {}

    std::byte* const base_;
    const std::size_t size_;
    std::mutex aliasLock_;
    std::byte* alias_ = nullptr;
};

namespace {

/// Live regions by their base. Held shared while pages are locked, so that the user's mapping does
/// not go meanwhile.
constinit std::shared_mutex regionsLock;
std::map<std::uintptr_t, std::shared_ptr<UserRegion>> regions;

/// The region that `address` is in; null when it is in none. The caller holds regionsLock.
std::shared_ptr<UserRegion> FindRegion(std::uintptr_t address) {
    auto next = regions.upper_bound(address);
    if (next == regions.begin()) return nullptr;
    const auto& region = std::prev(next)->second;
    return address - std::prev(next)->first < region->Size() ? region : nullptr;
}

}  // namespace

NTSTATUS LockedPages::Lock(void* userAddress, std::size_t length,
                           std::unique_ptr<LockedPages>& pages) {
    RequireIrql("MmProbeAndLockPages", PASSIVE_LEVEL);
    if (const auto fault = FailThisCall("MmProbeAndLockPages")) return *fault;
    std::unique_ptr<LockedPages> locked(new LockedPages);
    locked->length_ = length;
    std::shared_lock guard(regionsLock);
    locked->region_ = FindRegion(reinterpret_cast<std::uintptr_t>(userAddress));
    if (locked->region_ == nullptr) {
        if (!IsWritableMemory(userAddress, length)) return STATUS_ACCESS_VIOLATION;
        locked->address_ = userAddress;
    } else {
        const NTSTATUS status = locked->MapRegionPart(static_cast<std::byte*>(userAddress));
        if (!NT_SUCCESS(status)) return status;
    }
    pages = std::move(locked);
    return STATUS_SUCCESS;
}

NTSTATUS LockedPages::MapRegionPart(std::byte* userAddress) {
    const auto offset = static_cast<std::size_t>(userAddress - region_->Base());
    if (length_ > region_->Size() - offset) return STATUS_ACCESS_VIOLATION;
    if (!VerifierEnabled()) {
        std::byte* alias = region_->Alias();
        address_ = alias + offset;
        return alias != nullptr ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
    }
    const std::size_t inPage = offset % kPageSize;
    mappingSize_ = RoundToPages(inPage + length_);
    mapping_ = MapAgain(userAddress - inPage, mappingSize_);
    address_ = static_cast<std::byte*>(mapping_) + inPage;
    return mapping_ != nullptr ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

LockedPages::~LockedPages() {
    if (mapping_ != nullptr) quarantine.Add(mapping_, mappingSize_);
}

void* AllocateUserMemory(std::size_t size) {
    const auto region = UserRegion::Create(size);
    if (region == nullptr) return nullptr;
    std::lock_guard guard(regionsLock);
    regions.emplace(reinterpret_cast<std::uintptr_t>(region->Base()), region);
    return region->Base();
}

void FreeUserMemory(void* address) {
    if (address == nullptr) return;
    std::shared_ptr<UserRegion> region;
    {
        std::lock_guard guard(regionsLock);
        if (auto entry = regions.extract(reinterpret_cast<std::uintptr_t>(address))) {
            region = std::move(entry.mapped());
        }
    }
    if (region == nullptr) {
        Violation(Rule::kPoolDoubleFree, "FreeUserMemory: not an address of AllocateUserMemory",
                  address);
    }
    region->Release();
}

}  // namespace platform
