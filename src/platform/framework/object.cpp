#include "platform/framework/object.h"

#include "platform/framework/binding.h"
#include "platform/framework/handle_table.h"
#include "platform/kernel/verifier.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <new>

namespace platform::framework {

/// In front of every context. Contexts are appended and stay until the object is destroyed, hence
/// readers follow the chain without the lock.
struct alignas(16) ContextHeader {
    static constexpr std::uint64_t kMagic = 0x7478746E6F434657;

    std::uint64_t magic = kMagic;
    Object* object;
    const WDF_OBJECT_CONTEXT_TYPE_INFO* type;  // UniqueType; null: callbacks only
    EVT_WDF_OBJECT_CONTEXT_CLEANUP* cleanup;
    EVT_WDF_OBJECT_CONTEXT_DESTROY* destroy;
    std::atomic<ContextHeader*> next{nullptr};

    void* Memory() { return this + 1; }
};

namespace {

bool IsValidContextType(const WDF_OBJECT_ATTRIBUTES& attributes) {
    const WDF_OBJECT_CONTEXT_TYPE_INFO* type = attributes.ContextTypeInfo;
    if (type == nullptr) return attributes.ContextSizeOverride == 0;
    if (type->Size != sizeof(*type) || type->UniqueType == nullptr) return false;
    return attributes.ContextSizeOverride == 0 ||
           attributes.ContextSizeOverride >= type->ContextSize;
}

ContextHeader* MakeContext(Object& object, const WDF_OBJECT_ATTRIBUTES& attributes) {
    const WDF_OBJECT_CONTEXT_TYPE_INFO* type = attributes.ContextTypeInfo;
    const std::size_t size =
        type == nullptr ? 0 : std::max(type->ContextSize, attributes.ContextSizeOverride);
    void* memory = ::operator new(sizeof(ContextHeader) + size);
    auto* header = new (memory) ContextHeader{.object = &object,
                                              .type = type == nullptr ? nullptr : type->UniqueType,
                                              .cleanup = attributes.EvtCleanupCallback,
                                              .destroy = attributes.EvtDestroyCallback};
    std::fill_n(static_cast<std::byte*>(header->Memory()), size, std::byte{0});
    return header;
}

}  // namespace

NTSTATUS ValidateAttributes(const WDF_OBJECT_ATTRIBUTES* attributes, ParentRule parent) {
    if (attributes == nullptr) {
        return parent == ParentRule::kRequired ? STATUS_WDF_PARENT_NOT_SPECIFIED : STATUS_SUCCESS;
    }
    if (attributes->Size != sizeof(*attributes)) return STATUS_INFO_LENGTH_MISMATCH;
    if (attributes->ExecutionLevel < WdfExecutionLevelInheritFromParent ||
        attributes->ExecutionLevel > WdfExecutionLevelDispatch) {
        return STATUS_WDF_EXECUTION_LEVEL_INVALID;
    }
    if (attributes->SynchronizationScope < WdfSynchronizationScopeInheritFromParent ||
        attributes->SynchronizationScope > WdfSynchronizationScopeNone) {
        return STATUS_WDF_SYNCHRONIZATION_SCOPE_INVALID;
    }
    if (parent == ParentRule::kForbidden && attributes->ParentObject != nullptr) {
        return STATUS_WDF_PARENT_ASSIGNMENT_NOT_ALLOWED;
    }
    if (parent == ParentRule::kRequired && attributes->ParentObject == nullptr) {
        return STATUS_WDF_PARENT_NOT_SPECIFIED;
    }
    return IsValidContextType(*attributes) ? STATUS_SUCCESS : STATUS_WDF_OBJECT_ATTRIBUTES_INVALID;
}

Object::Object(Binding& owner, ObjectKind kind)
    : owner_(owner), kind_(kind), handle_(AllocateHandle(*this)) {
    owner_.ObjectCreated();
}

Object::~Object() {
    ContextHeader* header = firstContext_.load(std::memory_order_relaxed);
    while (header != nullptr) {
        ContextHeader* next = header->next.load(std::memory_order_relaxed);
        header->magic = 0;
        header->~ContextHeader();
        ::operator delete(header);
        header = next;
    }
}

Device* Object::NearestDevice() {
    return parent_ == nullptr ? nullptr : parent_->NearestDevice();
}

std::string Object::Describe() const {
    char text[96];
    std::snprintf(text, sizeof(text), "%s 0x%llx (references %ld, of which the driver's %ld)",
                  KindName(kind_),
                  static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(handle_)),
                  references_.load(std::memory_order_relaxed),
                  driverReferences_.load(std::memory_order_relaxed));
    return text;
}

// --- References ----------------------------------------------------------------------------------

void Object::AddDriverReference() {
    driverReferences_.fetch_add(1, std::memory_order_relaxed);
    owner_.CountDriverReference(1);
    AddReference();
}

void Object::DropDriverReference(const char* function) {
    if (driverReferences_.fetch_sub(1, std::memory_order_relaxed) <= 0) {
        Violation(Rule::kObjectBadReference,
                  std::string(function) + ": the driver holds no reference on " + Describe(),
                  handle_);
    }
    owner_.CountDriverReference(-1);
    Dereference();
}

void Object::Dereference() {
    if (references_.fetch_sub(1, std::memory_order_acq_rel) > 1) return;
    if (NeedsPassive()) {
        owner_.RunAtPassive([this] { Destroy(); });
    } else {
        Destroy();
    }
}

void Object::Destroy() {
    if (!abandoned_) RunDestroyCallbacks();
    FreeHandle(handle_);
    Binding& owner = owner_;
    Object* parent = parent_;
    delete this;
    owner.ObjectDestroyed();
    if (parent != nullptr) parent->Dereference();
}

void Object::Abandon() {
    abandoned_ = true;
    LeaveParent();
    Dereference();
}

// --- The tree ------------------------------------------------------------------------------------

NTSTATUS Object::Join(const WDF_OBJECT_ATTRIBUTES* attributes, Object* parent) {
    if (parent != nullptr) {
        level_ = parent->level_;
        scope_ = parent->scope_;
    }
    if (attributes != nullptr) {
        if (attributes->ExecutionLevel != WdfExecutionLevelInheritFromParent) {
            level_ = attributes->ExecutionLevel;
        }
        if (attributes->SynchronizationScope != WdfSynchronizationScopeInheritFromParent) {
            scope_ = attributes->SynchronizationScope;
        }
        if (attributes->ContextTypeInfo != nullptr || attributes->EvtCleanupCallback != nullptr ||
            attributes->EvtDestroyCallback != nullptr) {
            AddContext(*attributes, nullptr);
        }
    }
    return parent == nullptr ? STATUS_SUCCESS : parent->AddChild(*this);
}

NTSTATUS Object::AddChild(Object& child) {
    std::scoped_lock guard(lock_);
    if (closed_) return STATUS_DELETE_PENDING;
    child.place_ = children_.insert(children_.end(), &child);
    child.linked_ = true;
    child.parent_ = this;
    AddReference();
    return STATUS_SUCCESS;
}

void Object::LeaveParent() {
    if (parent_ == nullptr) return;
    std::scoped_lock guard(parent_->lock_);
    if (!linked_) return;
    parent_->children_.erase(place_);
    linked_ = false;
    parent_->childLeft_.notify_all();
}

void Object::DisposeChildren() {
    std::unique_lock guard(lock_);
    closed_ = true;
    while (!children_.empty()) {
        ObjectPtr<Object> child(children_.front());
        guard.unlock();
        child->Delete();
        guard.lock();
        // Another thread, or a system worker, may be at it.
        childLeft_.wait(guard, [&] { return !child->linked_; });
        guard.unlock();
        child = ObjectPtr<Object>();  // may destroy it
        guard.lock();
    }
}

bool Object::Delete() {
    if (deleting_.exchange(true)) return false;
    if (NeedsPassive()) {
        owner_.RunAtPassive([this] { Dispose(); });
    } else {
        Dispose();
    }
    return true;
}

void Object::Dispose() {
    BeginDisposal();
    DisposeChildren();
    ComeToRest();
    RunCleanupCallbacks();
    Retire();
    LeaveParent();
    Dereference();
}

// --- Contexts ------------------------------------------------------------------------------------

NTSTATUS Object::AddContext(const WDF_OBJECT_ATTRIBUTES& attributes, void** context) {
    std::scoped_lock guard(lock_);
    if (contextsClosed_) return STATUS_DELETE_PENDING;
    std::atomic<ContextHeader*>* link = &firstContext_;
    while (ContextHeader* header = link->load(std::memory_order_relaxed)) {
        if (attributes.ContextTypeInfo != nullptr &&
            header->type == attributes.ContextTypeInfo->UniqueType) {
            if (context != nullptr) *context = header->Memory();
            return STATUS_OBJECT_NAME_EXISTS;
        }
        link = &header->next;
    }
    ContextHeader* header = MakeContext(*this, attributes);
    if (context != nullptr) *context = header->Memory();
    link->store(header, std::memory_order_release);
    return STATUS_SUCCESS;
}

void* Object::FindContext(const WDF_OBJECT_CONTEXT_TYPE_INFO& type) const {
    for (ContextHeader* header = firstContext_.load(std::memory_order_acquire); header != nullptr;
         header = header->next.load(std::memory_order_acquire)) {
        if (header->type != nullptr && header->type == type.UniqueType) return header->Memory();
    }
    return nullptr;
}

Object* Object::FromContext(void* context) {
    const auto* header = static_cast<ContextHeader*>(context) - 1;
    return header->magic == ContextHeader::kMagic ? header->object : nullptr;
}

void Object::RunCleanupCallbacks() {
    {
        std::scoped_lock guard(lock_);
        contextsClosed_ = true;
    }
    for (ContextHeader* header = firstContext_.load(std::memory_order_acquire); header != nullptr;
         header = header->next.load(std::memory_order_acquire)) {
        if (header->cleanup == nullptr) continue;
        CallbackCheck check("EvtCleanupCallback");
        header->cleanup(handle_);
    }
}

void Object::RunDestroyCallbacks() {
    for (ContextHeader* header = firstContext_.load(std::memory_order_acquire); header != nullptr;
         header = header->next.load(std::memory_order_acquire)) {
        if (header->destroy == nullptr) continue;
        CallbackCheck check("EvtDestroyCallback");
        header->destroy(handle_);
    }
}

}  // namespace platform::framework
