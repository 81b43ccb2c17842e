// Records of operations between keys and files.
#include "driver/record_test.h"
#include "kernel/hive_fixture.h"
#include "kernel/unreadable_memory.h"

#include <unistd.h>
#include <cstdio>

namespace driver_test {

namespace {

using namespace zpregflt;
using platform::Describe;
using platform::UnreadableMemory;

class HiveRecordsTest : public RecordTest {
protected:
    void SetUp() override { StartRecording(~0u); }
    ~HiveRecordsTest() override {
        for (const char* suffix : {".hive", ".old", ".log"})
            std::remove((Path() + suffix).c_str());
    }

    static std::string Path() {
        return testing::TempDir() + "zpregflt_hive_test_" + std::to_string(::getpid());
    }
    static std::u16string FileName(const char* suffix) {
        return platform::HostFileName(Path() + suffix);
    }
    static HANDLE OpenHive(ACCESS_MASK access) {
        return OpenFile(FileName(".hive"), access | SYNCHRONIZE, FILE_OPEN_IF,
                        FILE_SYNCHRONOUS_IO_NONALERT);
    }
    /// The file's name as the object manager has it.
    static std::string ObjectName(HANDLE file) {
        alignas(8) char name[1024];
        ULONG length = 0;
        EXPECT_EQ(NtQueryObject(file, ObjectNameInformation, name, sizeof(name), &length),
                  STATUS_SUCCESS);
        const UNICODE_STRING& text = reinterpret_cast<OBJECT_NAME_INFORMATION*>(name)->Name;
        return platform::ToUtf8(platform::View(text));
    }
    static void ExpectFile(const RawRecord& record, ULONG options, const std::string& name) {
        EXPECT_EQ(record.key, kKey);
        EXPECT_EQ(record.Number(40), options);
        EXPECT_EQ(record.Number(44), 64u);
        EXPECT_EQ(record.Short(48), 2 * name.size());
        EXPECT_GE(record.Short(50), record.Short(48));
        EXPECT_EQ(record.Text(64), name);
    }
};

TEST_F(HiveRecordsTest, FileBehindTheHandle) {
    std::string name;
    const auto records =
        Recorded({RecordType::kKeySaved, RecordType::kKeyRestored}, [&](HANDLE key) {
            HANDLE const file = OpenHive(GENERIC_READ | GENERIC_WRITE);
            name = ObjectName(file);
            EXPECT_EQ(NtSaveKeyEx(key, file, REG_LATEST_FORMAT), STATUS_SUCCESS);
            EXPECT_EQ(NtRestoreKey(key, file, REG_FORCE_RESTORE), STATUS_SUCCESS);
            NtClose(file);
            // Good enough to save to, but the caller may not read from it.
            HANDLE const writeOnly = OpenHive(GENERIC_WRITE);
            const Counters before = CountersOf(RegNtPostSaveKey);
            EXPECT_EQ(NtSaveKey(key, writeOnly), STATUS_SUCCESS);
            EXPECT_EQ(CountersOf(RegNtPostSaveKey) - before, (Counters{1, 0, 0, 0}));
            NtClose(writeOnly);
            // Not a file at all.
            Notifier notifier(key);
            REG_SAVE_KEY_INFORMATION save = {};
            for (HANDLE handle : {key, HANDLE{nullptr}, reinterpret_cast<HANDLE>(LONG_PTR{-4})}) {
                save.FileHandle = handle;
                EXPECT_FALSE(notifier.After(RegNtPostSaveKey, save));
            }
        });
    ASSERT_EQ(records.size(), 2u);
    ExpectFile(records[0], REG_LATEST_FORMAT, name);
    ExpectFile(records[1], REG_FORCE_RESTORE, name);
}

TEST_F(HiveRecordsTest, NameThatCannotBeHad) {
    for (const ULONG call : {1u, 2u}) {
        const auto records = Recorded({RecordType::kKeySaved}, [&](HANDLE key) {
            NtFlushKey(key);  // from now on it has its entry, and is not asked for its name
            HANDLE const file = OpenHive(GENERIC_READ | GENERIC_WRITE);
            const Counters before = CountersOf(RegNtPostSaveKey);
            const FaultPlan plan({.routine = "ObQueryNameString", .nth = call});
            EXPECT_EQ(NtSaveKeyEx(key, file, REG_STANDARD_FORMAT), STATUS_SUCCESS);
            EXPECT_TRUE(plan.Fired());
            EXPECT_EQ(CountersOf(RegNtPostSaveKey) - before, (Counters{1, 0, 0, 0}));
            NtClose(file);
        });
        // The name's size unknown: no record. The name itself: the record goes without, uncounted.
        ASSERT_EQ(records.size(), call - 1);
        for (const RawRecord& record : records) {
            EXPECT_EQ(record.Number(40), ULONG{REG_STANDARD_FORMAT});
            EXPECT_EQ(record.Number(44), 0u);
            EXPECT_EQ(record.Short(48), 0u);
            EXPECT_EQ(record.At<std::uint64_t>(56), 0u);
        }
    }
}

TEST_F(HiveRecordsTest, NamesThatTheCallerGave) {
    UnreadableMemory memory;
    void* const bad = memory.Place("x", 1);
    UNICODE_STRING ten = Describe(u"ffffffffff");
    UNICODE_STRING one = Describe(u"s");
    UNICODE_STRING none = Describe(u"");
    UNICODE_STRING lost = ten;
    lost.Buffer = static_cast<PWSTR>(bad);
    const struct {
        UNICODE_STRING *first, *second;
        ULONG secondOffset;
        const char *firstText, *secondText;
    } cases[] = {{&ten, &one, 66, "ffffffffff", "s"},
                 {&none, &none, 46, "", ""},
                 {&one, &none, 48, "s", ""},
                 {&none, &one, 46, "", "s"},
                 // What cannot be read is empty, in the room that it would have taken.
                 {&lost, &one, 66, "", "s"},
                 {&one, &lost, 48, "s", ""},
                 {static_cast<UNICODE_STRING*>(bad), &one, 46, "", "s"},
                 {&one, nullptr, 48, "s", ""}};
    for (const auto& c : cases) {
        const auto records =
            Recorded({RecordType::kHiveLoaded, RecordType::kKeyReplaced}, [&](HANDLE key) {
                REG_LOAD_KEY_INFORMATION load = {};
                load.KeyName = c.first;
                load.SourceFile = c.second;
                REG_REPLACE_KEY_INFORMATION replace = {};
                replace.NewFileName = c.first;
                replace.OldFileName = c.second;
                Notifier notifier(key);
                EXPECT_TRUE(notifier.After(RegNtPostLoadKey, load));
                EXPECT_TRUE(notifier.After(RegNtPostReplaceKey, replace));
            });
        ASSERT_EQ(records.size(), 2u);
        for (const RawRecord& record : records) {
            EXPECT_EQ(record.key, kKey);
            EXPECT_EQ(record.Number(40), c.secondOffset);
            EXPECT_EQ(record.Text(44), c.firstText);
            EXPECT_EQ(record.Text(c.secondOffset), c.secondText);
        }
    }
    EXPECT_EQ(RecordedOne(RecordType::kHiveUnloaded,
                          [](HANDLE key) {
                              REG_UNLOAD_KEY_INFORMATION unload = {};
                              EXPECT_TRUE(Notifier(key).After(RegNtPostUnLoadKey, unload));
                          })
                  .key,
              kKey);
}

/// Saves, restores and replacements by system threads are recorded, other operations are not; the
/// key is one that a monitored process has opened for the kernel.
TEST_F(HiveRecordsTest, SystemThreads) {
    HANDLE key = nullptr;
    HANDLE file = nullptr;
    const auto loan = TheClient().Lend();
    {
        const ThreadScope thread(Worker());
        const KeyHandle made = platform::MakeKey(kKey);
        platform::Named name{std::u16string(kKey)};
        name.Get()->Attributes = OBJ_KERNEL_HANDLE;
        ASSERT_EQ(ZwOpenKey(&key, KEY_ALL_ACCESS, name.Get()), STATUS_SUCCESS);
        HANDLE const userFile = OpenHive(GENERIC_READ | GENERIC_WRITE);
        PVOID object = nullptr;
        ASSERT_EQ(
            ObReferenceObjectByHandle(userFile, 0, *IoFileObjectType, KernelMode, &object, nullptr),
            STATUS_SUCCESS);
        ASSERT_EQ(ObOpenObjectByPointer(object, OBJ_KERNEL_HANDLE, nullptr,
                                        FILE_GENERIC_READ | FILE_GENERIC_WRITE, *IoFileObjectType,
                                        KernelMode, &file),
                  STATUS_SUCCESS);
        ObfDereferenceObject(object);
        NtClose(userFile);
    }
    EXPECT_EQ(ZwSaveKey(key, file), STATUS_SUCCESS);
    EXPECT_EQ(ZwRestoreKey(key, file, 0), STATUS_SUCCESS);
    EXPECT_EQ(ZwReplaceKey(platform::Named(FileName(".hive")).Get(), key,
                           platform::Named(FileName(".old")).Get()),
              STATUS_SUCCESS);
    EXPECT_EQ(ZwFlushKey(key), STATUS_SUCCESS);
    ZwClose(file);
    ZwClose(key);
    TheClient().Flush();
    loan->Wait();
    std::vector<RecordType> types;
    for (const Record& record : loan->Records()) {
        if (record.header.Type != RecordType::kKeyCreated &&
            record.header.Type != RecordType::kKeyHandleClosed)
            types.push_back(record.header.Type);
    }
    EXPECT_EQ(types, (std::vector{RecordType::kKeySaved, RecordType::kKeyRestored,
                                  RecordType::kKeyReplaced}));
}

}  // namespace

}  // namespace driver_test
