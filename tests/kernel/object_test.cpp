#include "platform/kernel/object.h"

#include "kernel/test_object.h"
#include "platform/kernel/process.h"
#include "platform/kernel/text.h"
#include "platform/kernel/verifier.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>

namespace platform {
namespace {

using Log = std::vector<std::string>;

bool HasViolated(const std::optional<BugcheckRecord>& record, Rule rule) {
    return record && record->code == kVerifierBugcheck &&
           record->parameters[0] == static_cast<std::uintptr_t>(rule);
}

TEST(Object, LivesUntilItsLastReferenceGoes) {
    Log log;
    ObjectRef<TestObject> first = MakeTestObject(log);
    EXPECT_EQ(TypeOf(first.get()), &kTestType);
    EXPECT_EQ(ObfReferenceObject(first.get()), 2);
    ObjectRef<TestObject> second = first;
    EXPECT_EQ(ReferenceCount(first.get()), 3);
    EXPECT_EQ(ObfDereferenceObject(first.get()), 2);
    first = {};
    EXPECT_TRUE(log.empty());
    second = {};
    EXPECT_EQ(log, Log{"destroy"});
}

TEST(Object, IsDestroyedByAWorkerWhenTheLastReferenceGoesAtRaisedIrql) {
    Log log;
    TestObject* object = MakeTestObject(log).release();
    const std::thread::id here = std::this_thread::get_id();
    std::thread::id destroyer = here;
    KIRQL levelThere = DISPATCH_LEVEL;
    object->onDestroy = [&] {
        destroyer = std::this_thread::get_id();
        levelThere = KeGetCurrentIrql();
    };
    const KIRQL level = KfRaiseIrql(DISPATCH_LEVEL);
    ObfDereferenceObject(object);
    KeLowerIrql(level);
    DrainSystemWork();
    EXPECT_EQ(log, Log{"destroy"});
    EXPECT_NE(destroyer, here);
    EXPECT_EQ(levelThere, PASSIVE_LEVEL);
}

TEST(Object, BadReferencesStopTheMachine) {
    alignas(16) static std::byte noObject[256] = {};
    EXPECT_TRUE(HasViolated(CatchBugcheck([] { ObfReferenceObject(noObject + 128); }),
                            Rule::kObjectBadReference));
    EXPECT_TRUE(HasViolated(CatchBugcheck([] { ObfDereferenceObject(noObject + 128); }),
                            Rule::kObjectBadReference));
    EXPECT_TRUE(
        HasViolated(CatchBugcheck([] { ObfReferenceObject(nullptr); }), Rule::kObjectBadReference));
    // While the object is being destroyed nobody may refer to it any more.
    static Log log;
    TestObject* object = MakeTestObject(log).release();
    std::optional<BugcheckRecord> record;
    object->onDestroy = [&] { record = CatchBugcheck([&] { ReferenceObject(object); }); };
    DereferenceObject(object);
    EXPECT_TRUE(HasViolated(record, Rule::kObjectBadReference));
}

TEST(Object, GenericAccessIsMappedByItsType) {
    const struct {
        ACCESS_MASK desired, mapped;
    } cases[] = {
        {0, 0},
        {kTestRead, kTestRead},
        {GENERIC_READ, kTestRead | READ_CONTROL},
        {GENERIC_WRITE | DELETE_ACCESS, kTestWrite | READ_CONTROL | DELETE_ACCESS},
        {GENERIC_EXECUTE, READ_CONTROL},
        {GENERIC_ALL, 0x000F0003},
        {MAXIMUM_ALLOWED, 0x000F0003},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(MapAccess(row.desired, kTestType), row.mapped) << std::hex << row.desired;
    }
}

class NamedObject : public testing::Test {
protected:
    ~NamedObject() override {
        for (const char16_t* name : {u"\\Device\\Thing", u"\\??\\Alias", u"\\??\\Alias2"}) {
            RemoveName(name);
        }
    }
    NTSTATUS Lookup(std::u16string_view path) {
        void* body = nullptr;
        const NTSTATUS status = LookupNamedObject(path, &body);
        if (NT_SUCCESS(status)) {
            EXPECT_EQ(body, object_.get());
            DereferenceObject(body);
        }
        return status;
    }

    Log log_;
    ObjectRef<TestObject> object_ = MakeTestObject(log_);
};

TEST_F(NamedObject, IsFoundByNameAndThroughLinks) {
    ASSERT_EQ(InsertNamedObject(object_.get(), u"\\Device\\Thing"), STATUS_SUCCESS);
    ASSERT_EQ(InsertNameLink(u"\\DosDevices\\Alias", u"\\Device\\Thing"), STATUS_SUCCESS);
    ASSERT_EQ(InsertNameLink(u"\\??\\Alias2", u"\\??\\Alias"), STATUS_SUCCESS);
    const struct {
        const char16_t* path;
        NTSTATUS status;
    } cases[] = {
        {u"\\Device\\Thing", STATUS_SUCCESS},
        {u"\\DEVICE\\tHING", STATUS_SUCCESS},
        {u"\\??\\Alias", STATUS_SUCCESS},
        {u"\\DosDevices\\ALIAS2", STATUS_SUCCESS},
        {u"\\Device\\Other", STATUS_OBJECT_NAME_NOT_FOUND},
        {u"\\NoDirectory\\Thing", STATUS_OBJECT_PATH_NOT_FOUND},
        {u"\\Device\\Thing\\Below", STATUS_OBJECT_PATH_NOT_FOUND},
        {u"\\Device", STATUS_OBJECT_TYPE_MISMATCH},
        {u"Device\\Thing", STATUS_OBJECT_PATH_SYNTAX_BAD},
        {u"", STATUS_OBJECT_PATH_SYNTAX_BAD},
        {u"\\Device\\\\Thing", STATUS_OBJECT_NAME_INVALID},
        {u"\\Device\\Thing\\", STATUS_OBJECT_NAME_INVALID},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(Lookup(row.path), row.status) << ToUtf8(row.path);
    }
}

TEST_F(NamedObject, NamesAreTakenOnceAndFreeAfterwards) {
    ASSERT_EQ(InsertNamedObject(object_.get(), u"\\Device\\Thing"), STATUS_SUCCESS);
    EXPECT_EQ(InsertNamedObject(object_.get(), u"\\device\\THING"), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(InsertNameLink(u"\\Device\\Thing", u"\\Device"), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(ReferenceCount(object_.get()), 2);
    RemoveName(u"\\Device\\Thing");
    EXPECT_EQ(ReferenceCount(object_.get()), 1);
    EXPECT_EQ(Lookup(u"\\Device\\Thing"), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(InsertNamedObject(object_.get(), u"\\Device\\Thing"), STATUS_SUCCESS);
}

TEST_F(NamedObject, LinksInACircleEnd) {
    ASSERT_EQ(InsertNameLink(u"\\??\\Alias", u"\\??\\Alias2"), STATUS_SUCCESS);
    ASSERT_EQ(InsertNameLink(u"\\??\\Alias2", u"\\??\\Alias"), STATUS_SUCCESS);
    EXPECT_EQ(Lookup(u"\\??\\Alias"), STATUS_OBJECT_NAME_INVALID);
}

TEST_F(NamedObject, RemovingALinkLeavesItsTarget) {
    ASSERT_EQ(InsertNamedObject(object_.get(), u"\\Device\\Thing"), STATUS_SUCCESS);
    ASSERT_EQ(InsertNameLink(u"\\??\\Alias", u"\\Device\\Thing"), STATUS_SUCCESS);
    RemoveName(u"\\DosDevices\\Alias");
    EXPECT_EQ(Lookup(u"\\??\\Alias"), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Lookup(u"\\Device\\Thing"), STATUS_SUCCESS);
}

TEST_F(NamedObject, NameQueriesTellTheSizeFirst) {
    constexpr std::u16string_view kName = u"\\Device\\Thing";
    constexpr ULONG kNeeded = sizeof(UNICODE_STRING) + (13 + 1) * sizeof(WCHAR);
    ASSERT_EQ(InsertNamedObject(object_.get(), kName), STATUS_SUCCESS);
    struct {
        OBJECT_NAME_INFORMATION header;
        WCHAR text[16];
    } buffer;
    ULONG needed = 0;
    for (const ULONG length : {0u, 15u, 16u, kNeeded - 1}) {
        std::memset(&buffer, 0xCC, sizeof(buffer));
        needed = 0;
        EXPECT_EQ(ObQueryNameString(object_.get(), &buffer.header, length, &needed),
                  STATUS_INFO_LENGTH_MISMATCH);
        EXPECT_EQ(needed, kNeeded);
        EXPECT_EQ(buffer.header.Name.Length, 0xCCCC) << "written although too small";
    }
    ASSERT_EQ(ObQueryNameString(object_.get(), &buffer.header, kNeeded, &needed), STATUS_SUCCESS);
    EXPECT_EQ(needed, kNeeded);
    EXPECT_EQ(View(buffer.header.Name), kName);
    EXPECT_EQ(buffer.header.Name.MaximumLength, buffer.header.Name.Length + sizeof(WCHAR));
    EXPECT_EQ(buffer.header.Name.Buffer, buffer.text);
    EXPECT_EQ(buffer.text[13], 0);
    EXPECT_EQ(buffer.text[14], 0xCCCC);
}

TEST_F(NamedObject, ANamelessObjectHasAnEmptyName) {
    OBJECT_NAME_INFORMATION information;
    ULONG needed = 0;
    EXPECT_EQ(ObQueryNameString(object_.get(), &information, sizeof(information) - 1, &needed),
              STATUS_INFO_LENGTH_MISMATCH);
    ASSERT_EQ(ObQueryNameString(object_.get(), &information, sizeof(information), &needed),
              STATUS_SUCCESS);
    EXPECT_EQ(needed, sizeof(information));
    EXPECT_EQ(information.Name.Length, 0);
    EXPECT_EQ(information.Name.Buffer, nullptr);
}

}  // namespace
}  // namespace platform
