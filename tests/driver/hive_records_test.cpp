// Records of operations between keys and files.
#include "driver/record_test.h"
#include "kernel/unreadable_memory.h"
#include "platform/kernel/io.h"

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
    struct Case {
        std::size_t first, second;  ///< bytes
        ULONG secondOffset;
    };
    for (const Case& c : {Case{20, 30, 66}, {0, 0, 46}, {2, 0, 48}, {0, 2, 46}}) {
        const std::u16string first(c.first / 2, u'f');
        const std::u16string second(c.second / 2, u's');
        const auto records =
            Recorded({RecordType::kHiveLoaded, RecordType::kKeyReplaced}, [&](HANDLE key) {
                UNICODE_STRING names[] = {Describe(first), Describe(second)};
                REG_LOAD_KEY_INFORMATION load = {};
                load.KeyName = &names[0];
                load.SourceFile = &names[1];
                REG_REPLACE_KEY_INFORMATION replace = {};
                replace.NewFileName = &names[0];
                replace.OldFileName = &names[1];
                Notifier notifier(key);
                EXPECT_TRUE(notifier.After(RegNtPostLoadKey, load));
                EXPECT_TRUE(notifier.After(RegNtPostReplaceKey, replace));
            });
        ASSERT_EQ(records.size(), 2u);
        for (const RawRecord& record : records) {
            EXPECT_EQ(record.key, kKey);
            EXPECT_EQ(record.Number(40), c.secondOffset);
            EXPECT_EQ(record.Text(44), platform::ToUtf8(first));
            EXPECT_EQ(record.Text(c.secondOffset), platform::ToUtf8(second));
        }
    }
}

TEST_F(HiveRecordsTest, NamesThatCannotBeRead) {
    UnreadableMemory memory;
    void* const bad = memory.Place("x", 1);
    UNICODE_STRING good = Describe(u"good");
    UNICODE_STRING lost = good;
    lost.Buffer = static_cast<PWSTR>(bad);
    struct Case {
        UNICODE_STRING *first, *second;
        ULONG secondOffset;
        const char *firstText, *secondText;
    };
    for (const Case& c : {Case{&lost, &good, 54, "", "good"},
                          {&good, &lost, 54, "good", ""},
                          {static_cast<UNICODE_STRING*>(bad), &good, 46, "", "good"},
                          {&good, nullptr, 54, "good", ""}}) {
        const RawRecord record = RecordedOne(RecordType::kHiveLoaded, [&](HANDLE key) {
            REG_LOAD_KEY_INFORMATION load = {};
            load.KeyName = c.first;
            load.SourceFile = c.second;
            EXPECT_TRUE(Notifier(key).After(RegNtPostLoadKey, load));
        });
        EXPECT_EQ(record.Number(40), c.secondOffset);
        EXPECT_EQ(record.Text(44), c.firstText);
        EXPECT_EQ(record.Text(c.secondOffset), c.secondText);
    }
}

TEST_F(HiveRecordsTest, UnloadIsItsHeader) {
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
        UNICODE_STRING keyName = Describe(kKey);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &keyName, OBJ_KERNEL_HANDLE, nullptr, nullptr);
        ASSERT_EQ(ZwOpenKey(&key, KEY_ALL_ACCESS, &attributes), STATUS_SUCCESS);
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
    std::u16string newName = FileName(".hive");
    std::u16string oldName = FileName(".old");
    UNICODE_STRING newText = Describe(newName);
    UNICODE_STRING oldText = Describe(oldName);
    OBJECT_ATTRIBUTES newFile;
    OBJECT_ATTRIBUTES oldFile;
    InitializeObjectAttributes(&newFile, &newText, 0, nullptr, nullptr);
    InitializeObjectAttributes(&oldFile, &oldText, 0, nullptr, nullptr);
    EXPECT_EQ(ZwReplaceKey(&newFile, key, &oldFile), STATUS_SUCCESS);
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
