// The object manager: typed, reference-counted, possibly named objects, and handle tables.
//
// An object is a body (any C++ type, or a structure that kernel code sees) behind a header that the
// object manager owns; kernel code holds the body's address.
#pragma once

#include <wdm.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace platform {

class Process;

struct GenericMapping {
    ACCESS_MASK read, write, execute, all;
};

/// What the object manager knows of a type of objects. Types are static and never go away.
struct ObjectType {
    const char* name;
    GenericMapping mapping;
    ACCESS_MASK validAccess;
    /// Destroys the body; called once, after the last reference, at PASSIVE_LEVEL.
    void (*destroy)(void* body);
    /// Called when a handle has been taken out of its table, before its reference is given back;
    /// `process` owned the handle (null: kernel). `lastOfProcess`, `lastOfAll`: no other handle to
    /// the object is left. Null: nothing to do.
    void (*close)(void* body, Process* process, bool lastOfProcess, bool lastOfAll) = nullptr;
    /// Called when a handle is to be closed, by a call or by process exit: takes it out of its
    /// table by `closeIt(argument)`, once; a key raises its close notifications around that. Null:
    /// just close.
    void (*closing)(void* body, void (*closeIt)(void*), void* argument) = nullptr;
    /// The object's full name; false when it has none. Null: the name in the header.
    bool (*queryName)(void* body, std::u16string& name) = nullptr;

    /// Live objects and handles; kept by the object manager.
    struct Population {
        std::atomic<long> objects{0};
        std::atomic<long> handles{0};
        std::atomic<bool> listed{false};
    };
    mutable Population population{};
};

/// Memory for a body, aligned to 16 bytes, behind a header with one reference.
void* AllocateObject(const ObjectType& type, std::size_t bodySize);
/// For a body whose constructor failed: drops header and memory without the destroy routine.
void FreeUnconstructedObject(void* body);

/// A new object with one reference.
template <typename T, typename... Arguments>
T* CreateObject(const ObjectType& type, Arguments&&... arguments) {
    static_assert(alignof(T) <= 16, "bodies are aligned to 16 bytes");
    void* memory = AllocateObject(type, sizeof(T));
    try {
        return new (memory) T(std::forward<Arguments>(arguments)...);
    } catch (...) {
        FreeUnconstructedObject(memory);
        throw;
    }
}

/// Referencing something that is not an object, or whose last reference is gone, stops the machine
/// (kObjectBadReference), whether the verifier is on or not. Both return the count that is left.
long ReferenceObject(void* body);
/// May run the type's destroy routine; above PASSIVE_LEVEL that is left to a system worker.
long DereferenceObject(void* body);
const ObjectType* TypeOf(void* body);
long ReferenceCount(void* body);
/// The object's full name; false when it has none.
bool QueryObjectName(void* body, std::u16string& name);

/// Owns one reference.
template <typename T>
class ObjectRef {
public:
    ObjectRef() = default;
    /// Takes over the caller's reference.
    static ObjectRef Adopt(T* object) {
        ObjectRef ref;
        ref.object_ = object;
        return ref;
    }
    explicit ObjectRef(T* object) : object_(object) {
        if (object_ != nullptr) ReferenceObject(object_);
    }
    ObjectRef(const ObjectRef& other) : ObjectRef(other.object_) {}
    ObjectRef(ObjectRef&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    ObjectRef& operator=(ObjectRef other) noexcept {
        std::swap(object_, other.object_);
        return *this;
    }
    ~ObjectRef() {
        if (object_ != nullptr) DereferenceObject(object_);
    }
    T* get() const { return object_; }
    T* operator->() const { return object_; }
    T& operator*() const { return *object_; }
    explicit operator bool() const { return object_ != nullptr; }
    /// Gives the reference to the caller.
    T* release() { return std::exchange(object_, nullptr); }

private:
    T* object_ = nullptr;
};

// --- The name space: directories and symbolic links, e.g. \Device\zpregflt, \??\zpregflt ---------
//
// Directories are \Device, \Driver, \BaseNamedObjects and \??, which is also called \DosDevices.
// Case does not matter. The registry is not part of this name space.

/// Enters the object under its absolute name, which becomes the object's name; the name space keeps
/// a reference until RemoveName. STATUS_OBJECT_NAME_COLLISION when taken,
/// STATUS_OBJECT_PATH_NOT_FOUND when there is no such directory.
NTSTATUS InsertNamedObject(void* body, std::u16string_view path);
/// A symbolic link in the name space, e.g. \DosDevices\x -> \Device\x. The target need not exist.
NTSTATUS InsertNameLink(std::u16string_view path, std::u16string_view target);
/// Removes the object or link of this name itself; nothing happens when there is none.
void RemoveName(std::u16string_view path);
/// Forgets every name but the directories, after a machine was stopped. The name space's references
/// to the objects are not given back, since destroying them may need drivers.
void ForgetNames();
/// Finds the object, following links; the reference is the caller's.
NTSTATUS LookupNamedObject(std::u16string_view path, void** body);

// --- Handles -------------------------------------------------------------------------------------

/// Opens a handle in the current process's table, or in the kernel's with OBJ_KERNEL_HANDLE in
/// `attributes`. `granted` has no generic bits any more.
NTSTATUS CreateHandle(void* body, ACCESS_MASK granted, ULONG attributes, HANDLE* handle);
/// The object behind the handle with a reference. Checks type (null: any) and, for UserMode, that
/// the handle is not the kernel's and has `desired` granted.
NTSTATUS ReferenceHandle(HANDLE handle, ACCESS_MASK desired, const ObjectType* type,
                         KPROCESSOR_MODE mode, void** body, ACCESS_MASK* granted = nullptr);
template <typename T>
NTSTATUS ReferenceHandle(HANDLE handle, ACCESS_MASK desired, const ObjectType& type,
                         KPROCESSOR_MODE mode, ObjectRef<T>& object,
                         ACCESS_MASK* granted = nullptr) {
    void* body = nullptr;
    const NTSTATUS status = ReferenceHandle(handle, desired, &type, mode, &body, granted);
    if (NT_SUCCESS(status)) object = ObjectRef<T>::Adopt(static_cast<T*>(body));
    return status;
}
/// Runs the type's `closing` around the removal of the handle, then its `close`, and gives back the
/// handle's reference. Kernel mode closes handles of the kernel and of the current process.
NTSTATUS CloseHandle(HANDLE handle, KPROCESSOR_MODE mode);
/// Closes every handle of `process`, which must be the current one, but those to objects of type
/// `spared`.
void CloseAllHandles(Process& process, const ObjectType* spared = nullptr);
/// Closes the handles of the kernel's table likewise, for the end of a machine.
void CloseKernelHandles(const ObjectType* spared = nullptr);
/// Whether the handle's value is one of the kernel's table.
bool IsKernelHandle(HANDLE handle);

/// Expands generic bits by the mapping and MAXIMUM_ALLOWED to everything that the type allows.
ACCESS_MASK MapAccess(ACCESS_MASK desired, const ObjectType& type);

/// For the leak checks: live objects and handles, per type.
struct ObjectCensus {
    std::string type;
    long objects;
    long handles;
};
std::vector<ObjectCensus> TakeObjectCensus();

}  // namespace platform
