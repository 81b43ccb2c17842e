// Framework handles: opaque values that name an object as long as it exists.
//
// A handle is a slot number and the slot's generation behind a tag that makes the value no address,
// so that a driver which looks inside a handle faults, and a handle that outlived its object is
// told from the slot's next user.
#pragma once

#include "platform/framework/object_kind.h"

#include <string>

namespace platform::framework {

class Binding;
class Object;

/// Gives the object a handle; stops the machine when a million objects are alive.
void* AllocateHandle(Object& object);
/// The handle is stale from here on.
void FreeHandle(void* handle);

/// The live object behind the handle or null. Takes no lock.
Object* FindObject(const void* handle);

/// What a handle without an object was, for messages.
struct StaleHandle {
    bool wasHandle = false;  ///< it named an object once
    ObjectKind kind{};       ///< of that object; known while the slot has no newer user
    bool kindKnown = false;
};
StaleHandle DescribeStale(const void* handle);

/// One line an object of the driver that is still alive, for leak reports.
std::string ListObjects(const Binding& binding);

}  // namespace platform::framework
