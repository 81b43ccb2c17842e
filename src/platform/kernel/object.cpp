#include "platform/kernel/object.h"

#include "platform/kernel/object_header.h"
#include "platform/kernel/process.h"
#include "platform/kernel/verifier.h"

#include <mutex>

namespace platform {

namespace {

/// Every type of which there ever was an object.
struct TypeList {
    std::mutex lock;
    std::vector<const ObjectType*> types;
};

TypeList& KnownTypes() {
    static TypeList list;
    return list;
}

void ListType(const ObjectType& type) {
    if (type.population.listed.exchange(true)) return;
    TypeList& known = KnownTypes();
    const std::lock_guard guard(known.lock);
    known.types.push_back(&type);
}

void FreeObject(ObjectHeader& header) {
    header.type->population.objects.fetch_sub(1, std::memory_order_relaxed);
    header.magic = ObjectHeader::kDead;
    header.~ObjectHeader();
    ::operator delete(&header);
}

void DestroyObject(ObjectHeader& header) {
    header.type->destroy(&header + 1);
    FreeObject(header);
}

[[noreturn]] void BadReference(const ObjectHeader& header, const char* routine) {
    Violation(Rule::kObjectBadReference,
              std::string(routine) + ": the last reference of this " + header.type->name +
                  " object is gone",
              &header + 1);
}

}  // namespace

ObjectHeader& HeaderOf(void* body, const char* routine) {
    if (body == nullptr) {
        Violation(Rule::kObjectBadReference, std::string(routine) + ": null is not an object");
    }
    ObjectHeader& header = static_cast<ObjectHeader*>(body)[-1];
    if (header.magic != ObjectHeader::kLive) {
        Violation(Rule::kObjectBadReference,
                  std::string(routine) + (header.magic == ObjectHeader::kDead
                                              ? ": the object was destroyed"
                                              : ": the address is not an object's"),
                  body);
    }
    return header;
}

void* AllocateObject(const ObjectType& type, std::size_t bodySize) {
    if (!type.population.listed.load(std::memory_order_acquire)) ListType(type);
    void* memory = ::operator new(sizeof(ObjectHeader) + bodySize);
    auto* header = new (memory) ObjectHeader(type);
    type.population.objects.fetch_add(1, std::memory_order_relaxed);
    return header + 1;
}

void FreeUnconstructedObject(void* body) {
    FreeObject(HeaderOf(body, "FreeUnconstructedObject"));
}

long ReferenceObject(void* body) {
    ObjectHeader& header = HeaderOf(body, "ObfReferenceObject");
    const long before = header.references.fetch_add(1, std::memory_order_relaxed);
    if (before <= 0) BadReference(header, "ObfReferenceObject");
    return before + 1;
}

long DereferenceObject(void* body) {
    ObjectHeader& header = HeaderOf(body, "ObfDereferenceObject");
    // Release: what this holder did to the body comes before its destruction; acquire: the one who
    // destroys sees what all others did.
    const long before = header.references.fetch_sub(1, std::memory_order_acq_rel);
    if (before > 1) return before - 1;
    if (before <= 0) BadReference(header, "ObfDereferenceObject");
    if (currentIrql > PASSIVE_LEVEL) {
        QueueSystemWork([&header] { DestroyObject(header); });
    } else {
        DestroyObject(header);
    }
    return 0;
}

const ObjectType* TypeOf(void* body) {
    return HeaderOf(body, "TypeOf").type;
}

long ReferenceCount(void* body) {
    return HeaderOf(body, "ReferenceCount").references.load(std::memory_order_relaxed);
}

bool QueryObjectName(void* body, std::u16string& name) {
    const ObjectHeader& header = HeaderOf(body, "ObQueryNameString");
    if (header.type->queryName != nullptr) return header.type->queryName(body, name);
    name = header.name;
    return !name.empty();
}

ACCESS_MASK MapAccess(ACCESS_MASK desired, const ObjectType& type) {
    constexpr ACCESS_MASK kGeneric =
        GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL | MAXIMUM_ALLOWED;
    ACCESS_MASK mapped = desired & ~kGeneric;
    if ((desired & GENERIC_READ) != 0) mapped |= type.mapping.read;
    if ((desired & GENERIC_WRITE) != 0) mapped |= type.mapping.write;
    if ((desired & GENERIC_EXECUTE) != 0) mapped |= type.mapping.execute;
    if ((desired & GENERIC_ALL) != 0) mapped |= type.mapping.all;
    if ((desired & MAXIMUM_ALLOWED) != 0) mapped |= type.validAccess;
    return mapped;
}

std::vector<ObjectCensus> TakeObjectCensus() {
    TypeList& known = KnownTypes();
    const std::lock_guard guard(known.lock);
    std::vector<ObjectCensus> census;
    for (const ObjectType* type : known.types) {
        census.push_back({type->name, type->population.objects.load(std::memory_order_relaxed),
                          type->population.handles.load(std::memory_order_relaxed)});
    }
    return census;
}

}  // namespace platform
