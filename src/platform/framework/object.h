// The base of all framework objects: handle, references, place in the object tree, contexts and the
// two phases of an object's end.
//
// Deleting an object disposes it: its children first, in the order of their creation, then the
// object itself (it comes to rest, cleanup callbacks run, it leaves its parent). The object is
// destroyed with its last reference: destroy callbacks run, the contexts and the handle go. A child
// keeps its parent from being destroyed. No lock is held while the driver is called.
#pragma once

#include "platform/framework/object_kind.h"

#include <wdf.h>

#include <atomic>
#include <condition_variable>
#include <list>
#include <mutex>
#include <string>
#include <utility>

namespace platform::framework {

class Binding;
class Device;

enum class ParentRule { kForbidden, kOptional, kRequired };

/// Whether attributes (null: none) are well formed and name a parent only where one is allowed.
NTSTATUS ValidateAttributes(const WDF_OBJECT_ATTRIBUTES* attributes, ParentRule parent);

struct ContextHeader;

class Object {
public:
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;

    ObjectKind Kind() const { return kind_; }
    Binding& Owner() const { return owner_; }
    void* Handle() const { return handle_; }
    Object* Parent() const { return parent_; }
    WDF_EXECUTION_LEVEL Level() const { return level_; }
    WDF_SYNCHRONIZATION_SCOPE Scope() const { return scope_; }
    /// The device that is this object or above it; null when there is none.
    virtual Device* NearestDevice();
    /// Kind, handle and references, for messages.
    std::string Describe() const;

    /// The framework's own references.
    void AddReference() { references_.fetch_add(1, std::memory_order_relaxed); }
    void Dereference();
    /// The driver's; giving back more than was taken is a violation.
    void AddDriverReference();
    void DropDriverReference(const char* function);
    long DriverReferences() const { return driverReferences_.load(std::memory_order_relaxed); }

    /// Disposes and drops the creation reference; false when somebody else did or does. Above
    /// PASSIVE_LEVEL an object whose disposal may wait is left to a system worker.
    bool Delete();
    /// False for objects that only the framework deletes.
    virtual bool DriverMayDelete() const { return false; }
    /// What WdfObjectDelete does; false when the object was deleted before.
    virtual bool DeleteByDriver() { return Delete(); }

    /// STATUS_OBJECT_NAME_EXISTS (a success) with the existing context when the type is there
    /// already; STATUS_DELETE_PENDING when the object is being deleted.
    NTSTATUS AddContext(const WDF_OBJECT_ATTRIBUTES& attributes, void** context);
    /// Null when the object has no context of the type. Takes no lock.
    void* FindContext(const WDF_OBJECT_CONTEXT_TYPE_INFO& type) const;
    /// The object that a context belongs to; null when the address is no context.
    static Object* FromContext(void* context);

protected:
    Object(Binding& owner, ObjectKind kind);
    virtual ~Object();

    /// Adopts valid attributes and joins the parent (null: the top of the tree). On failure the
    /// caller abandons the object. `Status` of a parent that is being deleted:
    /// STATUS_DELETE_PENDING.
    NTSTATUS Join(const WDF_OBJECT_ATTRIBUTES* attributes, Object* parent);
    /// The end of an object that the driver never saw, joined or not: no callback runs.
    void Abandon();

    /// Whether disposing or destroying may wait and hence needs PASSIVE_LEVEL.
    virtual bool NeedsPassive() const { return true; }
    /// Steps of disposal: before the children go, after they went, and after the cleanup callbacks.
    virtual void BeginDisposal() {}
    virtual void ComeToRest() {}
    virtual void Retire() {}

    void DisposeChildren();
    template <typename Action>
    void ForEachChild(Action action) {
        std::scoped_lock guard(lock_);
        for (Object* child : children_)
            action(*child);
    }

private:
    NTSTATUS AddChild(Object& child);
    void LeaveParent();
    void Dispose();
    void Destroy();
    void RunCleanupCallbacks();
    void RunDestroyCallbacks();

    Binding& owner_;
    const ObjectKind kind_;
    void* handle_;
    Object* parent_ = nullptr;  // holds a reference; fixed once joined
    WDF_EXECUTION_LEVEL level_ = WdfExecutionLevelDispatch;
    WDF_SYNCHRONIZATION_SCOPE scope_ = WdfSynchronizationScopeNone;

    std::atomic<long> references_{1};
    std::atomic<long> driverReferences_{0};
    std::atomic<bool> deleting_{false};
    bool abandoned_ = false;

    std::mutex lock_;  // guards the children, closed_ and appending to the contexts
    std::condition_variable childLeft_;
    std::list<Object*> children_;
    std::list<Object*>::iterator place_;  // in the parent's list, guarded by the parent's lock
    bool linked_ = false;                 // likewise
    bool closed_ = false;                 // takes no children any more
    bool contextsClosed_ = false;         // takes no contexts any more
    std::atomic<ContextHeader*> firstContext_{nullptr};
};

/// Owns one of the framework's references.
template <typename T>
class ObjectPtr {
public:
    ObjectPtr() = default;
    explicit ObjectPtr(T* object) : object_(object) {
        if (object_ != nullptr) object_->AddReference();
    }
    ObjectPtr(const ObjectPtr& other) : ObjectPtr(other.object_) {}
    ObjectPtr(ObjectPtr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    ObjectPtr& operator=(ObjectPtr other) noexcept {
        std::swap(object_, other.object_);
        return *this;
    }
    ~ObjectPtr() {
        // The analyzer does not follow counts: it takes some other reference's end for the last.
        // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDelete)
        if (object_ != nullptr) object_->Dereference();
    }
    T* get() const { return object_; }
    T* operator->() const { return object_; }
    T& operator*() const { return *object_; }
    explicit operator bool() const { return object_ != nullptr; }

private:
    T* object_ = nullptr;
};

}  // namespace platform::framework
