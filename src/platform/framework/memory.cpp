#include "platform/framework/memory.h"

namespace platform::framework {

Memory::Memory(Binding& owner, std::unique_ptr<LockedPages> pages)
    : Object(owner, kKind), pages_(std::move(pages)) {}

NTSTATUS Memory::Create(Object& request, std::unique_ptr<LockedPages> pages, Memory** memory) {
    auto* made = new Memory(request.Owner(), std::move(pages));
    const NTSTATUS status = made->Join(nullptr, &request);
    if (!NT_SUCCESS(status)) {
        made->Abandon();
        return status;
    }
    *memory = made;
    return STATUS_SUCCESS;
}

}  // namespace platform::framework
