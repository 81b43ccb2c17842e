// Owning handles: one for each kind of reference and block that the driver holds.
#pragma once

#include <utility>

#include "driver/driver_state.h"
#include "intercept/contexts.h"
#include "supportlib/zpklib.h"

namespace zpregflt {

/// Owns one reference to (or block of) a T, given back by Release::Give.
template <typename T, typename Release>
class [[nodiscard]] Reference {
public:
    Reference() = default;
    /// Takes over the caller's reference.
    explicit Reference(T* object) : object_(object) {}
    Reference(Reference&& other) noexcept : object_(other.Detach()) {}
    Reference& operator=(Reference&& other) noexcept {
        Reset(other.Detach());
        return *this;
    }
    ~Reference() { Reset(nullptr); }

    T* Get() const { return object_; }
    T* operator->() const { return object_; }
    T& operator*() const { return *object_; }
    explicit operator bool() const { return object_ != nullptr; }

    /// Moves the reference to the caller.
    T* Detach() { return std::exchange(object_, nullptr); }
    void Reset(T* object = nullptr) {
        if (object_ != nullptr) {
            Release::Give(object_);
        }
        object_ = object;
    }
    /// For functions that return a reference through a pointer.
    T** Receive() {
        Reset();
        return &object_;
    }
    PVOID* ReceiveBlock() { return reinterpret_cast<PVOID*>(Receive()); }

private:
    T* object_ = nullptr;
};

struct ReleaseProcessRecord {
    static void Give(ProcessRecord* record) { ZPkPsRelease(record); }
};
struct ReleaseProcessContext {
    static void Give(ProcessContext* context) { ZPkPsReleaseContext(context); }
};
struct ReleaseKeyNode {
    static void Give(ZPK_NODE* node) { ZPkDtReleaseNode(State.KeyTree, node); }
};
struct ReleaseKeyEntry {
    static void Give(KeyEntry* entry) { ZPkDtReleaseContext(entry); }
};
struct DereferenceObject {
    static void Give(PVOID object) { ObfDereferenceObject(object); }
};
template <ULONG Tag>
struct FreePoolBlock {
    static void Give(PVOID block) { ExFreePoolWithTag(block, Tag); }
};

using ProcessRecordRef = Reference<ProcessRecord, ReleaseProcessRecord>;
using ProcessContextRef = Reference<ProcessContext, ReleaseProcessContext>;
using KeyNodeRef = Reference<ZPK_NODE, ReleaseKeyNode>;
using KeyEntryRef = Reference<KeyEntry, ReleaseKeyEntry>;
struct FileObject;  ///< the object manager's; never looked into
using FileObjectRef = Reference<FileObject, DereferenceObject>;
template <typename T, ULONG Tag>
using PoolBlock = Reference<T, FreePoolBlock<Tag>>;

}  // namespace zpregflt
