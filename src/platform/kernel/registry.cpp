#include "platform/kernel/registry.h"

#include "platform/kernel/key_object.h"
#include "platform/kernel/key_security.h"
#include "platform/kernel/key_tree.h"
#include "platform/kernel/registry_callbacks.h"

#include <memory>

namespace platform {
namespace {

struct Registry {
    KeyTree tree;
    ObjectRef<KeyObject> rootObject;
};
std::unique_ptr<Registry> registry;

}  // namespace

KeyTree& RegistryTree() {
    return registry->tree;
}

KeyObject& RegistryRootObject() {
    return *registry->rootObject;
}

void InitializeRegistry() {
    registry = std::make_unique<Registry>();
    constexpr KeyNode::Kind kPermanent{.isPermanent = true};
    registry->tree.root = std::make_shared<KeyNode>(u"REGISTRY", kPermanent);
    registry->tree.root->SetSecurity(KeySecurity::OfRegistryRoot());
    registry->tree.root->AddSubkey(u"MACHINE", kPermanent);
    registry->tree.root->AddSubkey(u"USER", kPermanent);
    registry->rootObject =
        ObjectRef<KeyObject>::Adopt(CreateObject<KeyObject>(kKeyType, registry->tree.root));
}

void DestroyRegistry() {
    registry->rootObject = {};  // while its callbacks can still be told
    DropRegistryCallbacks();
    registry.reset();
}

}  // namespace platform
