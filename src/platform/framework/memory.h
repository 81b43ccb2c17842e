// Memory objects: here always a locked buffer of the sender of a request.
#pragma once

#include "platform/framework/object.h"
#include "platform/kernel/io.h"

#include <memory>

namespace platform::framework {

class Memory final : public Object {
public:
    static constexpr ObjectKind kKind = ObjectKind::kMemory;

    /// A child of `request`; STATUS_DELETE_PENDING when that is ending.
    static NTSTATUS Create(Object& request, std::unique_ptr<LockedPages> pages, Memory** memory);

    void* Buffer() const { return pages_->SystemAddress(); }
    std::size_t Size() const { return pages_->Length(); }
    bool IsLocked() const { return pages_ != nullptr; }

protected:
    bool NeedsPassive() const override { return false; }
    void Retire() override { pages_.reset(); }

private:
    Memory(Binding& owner, std::unique_ptr<LockedPages> pages);
    ~Memory() override = default;

    std::unique_ptr<LockedPages> pages_;
};

}  // namespace platform::framework
