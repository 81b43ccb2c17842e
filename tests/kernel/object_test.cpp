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

using Happenings = std::vector<std::string>;

bool HasViolated(const std::optional<BugcheckRecord>& record, Rule rule) {
    return record && record->code == kVerifierBugcheck &&
           record->parameters[0] == static_cast<std::uintptr_t>(rule);
}

TEST(Object, LivesUntilItsLastReferenceGoes) {
    Happenings log;
    ObjectRef<TestObject> first = MakeTestObject(log);
    EXPECT_EQ(TypeOf(first.get()), &kTestType);
    EXPECT_EQ(ObfReferenceObject(first.get()), 2);
    ObjectRef<TestObject> second = first;
    EXPECT_EQ(ReferenceCount(first.get()), 3);
    EXPECT_EQ(ObfDereferenceObject(first.get()), 2);
    first = {};
    EXPECT_TRUE(log.empty());
    second = {};
    EXPECT_EQ(log, Happenings{"destroy"});
}

TEST(Object, IsDestroyedByAWorkerWhenTheLastReferenceGoesAtRaisedIrql) {
    Happenings log;
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
    EXPECT_EQ(log, Happenings{"destroy"});
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
    static Happenings log;
    TestObject* object = MakeTestObject(log).release();
    std::optional<BugcheckRecord> record;
    object->onDestroy = [&] { record = CatchBugcheck([&] { ReferenceObject(object); }); };
    DereferenceObject(object);
    EXPECT_TRUE(HasViolated(record, Rule::kObjectBadReference));
}

class NamedObject : public testing::Test {
protected:
    ~NamedObject() override {
        for (const char16_t* name :
             {u"\\Device\\Thing", u"\\??\\Alias", u"\\??\\Alias2", u"\\??\\Round", u"\\??\\Trip"}) {
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

    Happenings log_;
    ObjectRef<TestObject> object_ = MakeTestObject(log_);
};

TEST_F(NamedObject, IsFoundByNameAndThroughLinks) {
    ASSERT_EQ(InsertNamedObject(object_.get(), u"\\Device\\Thing"), STATUS_SUCCESS);
    ASSERT_EQ(InsertNameLink(u"\\DosDevices\\Alias", u"\\Device\\Thing"), STATUS_SUCCESS);
    ASSERT_EQ(InsertNameLink(u"\\??\\Alias2", u"\\??\\Alias"), STATUS_SUCCESS);
    ASSERT_EQ(InsertNameLink(u"\\??\\Round", u"\\??\\Trip"), STATUS_SUCCESS);
    ASSERT_EQ(InsertNameLink(u"\\??\\Trip", u"\\??\\Round"), STATUS_SUCCESS);
    const struct {
        const char16_t* path;
        NTSTATUS status;
    } cases[] = {
        {u"\\DEVICE\\tHING", STATUS_SUCCESS},
        {u"\\??\\Alias", STATUS_SUCCESS},
        {u"\\DosDevices\\ALIAS2", STATUS_SUCCESS},
        {u"\\??\\Round", STATUS_OBJECT_NAME_INVALID},
        {u"\\Device\\Other", STATUS_OBJECT_NAME_NOT_FOUND},
        {u"\\NoDirectory\\Thing", STATUS_OBJECT_PATH_NOT_FOUND},
        {u"\\Device\\Thing\\Below", STATUS_OBJECT_PATH_NOT_FOUND},
        {u"\\Device", STATUS_OBJECT_TYPE_MISMATCH},
        {u"Device\\Thing", STATUS_OBJECT_PATH_SYNTAX_BAD},
        {u"\\Device\\\\Thing", STATUS_OBJECT_NAME_INVALID},
        {u"\\Device\\Thing\\", STATUS_OBJECT_NAME_INVALID},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(Lookup(row.path), row.status) << ToUtf8(row.path);
    }
    RemoveName(u"\\DosDevices\\Alias");
    EXPECT_EQ(Lookup(u"\\??\\Alias"), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Lookup(u"\\Device\\Thing"), STATUS_SUCCESS) << "a link is not its target";
}

TEST_F(NamedObject, NamesAreTakenOnceAndFreeAfterwards) {
    ASSERT_EQ(InsertNamedObject(object_.get(), u"\\Device\\Thing"), STATUS_SUCCESS);
    EXPECT_EQ(InsertNamedObject(object_.get(), u"\\device\\THING"), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(InsertNameLink(u"\\Device\\Thing", u"\\Device"), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(ReferenceCount(object_.get()), 2);
    RemoveName(u"\\Device\\Thing");
    EXPECT_EQ(ReferenceCount(object_.get()), 1);
    EXPECT_EQ(InsertNamedObject(object_.get(), u"\\Device\\Thing"), STATUS_SUCCESS);
}

TEST_F(NamedObject, NameQueriesTellTheSizeFirst) {
    const auto header = static_cast<ULONG>(sizeof(UNICODE_STRING));
    for (const std::u16string_view name : {u"", u"\\Device\\Thing"}) {
        if (!name.empty()) {
            ASSERT_EQ(InsertNamedObject(object_.get(), name), STATUS_SUCCESS);
        }
        // A terminator belongs to every name but none.
        const ULONG size = name.empty() ? 0 : 2 * static_cast<ULONG>(name.size() + 1);
        struct {
            OBJECT_NAME_INFORMATION header;
            WCHAR text[16];
        } buffer;
        ULONG needed = 0;
        for (const ULONG length : {0u, header - 1, header + size - 1}) {
            std::memset(&buffer, 0xCC, sizeof(buffer));
            EXPECT_EQ(ObQueryNameString(object_.get(), &buffer.header, length, &needed),
                      STATUS_INFO_LENGTH_MISMATCH);
            EXPECT_EQ(needed, header + size);
            EXPECT_EQ(buffer.header.Name.Length, 0xCCCC) << "written although too small";
        }
        ASSERT_EQ(ObQueryNameString(object_.get(), &buffer.header, header + size, &needed),
                  STATUS_SUCCESS);
        EXPECT_EQ(needed, header + size);
        EXPECT_EQ(View(buffer.header.Name), name);
        EXPECT_EQ(buffer.header.Name.MaximumLength, size);
        EXPECT_EQ(buffer.header.Name.Buffer, name.empty() ? nullptr : buffer.text);
        EXPECT_EQ(buffer.text[size / 2], 0xCCCC);
    }
}

}  // namespace
}  // namespace platform
