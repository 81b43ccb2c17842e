// Every operation of the registry, as callers perform it: which counters it moves behind which
// gate, what its trace says, and that its outcome is its own.
#include "driver/driver_fixture.h"
#include "intercept/tracing.h"
#include "kernel/hive_fixture.h"

#include <fmt/format.h>
#include <unistd.h>
#include <cstdio>

namespace driver_test {

namespace {

using namespace zpregflt;
using platform::Describe;
using platform::Named;

constexpr char16_t kRoot[] = u"\\REGISTRY\\MACHINE";
constexpr char16_t kGateKey[] = u"\\REGISTRY\\MACHINE\\Gate";
const std::string kPath = testing::TempDir() + "zpregflt_gates_test_" + std::to_string(::getpid());
constexpr char16_t kHiveKey[] = u"\\REGISTRY\\MACHINE\\GateHive";

/// What an operation has to work on, in the process that performs it.
struct Scene {
    KeyHandle root, key;  ///< the key has the subkey Sub and the value Value
    HANDLE file = nullptr;
    char answer[512] = {};
    ULONG length = 0;

    Scene()
        : root(platform::OpenKeyOf(kRoot).key),
          key(platform::MakeKey(kGateKey, {.access = KEY_ALL_ACCESS | ACCESS_SYSTEM_SECURITY})) {
        const KeyHandle subkey = platform::MakeKey(u"\\REGISTRY\\MACHINE\\Gate\\Sub");
        platform::SetValue(key, u"Value", REG_BINARY, "123");
        file = OpenFile(platform::HostFileName(kPath + ".hive"),
                        GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, FILE_OPEN_IF,
                        FILE_SYNCHRONOUS_IO_NONALERT);
        EXPECT_EQ(NtSaveKey(key, file), STATUS_SUCCESS);
    }
    ~Scene() {
        NtClose(file);
        std::remove((kPath + ".hive").c_str());
        std::remove((kPath + ".old").c_str());
    }
    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;
};

struct Operation {
    const char* name;
    OperationMask bit;
    REG_NOTIFY_CLASS before, after;
    /// Of the post-notification's row: whether it counts operations that the opener does not watch,
    /// whether it counts failures, and whether an operation that passes leaves a record.
    bool filters, countsFailures, records;
    bool filtersBefore;  ///< the pre-notification's row counts them, too
    const char* trace;   ///< behind the path; null: none, or told elsewhere
    NTSTATUS (*perform)(Scene& scene);
};

Named FileNamed(const char* suffix) {
    return Named(platform::HostFileName(kPath + suffix));
}

NTSTATUS Load(Scene& scene) {
    return NtLoadKey(Named(u"GateHive", scene.root).Get(), FileNamed(".hive").Get());
}

NTSTATUS Unload(Scene&) {
    return NtUnloadKey(Named(kHiveKey).Get());
}

NTSTATUS Replace(Scene& scene) {
    return NtReplaceKey(FileNamed(".hive").Get(), scene.key, FileNamed(".old").Get());
}

NTSTATUS QueryValues(Scene& scene) {
    UNICODE_STRING name = Describe(u"Value");
    KEY_VALUE_ENTRY entries[] = {{&name, 0, 0, 0}, {&name, 0, 0, 0}};
    scene.length = sizeof(scene.answer);
    return NtQueryMultipleValueKey(scene.key, entries, 2, scene.answer, &scene.length, nullptr);
}

NTSTATUS QueryValue(Scene& scene) {
    UNICODE_STRING name = Describe(u"Value");
    return NtQueryValueKey(scene.key, &name, KeyValuePartialInformation, scene.answer,
                           sizeof(scene.answer), &scene.length);
}

NTSTATUS SetSecurity(Scene& scene) {
    platform::SecurityDescriptor descriptor;
    EXPECT_EQ(platform::ParseSddl(u"D:(A;;KA;;;WD)", descriptor), STATUS_SUCCESS);
    return NtSetSecurityObject(scene.key, DACL_SECURITY_INFORMATION, descriptor.bytes.data());
}

NTSTATUS SetInformation(Scene& scene) {
    KEY_WRITE_TIME_INFORMATION time = {};
    return NtSetInformationKey(scene.key, KeyWriteTimeInformation, &time, sizeof(time));
}

NTSTATUS Rename(Scene& scene) {
    UNICODE_STRING name = Describe(u"Renamed");
    return NtRenameKey(scene.key, &name);
}

NTSTATUS Delete(Scene&) {
    return NtDeleteKey(platform::OpenKeyOf(u"\\REGISTRY\\MACHINE\\Gate\\Sub").key);
}

constexpr bool kYes = true, kNo = false;

// clang-format off
const Operation kOperations[] = {
    {"DeleteKey", 0x1, RegNtPreDeleteKey, RegNtPostDeleteKey, kNo, kNo, kYes, kNo,
     "DeleteKey, status 0", Delete},
    {"SetValueKey", 0x2, RegNtPreSetValueKey, RegNtPostSetValueKey, kYes, kNo, kYes, kYes,
     nullptr, [](Scene& scene) { return platform::SetValue(scene.key, u"New", REG_SZ, "data"); }},
    {"DeleteValueKey", 0x4, RegNtPreDeleteValueKey, RegNtPostDeleteValueKey, kNo, kYes, kYes, kNo,
     "DeleteValueKey Value", [](Scene& scene) { return platform::DeleteValue(scene.key, u"Value"); }},
    {"SetInformationKey", 0x8, RegNtPreSetInformationKey, RegNtPostSetInformationKey, kYes, kYes, kYes, kNo,
     "SetInformationKey class 0", SetInformation},
    {"RenameKey", 0x10, RegNtPreRenameKey, RegNtPostRenameKey, kNo, kNo, kYes, kNo,
     "RenameKey to Renamed, status 0", Rename},
    {"EnumerateKey", 0x20, RegNtPreEnumerateKey, RegNtPostEnumerateKey, kYes, kYes, kYes, kNo,
     "EnumerateKey class 1", [](Scene& scene) {
         return NtEnumerateKey(scene.key, 0, KeyNodeInformation, scene.answer, 512, &scene.length); }},
    {"EnumerateValueKey", 0x40, RegNtPreEnumerateValueKey, RegNtPostEnumerateValueKey, kYes, kYes, kYes, kNo,
     "EnumerateValueKey 0, class 1", [](Scene& scene) {
         return NtEnumerateValueKey(scene.key, 0, KeyValueFullInformation, scene.answer, 512, &scene.length); }},
    {"QueryKey", 0x80, RegNtPreQueryKey, RegNtPostQueryKey, kYes, kYes, kYes, kNo,
     "QueryKey class 2", [](Scene& scene) {
         return NtQueryKey(scene.key, KeyFullInformation, scene.answer, 512, &scene.length); }},
    {"QueryValueKey", 0x100, RegNtPreQueryValueKey, RegNtPostQueryValueKey, kYes, kYes, kYes, kNo,
     "QueryValueKey Value class 2", QueryValue},
    {"QueryMultipleValueKey", 0x200, RegNtPreQueryMultipleValueKey, RegNtPostQueryMultipleValueKey, kYes, kYes, kYes, kNo,
     "QueryMultipleValueKey, 2 values", QueryValues},
    {"CreateKeyEx", 0x400, RegNtPreCreateKeyEx, RegNtPostCreateKeyEx, kNo, kYes, kYes, kNo,
     nullptr, [](Scene& scene) { return platform::CreateKeyOf(u"New", {.root = scene.key}).status; }},
    {"OpenKeyEx", 0x800, RegNtPreOpenKeyEx, RegNtPostOpenKeyEx, kNo, kYes, kNo, kNo,
     nullptr, [](Scene& scene) { return platform::OpenKeyOf(u"Sub", {.root = scene.key}).status; }},
    {"FlushKey", 0x1000, RegNtPreFlushKey, RegNtPostFlushKey, kYes, kYes, kYes, kNo,
     "FlushKey", [](Scene& scene) { return NtFlushKey(scene.key); }},
    {"LoadKey", 0x2000, RegNtPreLoadKey, RegNtPostLoadKey, kYes, kYes, kYes, kNo,
     "LoadKey GateHive from {}.hive", Load},
    // The key is gone when its unloading has ended: it has no name any more to make an entry from.
    {"UnLoadKey", 0x4000, RegNtPreUnLoadKey, RegNtPostUnLoadKey, kYes, kYes, kNo, kNo,
     nullptr, Unload},
    {"QueryKeySecurity", 0x8000, RegNtPreQueryKeySecurity, RegNtPostQueryKeySecurity, kYes, kYes, kYes, kNo,
     "QueryKeySecurity 5", [](Scene& scene) {
         return NtQuerySecurityObject(scene.key, 5, scene.answer, 512, &scene.length); }},
    {"SetKeySecurity", 0x10000, RegNtPreSetKeySecurity, RegNtPostSetKeySecurity, kYes, kNo, kYes, kYes,
     "DACL changed", SetSecurity},
    {"RestoreKey", 0x20000, RegNtPreRestoreKey, RegNtPostRestoreKey, kYes, kYes, kYes, kNo,
     "RestoreKey flags 8, file {}.hive", [](Scene& scene) {
         return NtRestoreKey(scene.key, scene.file, REG_FORCE_RESTORE); }},
    {"SaveKey", 0x40000, RegNtPreSaveKey, RegNtPostSaveKey, kYes, kYes, kYes, kNo,
     "SaveKey format 2, file {}.hive", [](Scene& scene) {
         return NtSaveKeyEx(scene.key, scene.file, REG_LATEST_FORMAT); }},
    {"ReplaceKey", 0x80000, RegNtPreReplaceKey, RegNtPostReplaceKey, kYes, kYes, kYes, kNo,
     "ReplaceKey, old file {}.old, new file {}.hive", Replace},
    {"KeyHandleClose", 0x100000, RegNtPreKeyHandleClose, RegNtPostKeyHandleClose, kYes, kYes, kYes, kNo,
     "KeyHandleClose", [](Scene& scene) { scene.root.Close(); return STATUS_SUCCESS; }},
    {"QueryKeyName", 0x200000, RegNtPreQueryKeyName, RegNtPostQueryKeyName, kYes, kYes, kYes, kNo,
     "QueryKeyName", [](Scene& scene) {
         return NtQueryObject(scene.key, ObjectNameInformation, scene.answer, 512, &scene.length); }},
};
// clang-format on

/// Refuses the operations of one class, after the driver has been told of them.
class Refusal {
public:
    explicit Refusal(REG_NOTIFY_CLASS notifyClass) : notifyClass_(notifyClass) {
        UNICODE_STRING altitude = Describe(u"1");
        EXPECT_EQ(CmRegisterCallbackEx(Called, &altitude, this, this, &cookie_, nullptr),
                  STATUS_SUCCESS);
    }
    ~Refusal() { CmUnRegisterCallback(cookie_); }
    Refusal(const Refusal&) = delete;
    Refusal& operator=(const Refusal&) = delete;

private:
    static NTSTATUS NTAPI Called(PVOID context, PVOID notifyClass, PVOID) {
        const auto refused = static_cast<ULONG_PTR>(static_cast<Refusal*>(context)->notifyClass_);
        return reinterpret_cast<ULONG_PTR>(notifyClass) == refused ? STATUS_ACCESS_DENIED
                                                                   : STATUS_SUCCESS;
    }
    REG_NOTIFY_CLASS notifyClass_;
    LARGE_INTEGER cookie_ = {};
};

/// The event's message with its arguments in it; addresses as "-".
std::string Render(const platform::TraceEvent& event) {
    const std::string message = event.NarrowText(0);
    std::string line;
    std::size_t argument = 0;
    for (std::size_t i = 0; i < message.size(); ++i) {
        if (message[i] != '%') {
            line += message[i];
            continue;
        }
        ++argument;
        switch (message[++i]) {
            case 'p':
                line += "-";
                break;
            case 'Z':
                line += platform::ToUtf8(event.Text(argument));
                break;
            case 's':
                line += event.NarrowText(argument);
                break;
            case 'x':
                line += fmt::format("{:x}", event.Number(argument));
                break;
            default:
                line += std::to_string(event.Number(argument));
        }
    }
    return line;
}

/// The operation's status and what it does to its two rows.
struct Outcome {
    NTSTATUS status;
    Counters before, after;
    bool operator==(const Outcome&) const = default;
    friend void PrintTo(const Outcome& outcome, std::ostream* out) {
        *out << std::hex << outcome.status << std::dec << ", before: ";
        PrintTo(outcome.before, out);
        *out << ", after: ";
        PrintTo(outcome.after, out);
    }
};

class OperationGatesTest : public DriverTest {
protected:
    void SetUp() override {
        SetParameter(u"Trace", u"Operations", 0);
        Start();
    }

    /// In a process of its own, for which these operations are recorded; `around` is told when the
    /// operation is about to begin and when it has ended.
    Outcome PerformIn(
        const char16_t* image, const Operation& operation, OperationMask recorded,
        const std::function<void(bool begins)>& around = [](bool) {}) {
        EXPECT_EQ(TheClient().SetNumber(IOCTL_ZPRF_SET_LOGGED_OPERATIONS, recorded),
                  STATUS_SUCCESS);
        const auto process = machine_->StartProcess({.imagePath = image});
        Outcome outcome;
        {
            const ThreadScope thread(*process);
            Scene scene;
            if (operation.perform == Unload) {
                EXPECT_EQ(Load(scene), STATUS_SUCCESS);
            }
            const Counters before = CountersOf(operation.before);
            const Counters after = CountersOf(operation.after);
            around(true);
            const NTSTATUS status = operation.perform(scene);
            outcome = {status, CountersOf(operation.before) - before,
                       CountersOf(operation.after) - after};
            around(false);
            CleanUp(scene);
        }
        machine_->ExitProcess(*process);
        return outcome;
    }

private:
    static void CleanUp(Scene& scene) {
        Unload(scene);
        for (const char16_t* name :
             {u"\\REGISTRY\\MACHINE\\Gate\\Sub", u"\\REGISTRY\\MACHINE\\Renamed\\Sub",
              u"\\REGISTRY\\MACHINE\\Gate\\New", kGateKey, u"\\REGISTRY\\MACHINE\\Renamed"})
            NtDeleteKey(platform::OpenKeyOf(name).key);
    }
};

TEST_F(OperationGatesTest, CountersAndOutcome) {
    constexpr Counters kHit = {1, 0, 0, 0};
    constexpr Counters kFailed = {1, 1, 0, 0};
    constexpr Counters kFiltered = {1, 0, 1, 0};
    constexpr Counters kLogged = {1, 0, 0, 1};
    for (const Operation& operation : kOperations) {
        SCOPED_TRACE(operation.name);
        const OperationMask bit = operation.bit;
        EXPECT_EQ(PerformIn(u"\\watched.exe", operation, bit),
                  (Outcome{STATUS_SUCCESS, kHit, operation.records ? kLogged : kHit}));
        EXPECT_EQ(PerformIn(u"\\unwatched.exe", operation, ~bit),
                  (Outcome{STATUS_SUCCESS, operation.filtersBefore ? kFiltered : kHit,
                           operation.filters ? kFiltered : kHit}));
        // The keys of a trusted process have no context.
        EXPECT_EQ(PerformIn(kClientImage, operation, bit), (Outcome{STATUS_SUCCESS, kHit, kHit}));
        if (bit == operation::kKeyHandleClose) continue;  // cannot be refused
        std::optional<Refusal> refusal;
        const auto refuse = [&](bool begins) {
            if (begins) refusal.emplace(operation.before);
        };
        EXPECT_EQ(PerformIn(u"\\refused.exe", operation, bit, refuse),
                  (Outcome{STATUS_ACCESS_DENIED, kHit, operation.countsFailures ? kFailed : kHit}));
    }
}

TEST_F(OperationGatesTest, Trace) {
    const std::string path = platform::ToUtf8(platform::HostFileName(kPath));
    for (const Operation& operation : kOperations) {
        if (operation.trace == nullptr) continue;
        std::vector<std::string> lines;
        platform::TraceController controller(
            kTraceProviderId, [&](const platform::TraceEvent& event) {
                EXPECT_EQ(event.descriptor.Level, TRACE_LEVEL_INFORMATION);
                lines.push_back(Render(event));
            });
        PerformIn(u"\\traced.exe", operation, operation.bit, [&](bool begins) {
            begins ? controller.Enable(TRACE_LEVEL_INFORMATION, TRACE_OPERATION)
                   : controller.Disable();
        });
        const std::string expected = ": " + fmt::format(fmt::runtime(operation.trace), path, path);
        const auto isIt = [&](const std::string& line) {
            return line.starts_with("process -, key - \\REGISTRY\\MACHINE") &&
                   line.ends_with(expected);
        };
        EXPECT_EQ(std::count_if(lines.begin(), lines.end(), isIt), 1)
            << expected << " in:\n"
            << testing::PrintToString(lines);
    }
}

}  // namespace

}  // namespace driver_test
