// Exemption lists: which entry matches which process, and how entries come and go.
#include "tracking_handle.h"

#include <cstring>
#include <thread>

namespace {

constexpr GUID kList = {0xE, 1, 2, {3}};

/// An entry in the hosted library's types; an absent member is empty.
struct Entry {
    std::optional<std::string> narrow = {};
    std::optional<std::u16string> wide1 = {};
    std::optional<std::u16string> wide2 = {};
    /// Process id and key.
    std::optional<std::pair<std::uint64_t, std::uint64_t>> identifier = {};

    /// Calls `action` with the entry as the interface takes it.
    template <typename Action>
    auto Pass(Action action) const {
        ANSI_STRING narrowText = {};
        UNICODE_STRING wideText1 = {};
        UNICODE_STRING wideText2 = {};
        UCHAR bytes[16];
        ExemptionEntry entry = {};
        if (narrow) {
            const auto length = static_cast<USHORT>(narrow->size());
            narrowText = {length, length, const_cast<char*>(narrow->data())};
            entry.NarrowName = &narrowText;
        }
        if (wide1) {
            wideText1 = platform::Describe(*wide1);
            entry.WideName1 = &wideText1;
        }
        if (wide2) {
            wideText2 = platform::Describe(*wide2);
            entry.WideName2 = &wideText2;
        }
        if (identifier) {
            std::memcpy(bytes, &identifier->first, 8);
            std::memcpy(bytes + 8, &identifier->second, 8);
            entry.Identifier = bytes;
        }
        return action(&entry);
    }
};

class ExemptionTest : public LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        ASSERT_EQ(ZPkPeExemptRegister(&kList, &list), STATUS_SUCCESS);
        creator = machine->StartProcess(
            {.imagePath = u"\\Device\\Disk1\\Setup\\installer.exe", .token = {}});
        platform::ThreadScope creating(*creator);
        process = machine->StartProcess({.imagePath = u"\\Device\\Disk1\\Tools\\R\u00FChr.exe",
                                         .parentId = creator->Id(),
                                         .token = {}});
    }
    void TearDown() override {
        EXPECT_EQ(ZPkPeExemptUnregister(list), STATUS_SUCCESS);
        process = {};
        creator = {};
        LibraryTest::TearDown();
    }

    NTSTATUS Add(const Entry& entry) {
        return entry.Pass([&](ExemptionEntry* e) { return ZPkPeExemptAdd1(list, e); });
    }
    NTSTATUS Remove(const Entry& entry) {
        return entry.Pass([&](ExemptionEntry* e) { return ZPkPeExemptRemove1(list, e); });
    }
    bool IsExempt(const platform::Process& tested) {
        BOOLEAN exempt = 2;
        EXPECT_EQ(ZPkPeExemptCheck(list, IdOf(tested), &exempt), STATUS_SUCCESS);
        return exempt != FALSE;
    }
    std::uint64_t KeyOf(const platform::Process& tested) {
        const TrackingHandle tracking;
        return Tracked(tracking, IdOf(tested)).record->ProcessKey;
    }

    ZPK_EXEMPTIONS* list = nullptr;
    platform::ObjectRef<platform::Process> creator;
    platform::ObjectRef<platform::Process> process;  // created by `creator`
};

TEST_F(ExemptionTest, AnEntryMatchesWhenAllItsMembersDo) {
    const std::uint64_t id = process->Id();
    const std::uint64_t key = KeyOf(*process);
    const struct {
        const char* what;
        Entry entry;
        bool matches;
    } cases[] = {
        {"narrow name", {.narrow = "R\xFChr.exe"}, true},
        {"narrow name, other case", {.narrow = "r\xDCHR.EXE"}, true},
        {"end of the narrow name", {.narrow = "hr.exe"}, false},
        {"path as narrow name", {.narrow = "Tools\\R\xFChr.exe"}, false},
        {"empty narrow name", {.narrow = ""}, false},
        {"file name", {.wide1 = u"r\u00DCHR.exe"}, true},
        {"end of the file name", {.wide1 = u"hr.exe"}, false},
        {"path end", {.wide1 = u"\\TOOLS\\R\u00FChr.exe"}, true},
        {"path end without the first backslash", {.wide1 = u"Tools\\R\u00FChr.exe"}, true},
        {"path end within a component", {.wide1 = u"ools\\R\u00FChr.exe"}, false},
        {"whole path", {.wide1 = u"\\device\\disk1\\tools\\r\u00FChr.exe"}, true},
        {"folder", {.wide1 = u"\\Device\\Disk1\\Tools"}, false},
        {"longer than the path", {.wide1 = u"x\\Device\\Disk1\\Tools\\R\u00FChr.exe"}, false},
        {"every process", {.wide1 = u""}, true},
        {"creator's file name", {.wide1 = u"", .wide2 = u"Installer.exe"}, true},
        {"creator's path end", {.wide1 = u"", .wide2 = u"setup\\installer.exe"}, true},
        {"other creator", {.wide1 = u"", .wide2 = u"other.exe"}, false},
        {"other process of the creator", {.wide1 = u"x.exe", .wide2 = u"installer.exe"}, false},
        {"identifier", {.wide1 = u"", .identifier = {{id, key}}}, true},
        {"identifier of another process with the id",
         {.wide1 = u"", .identifier = {{id, key + 1}}},
         false},
        {"identifier with another id", {.wide1 = u"", .identifier = {{id + 4, key}}}, false},
        {"both names", {.narrow = "R\xFChr.exe", .wide1 = u"\\Tools\\R\u00FChr.exe"}, true},
        {"one of both names", {.narrow = "x.exe", .wide1 = u"\\Tools\\R\u00FChr.exe"}, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(Add(c.entry), STATUS_SUCCESS);
        EXPECT_EQ(IsExempt(*process), c.matches);
        EXPECT_EQ(Remove(c.entry), STATUS_SUCCESS);
        EXPECT_FALSE(IsExempt(*process));
    }
}

TEST_F(ExemptionTest, AProcessWithoutAKnownCreatorMatchesNoCreator) {
    ASSERT_EQ(Add({.wide1 = u"", .wide2 = u"System"}), STATUS_SUCCESS);
    ASSERT_EQ(Add({.wide1 = u"", .wide2 = u""}), STATUS_SUCCESS);
    EXPECT_FALSE(IsExempt(machine->SystemProcess()));
    EXPECT_FALSE(IsExempt(*process));
}

TEST_F(ExemptionTest, TheCreatorIsRememberedAfterItsEnd) {
    machine->ExitProcess(*creator);
    ASSERT_EQ(Add({.wide1 = u"", .wide2 = u"installer.exe"}), STATUS_SUCCESS);
    EXPECT_TRUE(IsExempt(*process));
}

TEST_F(ExemptionTest, EntriesAreToldApartByAllMembers) {
    const Entry entries[] = {
        {.narrow = "a.exe"},
        {.wide1 = u"a.exe"},
        {.narrow = "a.exe", .wide1 = u"a.exe"},
        {.wide1 = u""},
        {.wide1 = u"a.exe", .wide2 = u"b.exe"},
        {.wide1 = u"a.exe", .identifier = {{1, 2}}},
        {.wide1 = u"a.exe", .identifier = {{1, 3}}},
    };
    for (const Entry& entry : entries) {
        EXPECT_EQ(Remove(entry), STATUS_NOT_FOUND);
        EXPECT_EQ(Add(entry), STATUS_SUCCESS);
        EXPECT_EQ(Add(entry), STATUS_OBJECT_NAME_COLLISION);
    }
    EXPECT_EQ(Add({.narrow = "A.EXE"}), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(Add({.wide1 = u"A.exe", .wide2 = u"B.EXE"}), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(Add({.wide2 = u"b.exe", .identifier = {{1, 2}}}), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Remove({.wide1 = u"A.EXE"}), STATUS_SUCCESS);
    EXPECT_EQ(Remove({.wide1 = u"a.exe"}), STATUS_NOT_FOUND);
    EXPECT_EQ(ZPkPeExemptRemoveAll(list), STATUS_SUCCESS);
    for (const Entry& entry : entries) {
        EXPECT_EQ(Remove(entry), STATUS_NOT_FOUND);
    }
}

TEST_F(ExemptionTest, AListIsRegisteredOnceAndListsAreApart) {
    ZPK_EXEMPTIONS* second = nullptr;
    EXPECT_EQ(ZPkPeExemptRegister(&kList, &second), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(second, nullptr);
    const GUID other = {0xF, 1, 2, {3}};
    ASSERT_EQ(ZPkPeExemptRegister(&other, &second), STATUS_SUCCESS);
    ASSERT_EQ(Add({.wide1 = u""}), STATUS_SUCCESS);
    BOOLEAN exempt = TRUE;
    EXPECT_EQ(ZPkPeExemptCheck(second, IdOf(*process), &exempt), STATUS_SUCCESS);
    EXPECT_EQ(exempt, FALSE);
    EXPECT_EQ(ZPkPeExemptUnregister(second), STATUS_SUCCESS);
}

TEST_F(ExemptionTest, AllocationFailuresAddNothing) {
    const platform::PlannedFault fault = {.routine = "ExAllocatePoolWithTag"};
    const GUID other = {0xF, 1, 2, {3}};
    EXPECT_EQ(WalkFaults(fault,
                         [&] {
                             ZPK_EXEMPTIONS* second = nullptr;
                             const NTSTATUS status = ZPkPeExemptRegister(&other, &second);
                             if (second != nullptr) ZPkPeExemptUnregister(second);
                             return status;
                         }),
              1);
    const Entry entry = {.narrow = "a", .wide1 = u"b", .wide2 = u"c", .identifier = {{1, 2}}};
    EXPECT_EQ(WalkFaults(fault,
                         [&] {
                             const NTSTATUS status = Add(entry);
                             EXPECT_EQ(Remove(entry),
                                       NT_SUCCESS(status) ? STATUS_SUCCESS : STATUS_NOT_FOUND);
                             return status;
                         }),
              1);
}

TEST_F(ExemptionTest, ChecksGoOnWhileEntriesComeAndGo) {
    ASSERT_EQ(Add({.wide1 = u"R\u00FChr.exe"}), STATUS_SUCCESS);
    std::atomic<bool> stop{false};
    std::atomic<int> checks{0};
    std::thread checking([&] {
        while (!stop.load()) {
            EXPECT_TRUE(IsExempt(*process));
            EXPECT_FALSE(IsExempt(*creator));
            checks.fetch_add(1);
        }
    });
    for (int i = 0; i < 500 || checks.load() < 10; ++i) {
        EXPECT_EQ(Add({.wide1 = u"other.exe"}), STATUS_SUCCESS);
        EXPECT_EQ(Add({.narrow = "third.exe"}), STATUS_SUCCESS);
        EXPECT_EQ(Remove({.wide1 = u"OTHER.exe"}), STATUS_SUCCESS);
        EXPECT_EQ(Remove({.narrow = "third.exe"}), STATUS_SUCCESS);
    }
    stop = true;
    checking.join();
}

}  // namespace
