// A machine and a folder of the host for the files of its hives.
#pragma once

#include "kernel/registry_fixture.h"

#include "platform/kernel/io.h"
#include "platform/kernel/key_object.h"

#include <filesystem>
#include <fstream>
#include <sstream>

namespace platform {

inline constexpr ACCESS_MASK kReadWriteFile = FILE_GENERIC_READ | FILE_GENERIC_WRITE;
inline const std::string kHiveHeader = "Windows Registry Editor Version 5.00\r\n\r\n";

/// OBJECT_ATTRIBUTES that name a key or a file, with the text that they refer to.
class Named {
public:
    explicit Named(std::u16string name, HANDLE root = nullptr)
        : name_(std::move(name)), text_(Describe(name_)) {
        InitializeObjectAttributes(&attributes_, &text_, 0, root, nullptr);
    }
    Named(const Named&) = delete;
    Named& operator=(const Named&) = delete;
    POBJECT_ATTRIBUTES Get() { return &attributes_; }
    const std::u16string& Name() const { return name_; }

private:
    std::u16string name_;
    UNICODE_STRING text_;
    OBJECT_ATTRIBUTES attributes_;
};

class HiveTest : public RegistryTest {
protected:
    HiveTest() {
        std::string pattern = std::filesystem::temp_directory_path() / "hive_test.XXXXXX";
        folder_ = mkdtemp(pattern.data());
    }
    ~HiveTest() override { std::filesystem::remove_all(folder_); }

    std::u16string FileName(const char* name) const {
        return HostFileName((folder_ / name).string());
    }
    void Fill(const char* name, std::string_view text) const {
        std::ofstream(folder_ / name, std::ios::binary) << text;
    }
    std::string Content(const char* name) const {
        std::ostringstream text;
        text << std::ifstream(folder_ / name, std::ios::binary).rdbuf();
        return text.str();
    }
    KeyHandle OpenFile(const std::u16string& name, ACCESS_MASK access = kReadWriteFile) {
        Named file(name);
        IO_STATUS_BLOCK ioStatus{};
        HANDLE handle = nullptr;
        EXPECT_EQ(NtCreateFile(&handle, access, file.Get(), &ioStatus, nullptr, 0, 0, FILE_OPEN_IF,
                               FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0),
                  STATUS_SUCCESS);
        return KeyHandle(handle);
    }
    KeyHandle OpenFile(const char* name, ACCESS_MASK access = kReadWriteFile) {
        return OpenFile(FileName(name), access);
    }
    NTSTATUS Load(std::u16string key, const char* file) {
        Named target(std::move(key));
        Named source(FileName(file));
        return NtLoadKey(target.Get(), source.Get());
    }
    NTSTATUS Unload(std::u16string key) { return NtUnloadKey(Named(std::move(key)).Get()); }
    NTSTATUS Replace(HANDLE key, const char* newFile, const char* oldFile) {
        return NtReplaceKey(Named(FileName(newFile)).Get(), key, Named(FileName(oldFile)).Get());
    }

    static KeyNode& NodeOf(HANDLE key) {
        ObjectRef<KeyObject> object;
        EXPECT_EQ(ReferenceHandle(key, 0, kKeyType, KernelMode, object), STATUS_SUCCESS);
        return object->Node();
    }
    std::filesystem::path folder_;
};

}  // namespace platform
