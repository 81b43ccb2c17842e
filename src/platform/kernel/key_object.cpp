#include "platform/kernel/key_object.h"

#include "platform/kernel/callback_registration.h"
#include "platform/kernel/registry_callbacks.h"

#include <shared_mutex>

namespace platform {
namespace {

void DestroyKey(void* body) {
    auto* key = static_cast<KeyObject*>(body);
    CallbackRegistration::CleanUpContextsOf(*key);
    key->~KeyObject();
}

/// Every close of a handle is told of, whether user mode, the kernel or the end of a process closes
/// it. The object stays until both notifications are over; only then its contexts are cleaned up.
void ClosingKey(void* body, void (*closeIt)(void*), void* argument) {
    const ObjectRef<KeyObject> key(static_cast<KeyObject*>(body));
    REG_KEY_HANDLE_CLOSE_INFORMATION information{key.get(), nullptr, nullptr, nullptr};
    Notification notification{RegNtPreKeyHandleClose,   RegNtPostKeyHandleClose,    &information,
                              &information.CallContext, &information.ObjectContext, key.get()};
    notification.unstoppable = true;
    NotifyAround(notification, [&] {
        closeIt(argument);
        return STATUS_SUCCESS;
    });
}

bool QueryKeyFullName(void* body, std::u16string& name) {
    const std::shared_lock guard(RegistryTree().lock);
    const KeyNode& node = static_cast<KeyObject*>(body)->Node();
    if (node.IsDeleted()) return false;
    name = node.FullName();
    return true;
}

constexpr ACCESS_MASK kKeyExecute = KEY_READ;

}  // namespace

const ObjectType kKeyType{
    "Key",
    {KEY_READ, KEY_WRITE, kKeyExecute, KEY_ALL_ACCESS},
    KEY_ALL_ACCESS | SYNCHRONIZE,
    DestroyKey,
    nullptr,
    ClosingKey,
    QueryKeyFullName,
};

KeyObject::~KeyObject() {
    for (ObjectContext* context = FirstContext(); context != nullptr;) {
        delete std::exchange(context, context->nextOfObject);
    }
}

ObjectContext* KeyObject::FindContext(std::uint64_t cookie) const {
    ObjectContext* context = FirstContext();
    while (context != nullptr && context->registration->Cookie() != cookie) {
        context = context->nextOfObject;
    }
    return context;
}

void* KeyObject::Context(std::uint64_t cookie) const {
    const ObjectContext* context = FindContext(cookie);
    return context != nullptr ? context->value.load(std::memory_order_acquire) : nullptr;
}

void KeyObject::AddContext(ObjectContext& context) {
    ObjectContext* first = contexts_.load(std::memory_order_relaxed);
    do {
        context.nextOfObject = first;
    } while (!contexts_.compare_exchange_weak(first, &context, std::memory_order_release,
                                              std::memory_order_relaxed));
}

}  // namespace platform

namespace {
POBJECT_TYPE keyObjectType =
    reinterpret_cast<POBJECT_TYPE>(const_cast<platform::ObjectType*>(&platform::kKeyType));
}  // namespace
POBJECT_TYPE* CmKeyObjectType = &keyObjectType;
