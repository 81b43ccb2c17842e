// A machine with an empty registry, and the registry's system calls in a form that reads well in
// tests.
#pragma once

#include "platform/kernel/registry.h"
#include "platform/kernel/syscalls.h"
#include "platform/kernel/text.h"
#include "platform/machine.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace platform {

class KeyHandle {
public:
    KeyHandle() = default;
    explicit KeyHandle(HANDLE handle) : handle_(handle) {}
    KeyHandle(KeyHandle&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
    KeyHandle& operator=(KeyHandle&& other) noexcept {
        std::swap(handle_, other.handle_);
        return *this;
    }
    ~KeyHandle() { Close(); }
    void Close() {
        if (handle_ != nullptr) NtClose(std::exchange(handle_, nullptr));
    }
    operator HANDLE() const { return handle_; }

private:
    HANDLE handle_ = nullptr;
};

struct OpenOptions {
    HANDLE root = nullptr;
    ACCESS_MASK access = KEY_ALL_ACCESS;
    ULONG attributes = OBJ_CASE_INSENSITIVE;
    ULONG options = 0;
    std::u16string_view className = {};
};

struct Opened {
    NTSTATUS status;
    KeyHandle key;
    ULONG disposition;
};

inline Opened CreateKeyOf(std::u16string_view name, const OpenOptions& how = {}) {
    UNICODE_STRING text = Describe(name);
    UNICODE_STRING className = Describe(how.className);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &text, how.attributes, how.root, nullptr);
    HANDLE handle = nullptr;
    ULONG disposition = 0;
    const NTSTATUS status =
        NtCreateKey(&handle, how.access, &attributes, 0, &className, how.options, &disposition);
    return {status, KeyHandle(handle), disposition};
}

inline Opened OpenKeyOf(std::u16string_view name, const OpenOptions& how = {}) {
    UNICODE_STRING text = Describe(name);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &text, how.attributes, how.root, nullptr);
    HANDLE handle = nullptr;
    const NTSTATUS status = NtOpenKeyEx(&handle, how.access, &attributes, how.options);
    return {status, KeyHandle(handle), 0};
}

/// Creates the key, whose parent exists.
inline KeyHandle MakeKey(std::u16string_view name, const OpenOptions& how = {}) {
    Opened made = CreateKeyOf(name, how);
    EXPECT_EQ(made.status, STATUS_SUCCESS) << ToUtf8(name);
    return std::move(made.key);
}

inline NTSTATUS SetValue(HANDLE key, std::u16string_view name, ULONG type, std::string_view data) {
    UNICODE_STRING text = Describe(name);
    return NtSetValueKey(key, &text, 0, type, const_cast<char*>(data.data()),
                         static_cast<ULONG>(data.size()));
}

inline NTSTATUS DeleteValue(HANDLE key, std::u16string_view name) {
    UNICODE_STRING text = Describe(name);
    return NtDeleteValueKey(key, &text);
}

struct ValueData {
    NTSTATUS status;
    ULONG type = 0;
    std::string data;
};

inline ValueData QueryValue(HANDLE key, std::u16string_view name) {
    UNICODE_STRING text = Describe(name);
    alignas(8) char buffer[4096];
    ULONG length = 0;
    const NTSTATUS status =
        NtQueryValueKey(key, &text, KeyValuePartialInformation, buffer, sizeof(buffer), &length);
    if (!NT_SUCCESS(status)) return {status, 0, {}};
    const auto* answer = reinterpret_cast<const KEY_VALUE_PARTIAL_INFORMATION*>(buffer);
    return {status, answer->Type,
            std::string(reinterpret_cast<const char*>(answer->Data), answer->DataLength)};
}

/// The names that an enumeration gives, in its order; `next` asks for the entry with an index.
template <typename Information, typename Next>
std::vector<std::u16string> NamesOf(Next next) {
    std::vector<std::u16string> names;
    alignas(8) char buffer[1024];
    ULONG length = 0;
    while (next(static_cast<ULONG>(names.size()), buffer, ULONG{sizeof(buffer)}, &length) ==
           STATUS_SUCCESS) {
        const auto* answer = reinterpret_cast<const Information*>(buffer);
        names.emplace_back(reinterpret_cast<const char16_t*>(answer->Name),
                           answer->NameLength / sizeof(WCHAR));
    }
    return names;
}

inline std::vector<std::u16string> SubkeyNames(HANDLE key) {
    return NamesOf<KEY_BASIC_INFORMATION>([key](ULONG index, auto... rest) {
        return NtEnumerateKey(key, index, KeyBasicInformation, rest...);
    });
}

inline std::vector<std::u16string> ValueNames(HANDLE key) {
    return NamesOf<KEY_VALUE_BASIC_INFORMATION>([key](ULONG index, auto... rest) {
        return NtEnumerateValueKey(key, index, KeyValueBasicInformation, rest...);
    });
}

/// The full name as a query of the key gives it.
inline std::u16string FullName(HANDLE key) {
    alignas(8) char buffer[4096];
    ULONG length = 0;
    if (!NT_SUCCESS(NtQueryKey(key, KeyNameInformation, buffer, sizeof(buffer), &length))) {
        return {};
    }
    const auto* answer = reinterpret_cast<const KEY_NAME_INFORMATION*>(buffer);
    return {reinterpret_cast<const char16_t*>(answer->Name), answer->NameLength / sizeof(WCHAR)};
}

inline constexpr std::u16string_view kTestKey = u"\\Registry\\Machine\\Test";

/// The machine reports what a test leaves open or registered.
class RegistryTest : public ::testing::Test {
protected:
    Machine machine_;
};

}  // namespace platform
