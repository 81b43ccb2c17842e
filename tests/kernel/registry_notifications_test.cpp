// What callbacks are told of security, hives, names and several values: classes, order, members.
#include "kernel/callback_log.h"
#include "kernel/hive_fixture.h"

#include <functional>

namespace platform {
namespace {

using RegistryNotificationsTest = HiveTest;

template <typename... Values>
std::string Join(const Values&... values) {
    std::ostringstream text;
    ((text << values << ' '), ...);
    return text.str();
}

/// How the members of a structure read; `Information` is its type.
template <typename Information, typename Format>
std::function<std::string(const void*)> Read(Format format) {
    return [format](const void* information) {
        return format(*static_cast<const Information*>(information));
    };
}

std::string Text(const UNICODE_STRING* text) {
    return ToUtf8(View(*text).substr(View(*text).rfind(u'\\') + 1));
}

const auto kSeveral = Read<REG_QUERY_MULTIPLE_VALUE_KEY_INFORMATION>([](const auto& call) {
    return Join(Text(call.ValueEntries->ValueName), call.EntryCount, *call.BufferLength,
                *call.RequiredBufferLength, static_cast<const char*>(call.ValueBuffer));
});
const auto kQuerySecurity = Read<REG_QUERY_KEY_SECURITY_INFORMATION>(
    [](const auto& call) { return Join(*call.SecurityInformation, *call.Length); });
const auto kSetSecurity = Read<REG_SET_KEY_SECURITY_INFORMATION>([](const auto& call) {
    PSID owner = nullptr;
    BOOLEAN defaulted = FALSE;
    RtlGetOwnerSecurityDescriptor(call.SecurityDescriptor, &owner, &defaulted);
    return Join(*call.SecurityInformation, RtlLengthSid(owner));
});
const auto kName = Read<REG_QUERY_KEY_NAME>([](const auto& call) {
    const bool answered = *call.ReturnLength != 0;
    return Join(call.Length, answered ? Text(&call.ObjectNameInfo->Name) : "");
});
const auto kSave =
    Read<REG_SAVE_KEY_INFORMATION>([](const auto& call) { return Join(call.Format); });
const auto kRestore = Read<REG_RESTORE_KEY_INFORMATION>(
    [](const auto& call) { return Join(call.Flags, ObIsKernelHandle(call.FileHandle) != FALSE); });
const auto kReplace = Read<REG_REPLACE_KEY_INFORMATION>(
    [](const auto& call) { return Join(Text(call.NewFileName), Text(call.OldFileName)); });
const auto kLoad = Read<REG_LOAD_KEY_INFORMATION>(
    [](const auto& call) { return Join(Text(call.KeyName), Text(call.SourceFile), call.Flags); });
const auto kNothing = Read<REG_UNLOAD_KEY_INFORMATION>([](const auto&) { return ""; });

TEST_F(RegistryNotificationsTest, EveryOperationIsToldOfWithItsMembers) {
    const KeyHandle key = MakeKey(kTestKey, {.access = KEY_ALL_ACCESS | ACCESS_SYSTEM_SECURITY});
    const KeyHandle machine = OpenKeyOf(u"\\Registry\\Machine").key;
    const KeyHandle file = OpenFile("saved");
    SetValue(key, u"v", REG_SZ, "data");
    UNICODE_STRING name = Describe(u"v");
    KEY_VALUE_ENTRY entry{&name, 0, 0, 0};
    char buffer[256]{};
    ULONG length = 9;
    ULONG required = 0;
    SecurityDescriptor security;
    ASSERT_EQ(ParseSddl(u"O:BA", security), STATUS_SUCCESS);
    HANDLE kernelFile = nullptr;
    ObjectRef<FileObject> fileObject;
    ASSERT_EQ(ReferenceHandle(file, 0, kFileType, UserMode, fileObject), STATUS_SUCCESS);
    ASSERT_EQ(ObOpenObjectByPointer(fileObject.get(), OBJ_KERNEL_HANDLE, nullptr, kReadWriteFile,
                                    *IoFileObjectType, KernelMode, &kernelFile),
              STATUS_SUCCESS);
    const struct {
        std::vector<std::string> told;
        HANDLE object;  ///< null: a key that the operation opens
        std::function<std::string(const void*)> members;
        std::string before, after;
        std::function<NTSTATUS()> call;
    } cases[] = {
        {{"c 9", "c 24"},
         key,
         kSeveral,
         "v 1 9 0  ",
         "v 1 4 4 data ",
         [&] { return NtQueryMultipleValueKey(key, &entry, 1, buffer, &length, &required); }},
        {{"c 36", "c 37"},
         key,
         kQuerySecurity,
         "3 256 ",
         "3 48 ",
         [&] { return NtQuerySecurityObject(key, 3, buffer, 256, &length); }},
        {{"c 36", "c 37"},
         key,
         kQuerySecurity,
         "3 47 ",
         "3 48 ",
         [&] { return ZwQuerySecurityObject(key, 3, buffer, 47, &length); }},
        {{"c 38", "c 39"},
         key,
         kSetSecurity,
         "1 16 ",
         "1 16 ",
         [&] { return NtSetSecurityObject(key, 1, security.bytes.data()); }},
        {{"c 38", "c 39"},
         key,
         kSetSecurity,
         "8 16 ",
         "8 16 ",
         [&] { return ZwSetSecurityObject(key, 8, security.bytes.data()); }},
        {{"c 47", "c 48"},
         key,
         kName,
         "256  ",
         "256 Test ",
         [&] {
             length = 0;
             return NtQueryObject(key, ObjectNameInformation, buffer, 256, &length);
         }},
        {{"c 43", "c 44"}, key, kSave, "1 ", "1 ", [&] { return NtSaveKey(key, file); }},
        {{"c 43", "c 44"}, key, kSave, "2 ", "2 ", [&] { return ZwSaveKeyEx(key, nullptr, 2); }},
        {{"c 41", "c 42"},
         key,
         kRestore,
         "4 0 ",
         "4 0 ",
         [&] { return NtRestoreKey(key, file, REG_NO_LAZY_FLUSH); }},
        {{"c 41", "c 42"},
         key,
         kRestore,
         "8 1 ",
         "8 1 ",
         [&] { return ZwRestoreKey(key, kernelFile, REG_FORCE_RESTORE); }},
        {{"c 45", "c 46"},
         key,
         kReplace,
         "new old ",
         "new old ",
         [&] { return Replace(key, "new", "old"); }},
        {{"c 32", "c 33"},
         machine,
         kLoad,
         "Hive hive 0 ",
         "Hive hive 0 ",
         [&] { return NtLoadKey(Named(u"Hive", machine).Get(), Named(FileName("hive")).Get()); }},
        {{"c 28", "c 29", "c 14", "c 25", "c 34", "c 35"},
         nullptr,
         kNothing,
         "",
         "",
         [&] { return NtUnloadKey(Named(u"Hive", machine).Get()); }},
    };
    const auto* row = std::begin(cases);
    Log log;
    std::string before, after;
    std::vector<void*> objects;
    NTSTATUS told = STATUS_PENDING;
    bool isBefore = false;
    const TestCallback callback(log, "c", u"1", [&](REG_NOTIFY_CLASS, void* information) {
        isBefore = !isBefore;
        objects.push_back(*static_cast<void**>(information));
        if (isBefore) {
            before = row->members(information);
        } else {
            told = Post(information).Status;
            after = row->members(Post(information).PreInformation);
        }
        return STATUS_SUCCESS;
    });
    for (; row != std::end(cases); ++row) {
        SCOPED_TRACE(row->told.front());
        objects.clear();
        const NTSTATUS status = row->call();
        EXPECT_EQ(log.Take(), row->told);
        EXPECT_EQ(told, status);
        EXPECT_EQ(before, row->before);
        EXPECT_EQ(after, row->after);
        if (row->object == nullptr) continue;
        ObjectRef<KeyObject> object;
        EXPECT_EQ(ReferenceHandle(row->object, 0, kKeyType, KernelMode, object), STATUS_SUCCESS);
        EXPECT_EQ(objects, std::vector<void*>(2, object.get()));
    }
    ZwClose(kernelFile);
    EXPECT_EQ(NtQuerySecurityObject(file, 1, buffer, 256, &length), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(NtQueryObject(file, ObjectNameInformation, buffer, 256, &length), STATUS_SUCCESS);
    EXPECT_EQ(log.Take(), std::vector<std::string>{}) << "a file is no key";
}

}  // namespace
}  // namespace platform
