// Every call that the driver makes on the road of an operation is made to fail in turn.
#include "driver/driver_state.h"
#include "platform/kernel/io.h"
#include "records/record_format.h"
#include "stress/stress_test.h"

#include <gtest/gtest.h>

#include <string>

namespace stress {

namespace {

using zpregflt::RecordType;

RecordId Id(RecordType type, const std::u16string& key) {
    return {static_cast<std::uint32_t>(type), key};
}

/// One process's visit to two keys of its own: every operation that is recorded, and those that
/// take the other roads (a key that exists, values that change or do not, short and long).
class Visit {
public:
    explicit Visit(int number)
        : key_(u"\\REGISTRY\\MACHINE\\visit" + platform::ToUtf16(std::to_string(number))) {}

    /// Every operation succeeds, whatever becomes of the driver's own calls.
    void Run(platform::Machine& machine) {
        HANDLE created = Create();
        HANDLE again = Create();
        // A value that the process comes to know without a record.
        machine.SetRegistryDword(key_, u"known", 1);
        Set(again, u"known", std::string("\1\0\0\0", 4), REG_DWORD);
        SetValues(again);
        EXPECT_EQ(NtFlushKey(again), STATUS_SUCCESS);
        std::u16string newName = key_.substr(key_.rfind(u'\\') + 1) + u"r";
        UNICODE_STRING renamed = platform::Describe(newName);
        EXPECT_EQ(NtRenameKey(created, &renamed), STATUS_SUCCESS);
        EXPECT_EQ(NtDeleteKey(again), STATUS_SUCCESS);
        EXPECT_EQ(NtClose(created), STATUS_SUCCESS);
        EXPECT_EQ(NtClose(again), STATUS_SUCCESS);
    }

    /// What a visit without a failure leaves; with one, some may be missing or lack their name.
    RecordCounts Expected() const {
        const std::u16string after = key_ + u"r";
        return {{Id(RecordType::kKeyCreated, key_), 1},   {Id(RecordType::kValueSet, key_), 5},
                {Id(RecordType::kValueDeleted, key_), 1}, {Id(RecordType::kKeyFlushed, key_), 1},
                {Id(RecordType::kKeyRenamed, key_), 1},   {Id(RecordType::kKeyDeleted, after), 1}};
    }

    /// A rename through a key object that has no context, because attaching it failed, does not
    /// reach the key-name tree: the key then keeps its old name there.
    bool IsNameOf(const std::u16string& key) const { return key == key_ || key == key_ + u"r"; }

private:
    HANDLE Create() const {
        UNICODE_STRING name = platform::Describe(key_);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        HANDLE key = nullptr;
        EXPECT_EQ(NtCreateKey(&key, KEY_ALL_ACCESS, &attributes, 0, nullptr, 0, nullptr),
                  STATUS_SUCCESS);
        return key;
    }

    static void Set(HANDLE key, const std::u16string& valueName, const std::string& data,
                    ULONG type = REG_BINARY) {
        UNICODE_STRING name = platform::Describe(valueName);
        EXPECT_EQ(NtSetValueKey(key, &name, 0, type, const_cast<char*>(data.data()),
                                static_cast<ULONG>(data.size())),
                  STATUS_SUCCESS);
    }

    static void SetValues(HANDLE key) {
        const std::u16string longName(40, u'n');
        Set(key, u"known", "known no more");
        Set(key, u"v", "short");
        Set(key, u"v", "short");
        Set(key, u"v", std::string(100, 'l'));
        Set(key, longName, "short");
        Set(key, longName, std::string(100, 'l'));
        UNICODE_STRING name = platform::Describe(longName);
        EXPECT_EQ(NtDeleteValueKey(key, &name), STATUS_SUCCESS);
    }

    std::u16string key_;
};

class FaultWalkTest : public StressTest, public testing::WithParamInterface<const char*> {
protected:
    void SetUp() override {
        Boot(zpregflt::operation::kCreateKeyEx | zpregflt::operation::kFlushKey);
    }

    /// A process of its own makes the visit, with the `nth` call of the routine failing. False:
    /// there is no nth call.
    bool VisitWithFault(Visit& visit, std::uint64_t nth) {
        const auto process = StartMonitored();
        bool fired = false;
        {
            const platform::ThreadScope thread(*process);
            const platform::FaultPlan plan(
                {.routine = GetParam(), .nth = nth, .thisThreadOnly = true});
            visit.Run(machine_);
            fired = plan.Fired();
        }
        machine_.ExitProcess(*process);
        return fired;
    }
};

/// Records without a name count for what they are of.
int CountOf(const RecordCounts& counts, RecordType type) {
    int count = 0;
    for (const auto& [id, each] : counts) {
        if (id.first == static_cast<std::uint32_t>(type)) count += each;
    }
    return count;
}

void ExpectNothingWrong(const RecordCounts& delivered, const Visit& visit) {
    const RecordCounts expected = visit.Expected();
    for (const auto& [id, count] : delivered) {
        EXPECT_TRUE(id.second == u"(no name)" || visit.IsNameOf(id.second))
            << "type " << id.first << " of " << platform::ToUtf8(id.second);
        const auto type = static_cast<RecordType>(id.first);
        EXPECT_LE(CountOf(delivered, type), CountOf(expected, type) + 1)
            << "a set that changes nothing may be taken for a change when the cache has no memory";
    }
}

TEST_P(FaultWalkTest, NothingBreaksAndNoRecordIsWrong) {
    std::uint64_t nth = 1;
    for (bool fired = true; fired; ++nth) {
        Visit visit(static_cast<int>(nth));
        LendingClient client(*client_, 2, 1);
        client.Step(false);
        fired = VisitWithFault(visit, nth);
        client.Finish();
        ASSERT_TRUE(client.Faults().empty()) << client.Faults().front();
        if (fired) {
            ExpectNothingWrong(client.Delivered(), visit);
        } else {
            EXPECT_EQ(client.Delivered(), visit.Expected());
        }
    }
    EXPECT_GT(nth, 2U) << "the routine is not called on the road";
}

INSTANTIATE_TEST_SUITE_P(Road, FaultWalkTest,
                         testing::Values("ExAllocatePoolWithTag",
                                         "ExAllocateFromPagedLookasideList", "ObQueryNameString",
                                         "CmSetCallbackObjectContext", "ZwOpenKey",
                                         "ZwQueryValueKey"),
                         [](const auto& routine) { return std::string(routine.param); });

}  // namespace

}  // namespace stress
