// A type of objects whose life tests can watch.
#pragma once

#include "platform/kernel/object.h"

#include <atomic>
#include <functional>
#include <string>
#include <vector>

namespace platform {

/// What happened to a TestObject, in order.
struct TestObject {
    explicit TestObject(std::vector<std::string>& events) : log(events) {}
    std::vector<std::string>& log;
    std::function<void()> onDestroy;
};

inline void DestroyTestObject(void* body) {
    auto* object = static_cast<TestObject*>(body);
    object->log.push_back("destroy");
    if (object->onDestroy) object->onDestroy();
    object->~TestObject();
}

inline void CloseTestObject(void* body, Process* process, bool lastOfProcess, bool lastOfAll) {
    static_cast<TestObject*>(body)->log.push_back(
        std::string("close") + (process == nullptr ? " kernel" : "") +
        (lastOfProcess ? " lastOfProcess" : "") + (lastOfAll ? " lastOfAll" : ""));
}

inline void ClosingTestObject(void* body, void (*closeIt)(void*), void* argument) {
    auto& log = static_cast<TestObject*>(body)->log;
    log.push_back("before");
    closeIt(argument);
    log.push_back("after");
}

inline constexpr ACCESS_MASK kTestRead = 0x1;
inline constexpr ACCESS_MASK kTestWrite = 0x2;

inline const ObjectType kTestType = {
    "Test",
    {kTestRead | READ_CONTROL, kTestWrite | READ_CONTROL, READ_CONTROL, 0x000F0003},
    0x000F0003,
    DestroyTestObject,
    CloseTestObject,
    ClosingTestObject};

inline ObjectRef<TestObject> MakeTestObject(std::vector<std::string>& log) {
    return ObjectRef<TestObject>::Adopt(CreateObject<TestObject>(kTestType, log));
}

}  // namespace platform
