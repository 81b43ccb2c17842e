// Which sets and deletions of values are recorded, what the records hold, and what becomes of
// caller memory that cannot be read.
#include "driver/record_test.h"
#include "intercept/key_path.h"
#include "intercept/tracing.h"
#include "kernel/unreadable_memory.h"

namespace driver_test {

namespace {

using namespace zpregflt;
using platform::DeleteValue;
using platform::MakeKey;
using platform::SetValue;
using platform::UnreadableMemory;

/// "name type 3: data (size), was data (size)", sizes where not all was captured.
std::string DescribeSet(const RawRecord& record) {
    const auto set = record.At<ValueSetRecord>(0);
    const auto data = [&](ULONG offset, ULONG captured, ULONG size) {
        return record.Data(offset, captured) +
               (captured != size ? " (" + std::to_string(size) + ")" : "");
    };
    std::string text = record.Text(set.ValueNameOffset) + " type " + std::to_string(set.ValueType) +
                       ": " + data(ValueSetRecord::kDataOffset, set.CapturedLength, set.DataSize);
    if (set.PreviousOffset != 0) {
        EXPECT_EQ(set.PreviousOffset % 4, 0u);
        text += ", was " + data(set.PreviousOffset, set.PreviousCapturedLength, set.PreviousSize);
    }
    return text;
}

std::string Describe(const RawRecord& record) {
    switch (record.type) {
        case RecordType::kValueSet:
            return DescribeSet(record);
        case RecordType::kValueDeleted:
            return "deleted " + record.Text(NameRecord::kNameOffset);
        case RecordType::kKeyRenamed:
            return "renamed " + record.Text(NameRecord::kNameOffset);
        default:
            return "information " + std::to_string(record.Number(40)) + ": " +
                   record.Data(sizeof(InformationRecord), record.Number(44));
    }
}

using Lines = std::vector<std::string>;

class ValueRecordsTest : public RecordTest {
protected:
    /// What is recorded while `actions` run in the worker process, with one key of it open.
    template <typename Actions>
    Lines Recorded(Actions actions) {
        Lines lines;
        for (const RawRecord& record :
             RecordTest::Recorded({RecordType::kValueSet, RecordType::kValueDeleted,
                                   RecordType::kKeyRenamed, RecordType::kKeyInformationSet},
                                  actions)) {
            lines.push_back(Describe(record));
        }
        return lines;
    }

    void StartReporting(bool original, ULONG captureMaxSize = 0xFFFFFFFF) {
        SetParameter(u"Report", u"Original", original ? 1 : 0);
        SetParameter(u"Report", u"CaptureMaxSize", captureMaxSize);
        StartRecording(~0u);
        other_ = machine_->StartProcess({.imagePath = u"\\other.exe"});
    }
    void TearDown() override {
        if (other_) machine_->ExitProcess(*other_);
    }
    /// Another process sets a value of the same key.
    void SetElsewhere(std::u16string_view name, std::string_view data) {
        const ThreadScope thread(*other_);
        EXPECT_EQ(SetValue(MakeKey(kKey), name, 3, data), STATUS_SUCCESS);
    }
    /// Nobody that is watched does.
    void SetUnseen(std::u16string_view name, std::string_view data) {
        machine_->SetRegistryValue(kKey, name, 3, data.data(), data.size());
    }

    platform::ObjectRef<platform::Process> other_;
};

TEST_F(ValueRecordsTest, OnlyChangesAreRecorded) {
    StartReporting(false);
    EXPECT_EQ(Recorded([&](HANDLE key) {
                  SetValue(key, u"a", 3, "1");
                  SetValue(key, u"a", 3, "1");
                  SetValue(key, u"a", 1, "1");
                  SetValue(key, u"a", 1, "");
                  DeleteValue(key, u"a");
                  DeleteValue(key, u"a");
                  SetValue(key, u"a", 1, "");
              }),
              (Lines{"a type 3: 1", "a type 1: 1", "a type 1: ", "deleted a", "a type 1: "}));
    // What counts is what the process itself set last.
    EXPECT_EQ(Recorded([&](HANDLE key) {
                  SetValue(key, u"b", 3, "X");
                  SetElsewhere(u"b", "Y");
                  SetValue(key, u"b", 3, "X");
              }),
              (Lines{"b type 3: X", "b type 3: Y"}));
    // Failing that, what the registry holds; once asked, it is not asked again.
    SetUnseen(u"Path", "old");
    EXPECT_EQ(Recorded([&](HANDLE key) {
                  SetValue(key, u"Path", 3, "old");
                  const FaultPlan queries({.routine = "ZwQueryValueKey", .nth = 1000});
                  SetValue(key, u"Path", 3, "old");
                  EXPECT_EQ(queries.MatchingCalls(), 0u);
                  // Names in the cache have their case; those in the registry do not.
                  SetValue(key, u"PATH", 3, "old");
                  EXPECT_EQ(queries.MatchingCalls(), 2u);
              }),
              Lines{});
    // A key's node at a reused address is another key's: its values are unknown.
    EXPECT_EQ(Recorded([&](HANDLE key) {
                  for (int round = 0; round < 3; ++round) {
                      const KeyHandle sub =
                          MakeKey(std::u16string(kKey) + u"\\Sub" + char16_t(u'0' + round));
                      SetValue(sub, u"v", 3, "same");
                      NtDeleteKey(sub);
                  }
                  SetValue(key, u"c", 3, "1");
              }),
              (Lines{"v type 3: same", "v type 3: same", "v type 3: same", "c type 3: 1"}));
}

TEST_F(ValueRecordsTest, TheCacheForgetsWhatHasBeenIdleLongest) {
    StartReporting(false);
    const auto nameOf = [](int i) { return std::u16string(1, static_cast<char16_t>(u'a' + i)); };
    EXPECT_EQ(Recorded([&](HANDLE key) {
                  for (int i = 0; i < 16; ++i)
                      SetUnseen(nameOf(i), "0"), SetValue(key, nameOf(i), 3, "0");
                  SetValue(key, nameOf(0), 3, "0");  // not the oldest any more
                  SetValue(key, nameOf(16), 3, "new");
                  SetElsewhere(nameOf(0), "1");
                  SetElsewhere(nameOf(1), "1");
                  SetValue(key, nameOf(0), 3, "0");  // known to be what it was
                  SetValue(key, nameOf(1), 3, "0");  // forgotten
              }),
              (Lines{"q type 3: new", "a type 3: 1", "b type 3: 1", "b type 3: 0"}));
}

TEST_F(ValueRecordsTest, PreviousData) {
    StartReporting(true);
    SetUnseen(u"a", "before");
    SetUnseen(u"b", "before");
    EXPECT_EQ(Recorded([&](HANDLE key) {
                  SetValue(key, u"new", 3, "1");
                  SetValue(key, u"a", 3, "after");
                  // The record before this one tells.
                  SetValue(key, u"a", 3, "later");
                  // No record tells: it is read from the registry, whoever set it.
                  SetValue(key, u"b", 3, "before");
                  SetValue(key, u"b", 3, "after");
                  SetElsewhere(u"b", "elsewhere");
                  SetValue(key, u"b", 3, "last");
              }),
              (Lines{"new type 3: 1", "a type 3: after, was before", "a type 3: later",
                     "b type 3: after, was before", "b type 3: elsewhere, was after",
                     "b type 3: last, was elsewhere"}));
}

TEST_F(ValueRecordsTest, CaptureLimit) {
    StartReporting(true, 4);
    SetUnseen(u"a", "12345678");
    EXPECT_EQ(Recorded([&](HANDLE key) {
                  SetValue(key, u"a", 3, "abcdefgh");
                  // As long as what was captured, and equal to it: nothing new.
                  SetValue(key, u"a", 3, "abcd");
                  SetValue(key, u"a", 3, "abcdefgh");
              }),
              (Lines{"a type 3: abcd (8), was 1234 (8)", "a type 3: abcd (8)"}));
    EXPECT_EQ(TheClient().SetNumber(IOCTL_ZPRF_SET_CAPTURE_MAX_SIZE, 0), STATUS_SUCCESS);
    EXPECT_EQ(Recorded([](HANDLE key) { SetValue(key, u"b", 3, "abc"); }), Lines{"b type 3:  (3)"});
}

/// Operations with memory that the configuration manager does not have.
class ValueNotifier : public Notifier {
public:
    using Notifier::Notifier;

    struct Setting {
        PUNICODE_STRING name;
        const void* data;
    };
    /// A whole operation that succeeds; between the notifications the caller's memory goes from
    /// `before` to `after`.
    void Set(Setting before, Setting after, std::size_t size) {
        REG_SET_VALUE_KEY_INFORMATION set = {};
        set.ValueName = before.name;
        set.Type = REG_BINARY;
        set.Data = const_cast<void*>(before.data);
        set.DataSize = static_cast<ULONG>(size);
        Before(RegNtPreSetValueKey, set);
        set.ValueName = after.name;
        set.Data = const_cast<void*>(after.data);
        After(RegNtPostSetValueKey, set);
    }
    void Set(PUNICODE_STRING name, const std::string& data) {
        Set({name, data.data()}, {name, data.data()}, data.size());
    }
    void Delete(PUNICODE_STRING name) {
        REG_DELETE_VALUE_KEY_INFORMATION deletion = {};
        deletion.ValueName = name;
        After(RegNtPostDeleteValueKey, deletion);
    }
    void Rename(PUNICODE_STRING name, NTSTATUS status = STATUS_SUCCESS) {
        REG_RENAME_KEY_INFORMATION rename = {};
        rename.NewName = name;
        After(RegNtPostRenameKey, rename, status);
    }
    void SetInformation(const void* data, ULONG size) {
        REG_SET_INFORMATION_KEY_INFORMATION set = {};
        set.KeySetInformation = const_cast<void*>(data);
        set.KeySetInformationLength = size;
        After(RegNtPostSetInformationKey, set);
    }
};

UNICODE_STRING NameAt(void* memory, std::size_t bytes) {
    return {static_cast<USHORT>(bytes), static_cast<USHORT>(bytes), static_cast<PWSTR>(memory)};
}

/// Around what fits into an entry, a chunk of a comparison and an aligned word.
constexpr std::size_t kSizes[] = {1, 2, 8, 31, 32, 33, 255, 256, 257, 1000};

TEST_F(ValueRecordsTest, DataThatCannotBeRead) {
    StartReporting(true);
    UnreadableMemory memory;
    for (const std::size_t size : kSizes) {
        const std::string data(size, 'd');
        const std::string other(size, 'o');
        const std::string lost = "v type 3:  (" + std::to_string(size) + ")";
        SetUnseen(u"held", data);
        for (const std::size_t readable : {std::size_t{0}, size / 2, size - 1}) {
            SCOPED_TRACE(std::to_string(readable) + " of " + std::to_string(size));
            const void* const bad = memory.Place(data, readable);
            EXPECT_EQ(Recorded([&](HANDLE key) {
                          UNICODE_STRING heldName = platform::Describe(u"held");
                          UNICODE_STRING name = platform::Describe(u"v");
                          ValueNotifier notifier(key);
                          // Nothing to compare it with: it is a change.
                          notifier.Set({&name, bad}, {&name, bad}, size);
                          // The cache now holds no data, so that this is one, too; what the
                          // process sets afterwards is known again.
                          notifier.Set(&name, data);
                          // A held entry keeps what it knows when the new data go away.
                          notifier.Set({&name, other.data()}, {&name, bad}, size);
                          notifier.Set(&name, data);
                          // Not to be compared with what is known: no change.
                          notifier.Set({&name, bad}, {&name, bad}, size);
                          notifier.Set({&heldName, bad}, {&heldName, bad}, size);
                          notifier.Delete(&name);
                          notifier.Delete(&heldName);
                          // The system call itself refuses such data.
                          EXPECT_EQ(NtSetValueKey(key, &name, 0, 3, const_cast<void*>(bad),
                                                  static_cast<ULONG>(size)),
                                    STATUS_ACCESS_VIOLATION);
                      }),
                      (Lines{lost, "v type 3: " + data, lost, "deleted v", "deleted held"}));
            EXPECT_EQ(Recorded([&](HANDLE key) {
                          ValueNotifier(key).SetInformation(bad, static_cast<ULONG>(size));
                          ValueNotifier(key).SetInformation(data.data(), static_cast<ULONG>(size));
                      }),
                      (Lines{"information 0: ", "information 0: " + data}));
        }
    }
}

/// Listens to the traces of operations.
class OperationTraces {
public:
    explicit OperationTraces(UCHAR level) { controller_.Enable(level, TRACE_OPERATION); }

    /// How many of this level have a message with `text`.
    std::size_t Count(UCHAR level, std::string_view text) const {
        return static_cast<std::size_t>(
            std::count_if(events_.begin(), events_.end(), [&](const auto& event) {
                return event.descriptor.Level == level &&
                       event.NarrowText(0).find(text) != std::string::npos;
            }));
    }

private:
    std::vector<platform::TraceEvent> events_;
    platform::TraceController controller_{
        kTraceProviderId, [this](const platform::TraceEvent& event) { events_.push_back(event); }};
};

/// What cannot be read is recorded as empty, traced or not; nothing is taken for the default value,
/// whose name is empty.
TEST_F(ValueRecordsTest, NamesThatCannotBeRead) {
    StartReporting(false);
    UnreadableMemory characters;
    UnreadableMemory descriptor;
    const std::string text(1000, 'n');
    std::vector<UNICODE_STRING> lost;
    for (const std::size_t size : {2u, 4u, 32u, 34u, 256u, 1000u}) {
        for (const std::size_t readable : {std::size_t{0}, std::size_t{1}, size / 2, size - 1})
            lost.push_back(NameAt(characters.Place(text, readable), size));
    }
    std::vector<UNICODE_STRING*> names = {static_cast<PUNICODE_STRING>(descriptor.Place("", 0)),
                                          static_cast<PUNICODE_STRING>(descriptor.Place("\2\0", 2)),
                                          nullptr};
    for (UNICODE_STRING& name : lost)
        names.push_back(&name);
    for (UNICODE_STRING* const bad : names) {
        for (const UCHAR level : {UCHAR{0}, TRACE_LEVEL_VERBOSE}) {
            SCOPED_TRACE(testing::Message() << bad << " traced at " << int{level});
            const OperationTraces traces(level);
            EXPECT_EQ(Recorded([&](HANDLE key) {
                          UNICODE_STRING good = platform::Describe(u"v");
                          ValueNotifier notifier(key);
                          // Lost on the way: the default value is not known to have been set.
                          notifier.Set({&good, "new"}, {bad, "new"}, 3);
                          SetValue(key, u"", 3, "new");
                          SetValue(key, u"", 3, text);
                          notifier.Set(bad, "new");
                          notifier.Delete(bad);
                          notifier.Rename(bad);
                          // The key still has its name, and the default value its entry.
                          const FaultPlan queries({.routine = "ZwQueryValueKey", .nth = 1000});
                          EXPECT_EQ(SetValue(key, u"", 3, text), STATUS_SUCCESS);
                          EXPECT_EQ(queries.MatchingCalls(), 0u);
                      }),
                      (Lines{" type 3: new", " type 3: new", " type 3: " + text, " type 3: new",
                             "deleted ", "renamed "}));
        }
    }
}

/// Half a character is none, in the record and in the cache.
TEST_F(ValueRecordsTest, NamesOfHalfCharacters) {
    StartReporting(false);
    EXPECT_EQ(Recorded([&](HANDLE key) {
                  UNICODE_STRING name = platform::Describe(u"value");
                  name.Length -= 1;
                  ValueNotifier notifier(key);
                  notifier.Set(&name, "1");
                  SetValue(key, u"valu", 3, "1");
                  notifier.Delete(&name);
                  SetUnseen(u"valu", "2");
                  SetValue(key, u"valu", 3, "1");
                  notifier.Rename(&name);
              }),
              (Lines{"valu type 3: 1", "deleted valu", "valu type 3: 1", "renamed valu"}));
}

/// A rename's record needs no memory but its own; for want of it the tree keeps the old name.
TEST_F(ValueRecordsTest, RenameWithoutMemory) {
    StartReporting(false);
    UNICODE_STRING name = platform::Describe(u"New");
    const std::vector<RawRecord> records = RecordTest::Recorded(
        {RecordType::kKeyRenamed, RecordType::kKeyInformationSet}, [&](HANDLE key) {
            ValueNotifier notifier(key);
            notifier.SetInformation("", 0);  // from now on the key has its entry
            const FaultPlan plan({.routine = "ExAllocatePoolWithTag", .tag = kKeyPathTag});
            notifier.Rename(&name, STATUS_ACCESS_DENIED);
            EXPECT_EQ(plan.MatchingCalls(), 0u) << "nothing is done for a failed rename";
            notifier.Rename(&name);
            EXPECT_TRUE(plan.Fired());
            notifier.SetInformation("", 0);
        });
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(Describe(records[1]), "renamed New");
    EXPECT_EQ(records[2].key, kKey);
}

/// A key whose path cannot be had: the set is recorded as a change, and the trace tells why.
TEST_F(ValueRecordsTest, KeyWithoutPath) {
    StartReporting(true);
    constexpr UCHAR kWarning = TRACE_LEVEL_WARNING;
    constexpr UCHAR kInformation = TRACE_LEVEL_INFORMATION;
    const struct {
        UCHAR level;
        ULONG call;  ///< of ObQueryNameString; the trace of the set itself makes two
        std::size_t information, warnings;
    } cases[] = {
        {kWarning, 1, 0, 0}, {kWarning, 2, 0, 1}, {kInformation, 3, 1, 0}, {kInformation, 4, 1, 1}};
    for (const auto& c : cases) {
        SetUnseen(u"v", "old");
        EXPECT_EQ(Recorded([&](HANDLE key) {
                      NtFlushKey(key);  // from now on the key has its entry
                      const OperationTraces traces(c.level);
                      const FaultPlan plan({.routine = "ObQueryNameString", .nth = c.call});
                      SetValue(key, u"v", 3, "old");
                      EXPECT_TRUE(plan.Fired());
                      EXPECT_EQ(traces.Count(kInformation, "path unavailable"), c.information);
                      EXPECT_EQ(traces.Count(kWarning, "path not read"), c.warnings);
                      DeleteValue(key, u"v");
                  }),
                  (Lines{"v type 3: old", "deleted v"}));
    }
}

}  // namespace

}  // namespace driver_test
