// Hives as files: what goes back and forth between the tree and a file, and what is refused.
#include "kernel/hive_fixture.h"

#include "platform/kernel/key_security.h"

#include <atomic>
#include <thread>

namespace platform {
namespace {

using HiveFileTest = HiveTest;

/// Everything that a hive keeps of a key and of what is below it, one line each; nothing that goes
/// through a hive's text.
void List(const KeyNode& key, const std::string& path, std::vector<std::string>& lines) {
    std::ostringstream line;
    line << path << " class " << ToUtf8(key.Class()) << " link " << key.IsLink() << " time "
         << key.LastWriteTime() << " security ";
    for (const std::byte byte : key.Security()->Descriptor().bytes)
        line << std::to_integer<int>(byte) << ',';
    lines.push_back(line.str());
    const auto bytesOf = [](std::u16string_view text) {
        return std::string(reinterpret_cast<const char*>(text.data()), text.size() * 2);
    };
    for (std::size_t index = 0; const KeyValue* value = key.ValueAt(index); ++index) {
        lines.push_back(
            path + " value " + bytesOf(value->name) + " type " + std::to_string(value->type) +
            " data " +
            std::string(reinterpret_cast<const char*>(value->data.data()), value->data.size()));
    }
    for (std::size_t index = 0; const KeyNode* subkey = key.SubkeyAt(index); ++index) {
        if (!subkey->IsVolatile()) List(*subkey, path + '\\' + bytesOf(subkey->Name()), lines);
    }
}

std::vector<std::string> Listing(const KeyNode& key) {
    std::vector<std::string> lines;
    List(key, "", lines);
    return lines;
}

/// A key with everything below it that is hard to keep.
KeyHandle MakeHardKey() {
    KeyHandle key = MakeKey(kTestKey, {.className = u"Kind \"of\"\n"});
    const std::string mebibyte(1 << 20, '\xA5');
    for (const ULONG type : {0U, 1U, 2U, 3U, 4U, 5U, 6U, 7U, 8U, 9U, 10U, 11U, 0x80000001U}) {
        const std::u16string name = u"Type" + std::u16string(1, static_cast<char16_t>(u'a' + type));
        for (const std::string_view data :
             {std::string_view(), std::string_view("1"), std::string_view("a\0b\0\0\0", 6),
              std::string_view("a\0\n\0\0\0", 6), std::string_view("\0\0a\0", 4),
              std::string_view("a\0\\\0\"\0\0\0", 8), std::string_view("1234")}) {
            SetValue(key,
                     name + std::u16string(data.size(), u'+') +
                         static_cast<char16_t>(data.empty() ? u'0' : data.back() + u'0'),
                     type, data);
        }
    }
    SetValue(key, u"Large", REG_BINARY, mebibyte);
    SetValue(key, u"Large text", REG_SZ, mebibyte + std::string(2, '\0'));
    SetValue(key, u"", REG_SZ, std::string_view("x\0\0\0", 4));
    SetValue(key, std::u16string(kMaxValueNameCharacters, u'v'), REG_DWORD, "1234");
    using namespace std::string_view_literals;
    for (const std::u16string_view name :
         {u"]"sv, u"a]\r\nb"sv, u"\"q\""sv, u"\xD800 lone"sv, u"-"sv, u"[x"sv, u"; @="sv, u" "sv,
          u"n\0ul"sv, u"\u00E9\uFFFF"sv}) {
        const KeyHandle sub = MakeKey(name, {.root = key, .className = u"Kind"});
        SetValue(sub, name, REG_SZ, "z");
        SetValue(sub, std::u16string(name) + u"\\n", REG_MULTI_SZ, "z");
    }
    MakeKey(u"Volatile", {.root = key, .options = REG_OPTION_VOLATILE});
    KeyHandle deep = MakeKey(std::u16string(kMaxKeyNameCharacters, u'k'), {.root = key});
    for (int level = 0; level < 100; ++level)
        deep = MakeKey(u"\nDeep", {.root = deep});
    const KeyHandle link = MakeKey(u"Link", {.root = key, .options = REG_OPTION_CREATE_LINK});
    SetValue(link, u"SymbolicLinkValue", REG_LINK, std::string_view("\\\0R\0", 4));
    SecurityDescriptor security;
    EXPECT_EQ(ParseSddl(u"D:(A;CI;KA;;;BA)(A;;KR;;;BU)", security), STATUS_SUCCESS);
    EXPECT_EQ(NtSetSecurityObject(deep, DACL_SECURITY_INFORMATION, security.bytes.data()),
              STATUS_SUCCESS);
    return key;
}

TEST_F(HiveFileTest, NothingIsLostOnAnyWayRound) {
    KeyHandle key = MakeHardKey();
    const std::vector<std::string> lines = Listing(NodeOf(key));
    ASSERT_EQ(NtSaveKeyEx(key, OpenFile("saved"), REG_LATEST_FORMAT), STATUS_SUCCESS);
    // Over a longer file, and what was restored before.
    Fill("again", std::string(20 << 20, 'x'));
    const KeyHandle copy = MakeKey(u"\\Registry\\User\\Copy");
    MakeKey(u"Gone", {.root = copy});
    for (const char* round : {"first", "second"}) {
        SCOPED_TRACE(round);
        EXPECT_EQ(NtRestoreKey(copy, OpenFile("saved", FILE_GENERIC_READ), 0), STATUS_SUCCESS);
        EXPECT_EQ(Listing(NodeOf(copy)), lines);
        EXPECT_EQ(NtSaveKey(copy, OpenFile("again")), STATUS_SUCCESS);
        EXPECT_EQ(NtRestoreKey(copy, OpenFile("again"), REG_FORCE_RESTORE), STATUS_SUCCESS);
    }
    ASSERT_EQ(Load(u"\\Registry\\Machine\\Loaded", "again"), STATUS_SUCCESS);
    {
        const KeyHandle loaded = OpenKeyOf(u"\\Registry\\Machine\\Loaded").key;
        EXPECT_EQ(Listing(NodeOf(loaded)), lines);
        EXPECT_EQ(Replace(copy, "saved", "old"), STATUS_SUCCESS);
        EXPECT_EQ(Listing(NodeOf(copy)), lines);
    }
    EXPECT_EQ(Unload(u"\\Registry\\Machine\\Loaded"), STATUS_SUCCESS);
    EXPECT_EQ(NtRestoreKey(copy, OpenFile("old"), 0), STATUS_SUCCESS);
    EXPECT_EQ(Listing(NodeOf(copy)), lines);
}

TEST_F(HiveFileTest, HivesAreMountedAndTheirChangesKept) {
    constexpr const char16_t* kHive = u"\\Registry\\Machine\\Hive";
    Fill("hive", kHiveHeader + "[x]\n@=dword:1\n");
    EXPECT_EQ(Load(u"\\Registry\\Machine\\Test\\Below", "hive"), STATUS_OBJECT_NAME_NOT_FOUND);
    const KeyHandle test = MakeKey(kTestKey);
    EXPECT_EQ(Load(u"\\Registry\\Machine\\Test\\Below", "hive"), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Load(u"\\Registry\\Top", "hive"), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Load(u"\\Registry\\Machine\\Test", "hive"), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(Load(u"\\Elsewhere", "hive"), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Load(kHive, "none/such"), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(NtLoadKey(Named(kHive).Get(), Named(u"\\Device\\Disk\\hive").Get()),
              STATUS_OBJECT_PATH_NOT_FOUND);
    ASSERT_EQ(Load(kHive, "hive"), STATUS_SUCCESS);
    EXPECT_EQ(Load(u"\\Registry\\User\\Hive", "hive"), STATUS_SHARING_VIOLATION);
    EXPECT_EQ(Unload(u"\\Registry\\Machine\\None"), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Unload(std::u16string(kTestKey)), STATUS_INVALID_PARAMETER);
    {
        const KeyHandle hive = OpenKeyOf(kHive).key;
        EXPECT_EQ(NtDeleteKey(hive), STATUS_CANNOT_DELETE);
        UNICODE_STRING name = Describe(u"Other");
        EXPECT_EQ(NtRenameKey(hive, &name), STATUS_ACCESS_DENIED);
        const KeyHandle sub = MakeKey(u"Sub\u00E9", {.root = hive});
        EXPECT_EQ(NtFlushKey(sub), STATUS_SUCCESS);
        EXPECT_NE(Content("hive").find(std::string("S\0u\0b\0\xE9\0", 8)), std::string::npos);
        EXPECT_EQ(Unload(kHive), STATUS_CANNOT_DELETE);
        EXPECT_EQ(SetValue(sub, u"late", REG_SZ, ""), STATUS_SUCCESS);
    }
    {
        const KeyHandle sub = OpenKeyOf(u"\\Registry\\Machine\\Hive\\Sub\u00E9").key;
        EXPECT_EQ(Unload(kHive), STATUS_CANNOT_DELETE) << "a key below is open";
    }
    EXPECT_EQ(Unload(kHive), STATUS_SUCCESS);
    EXPECT_EQ(OpenKeyOf(kHive).status, STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Load(u"\\Registry\\User\\Again", "hive"), STATUS_SUCCESS);
    EXPECT_EQ(ValueNames(OpenKeyOf(u"\\Registry\\User\\Again\\Sub\u00E9").key),
              std::vector<std::u16string>{u"late"});
    EXPECT_EQ(Unload(u"\\Registry\\User\\Again"), STATUS_SUCCESS);
    // A file that does not exist begins as a hive with nothing in it, which can be read again.
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(Load(kHive, "new"), STATUS_SUCCESS);
        EXPECT_EQ(Unload(kHive), STATUS_SUCCESS);
    }
}

TEST_F(HiveFileTest, RestoringMindsOpenKeysFlagsAndHandles) {
    const KeyHandle key = MakeKey(kTestKey);
    const KeyHandle volatileKey =
        MakeKey(u"Volatile", {.root = key, .options = REG_OPTION_VOLATILE});
    const KeyHandle gone = MakeKey(u"Gone", {.root = key});
    NtDeleteKey(gone);
    const KeyHandle machine = OpenKeyOf(u"\\Registry\\Machine").key;
    Fill("hive", kHiveHeader + "[x\\y]\n[x\\y\\New]\n@=dword:1\n");
    const KeyHandle file = OpenFile("hive");
    const KeyHandle readable = OpenFile("hive", FILE_GENERIC_READ);
    const KeyHandle writable = OpenFile("other", FILE_GENERIC_WRITE);
    const KeyHandle full = OpenFile(HostFileName("/dev/full"), FILE_GENERIC_WRITE);
    const struct {
        const char* what;
        std::function<NTSTATUS()> call;
        NTSTATUS status;
    } cases[] = {
        {"subkey open", [&] { return NtRestoreKey(key, file, 0); }, STATUS_ACCESS_DENIED},
        {"subkey open", [&] { return Replace(key, "hive", "old"); }, STATUS_ACCESS_DENIED},
        {"above hives", [&] { return NtRestoreKey(machine, file, 8); }, STATUS_ACCESS_DENIED},
        {"deleted", [&] { return NtRestoreKey(gone, file, 0); }, STATUS_KEY_DELETED},
        {"deleted", [&] { return NtSaveKey(gone, writable); }, STATUS_KEY_DELETED},
        {"flag", [&] { return NtRestoreKey(key, file, 16); }, STATUS_INVALID_PARAMETER},
        {"refresh", [&] { return NtRestoreKey(key, file, 2); }, STATUS_NOT_SUPPORTED},
        {"format", [&] { return NtSaveKeyEx(key, writable, 3); }, STATUS_INVALID_PARAMETER},
        {"unreadable", [&] { return NtRestoreKey(key, writable, 8); }, STATUS_ACCESS_DENIED},
        {"unwritable", [&] { return NtSaveKey(key, readable); }, STATUS_ACCESS_DENIED},
        {"unwritable", [&] { return ZwSaveKey(key, readable); }, STATUS_ACCESS_DENIED},
        {"no file", [&] { return NtSaveKey(key, key); }, STATUS_OBJECT_TYPE_MISMATCH},
        {"no handle", [&] { return NtSaveKey(key, nullptr); }, STATUS_INVALID_HANDLE},
        {"full", [&] { return NtSaveKey(key, full); }, STATUS_DISK_FULL},
        {"old file exists", [&] { return Replace(volatileKey, "hive", "hive"); },
         STATUS_OBJECT_NAME_COLLISION},
        {"no new file", [&] { return Replace(volatileKey, "none", "old"); },
         STATUS_OBJECT_NAME_NOT_FOUND},
        {"below volatile", [&] { return NtRestoreKey(volatileKey, file, 0); }, STATUS_SUCCESS},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(row.call(), row.status) << row.what;
    }
    EXPECT_FALSE(std::filesystem::exists(folder_ / "old"));
    EXPECT_EQ(CreateKeyOf(u"New\\Sub", {.root = volatileKey}).status,
              STATUS_CHILD_MUST_BE_VOLATILE);
    EXPECT_EQ(NtRestoreKey(key, file, REG_FORCE_RESTORE), STATUS_SUCCESS);
    EXPECT_EQ(SubkeyNames(key), std::vector<std::u16string>{u"New"});
    EXPECT_EQ(SetValue(volatileKey, u"V", REG_SZ, ""), STATUS_KEY_DELETED);
}

TEST_F(HiveFileTest, FilesAreWrittenAndReadWhileKeysChange) {
    constexpr const char16_t* kHive = u"\\Registry\\Machine\\Hive";
    ASSERT_EQ(Load(kHive, "hive"), STATUS_SUCCESS);
    KeyHandle hive = OpenKeyOf(kHive).key;
    ASSERT_EQ(NtSaveKey(hive, OpenFile("empty")), STATUS_SUCCESS);
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (const char16_t* name : {u"A", u"B"}) {
        threads.emplace_back([&, name] {
            while (!stop) {
                // Restoring takes the key away now and then, at any of these steps.
                const KeyHandle key = CreateKeyOf(name, {.root = hive}).key;
                const KeyHandle sub = CreateKeyOf(u"Sub", {.root = key}).key;
                char security[256];
                ULONG length = 0;
                SetValue(sub, u"V", REG_SZ, "x");
                NtQuerySecurityObject(sub, DACL_SECURITY_INFORMATION, security, 256, &length);
                NtFlushKey(sub);
                NtDeleteKey(sub);
            }
        });
    }
    for (int round = 0; round < 200; ++round) {
        EXPECT_EQ(NtSaveKey(hive, OpenFile("saved")), STATUS_SUCCESS);
        EXPECT_EQ(
            NtRestoreKey(hive, OpenFile(round % 2 == 0 ? "saved" : "empty"), REG_FORCE_RESTORE),
            STATUS_SUCCESS);
        EXPECT_EQ(Unload(kHive), STATUS_CANNOT_DELETE);
    }
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
    hive.Close();
    EXPECT_EQ(Unload(kHive), STATUS_SUCCESS);
}

}  // namespace
}  // namespace platform
