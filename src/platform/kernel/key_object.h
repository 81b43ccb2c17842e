// An open key: what a handle of type "Key" stands for.
//
// Every create or open makes one of its own; duplicated handles share it. It carries one context
// for each registered callback that attached one (CmSetCallbackObjectContext).
#pragma once

#include "platform/kernel/key_tree.h"
#include "platform/kernel/object.h"
#include "platform/kernel/registry.h"

#include <atomic>
#include <cstdint>
#include <utility>

namespace platform {

struct ObjectContext;

class KeyObject {
public:
    explicit KeyObject(KeyNodeRef node) : node_(std::move(node)) {}
    ~KeyObject();
    KeyObject(const KeyObject&) = delete;
    KeyObject& operator=(const KeyObject&) = delete;

    /// Guarded by the tree's lock.
    KeyNode& Node() const { return *node_; }

    /// What KeySetHandleTagsInformation set.
    ULONG HandleTags() const { return handleTags_.load(std::memory_order_relaxed); }
    void SetHandleTags(ULONG tags) { handleTags_.store(tags, std::memory_order_relaxed); }

    /// The context that the callback of this cookie attached; null when it attached none. Any
    /// thread, without a lock.
    void* Context(std::uint64_t cookie) const;

    /// For the registration, under its context lock.
    ObjectContext* FindContext(std::uint64_t cookie) const;
    ObjectContext* FirstContext() const { return contexts_.load(std::memory_order_acquire); }
    /// Takes ownership.
    void AddContext(ObjectContext& context);

private:
    KeyNodeRef node_;
    std::atomic<ULONG> handleTags_{0};
    /// Only grows while the object lives, so that readers need no lock.
    std::atomic<ObjectContext*> contexts_{nullptr};
};

/// The permanent object for \REGISTRY: what absolute names are relative to.
KeyObject& RegistryRootObject();

}  // namespace platform
