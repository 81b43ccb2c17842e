// The kinds of framework objects, and their handle types' names for messages.
#pragma once

#include <cstdint>

namespace platform::framework {

enum class ObjectKind : std::uint8_t { kDriver, kDevice, kQueue, kRequest, kMemory, kWorkItem };

inline const char* KindName(ObjectKind kind) {
    switch (kind) {
        case ObjectKind::kDriver:
            return "WDFDRIVER";
        case ObjectKind::kDevice:
            return "WDFDEVICE";
        case ObjectKind::kQueue:
            return "WDFQUEUE";
        case ObjectKind::kRequest:
            return "WDFREQUEST";
        case ObjectKind::kMemory:
            return "WDFMEMORY";
        case ObjectKind::kWorkItem:
            return "WDFWORKITEM";
    }
    return "no kind of object";
}

}  // namespace platform::framework
