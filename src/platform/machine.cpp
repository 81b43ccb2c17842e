#include "platform/machine.h"

#include "platform/kernel/driver_loader.h"
#include "platform/kernel/handle_table.h"
#include "platform/kernel/io.h"
#include "platform/kernel/pool.h"
#include "platform/kernel/process_notify.h"
#include "platform/kernel/process_table.h"
#include "platform/kernel/registry.h"
#include "platform/kernel/registry_callbacks.h"
#include "platform/kernel/system_keys.h"
#include "platform/kernel/system_thread.h"
#include "platform/kernel/time.h"
#include "platform/kernel/version.h"

#include <atomic>
#include <cstring>
#include <map>
#include <optional>
#include <stdexcept>

namespace platform {

namespace {

std::atomic<bool> machineExists{false};

/// Populations by object type that belong to the machine itself.
using Population = std::map<std::string, ObjectCensus>;

Population CountObjects() {
    Population population;
    for (const ObjectCensus& type : TakeObjectCensus()) {
        population[type.type] = type;
    }
    // Threads that host threads stand for, and processes that run, are nobody's leak.
    population[kThreadType.name].objects -= AttachedThreadCount();
    population[kProcessType.name].objects -= static_cast<long>(LiveProcesses().size());
    return population;
}

void DescribeCount(std::vector<std::string>& lines, long count, const std::string& what) {
    if (count > 0) lines.push_back(std::to_string(count) + " " + what);
}

/// Cuts a stopped machine off from its drivers: they are told of nothing any more. Their files stay
/// open for ever.
void AbandonDrivers() {
    static auto& abandoned = *new std::vector<ObjectRef<Process>>;  // never destroyed
    DropRegistryCallbacks();
    ForgetProcessNotifyRoutines();
    ForgetProviders();
    ForgetDrivers();
    ForgetNames();
    {
        const ThreadScope system(SystemProcess());
        CloseKernelHandles(&kFileType);
        CloseAllHandles(SystemProcess(), &kFileType);
    }
    for (const ObjectRef<Process>& process : LiveProcesses()) {
        const ThreadScope inProcess(*process);
        CloseAllHandles(*process, &kFileType);
        RemoveProcess(*process);
        if (!process->Handles().OpenHandles().empty()) abandoned.push_back(process);
    }
}

[[noreturn]] void Refuse(const std::string& message) {
    throw std::invalid_argument(message);
}

}  // namespace

struct Machine::State {
    Population populationAtBoot;
    std::map<std::uint32_t, std::size_t> blocksAtBoot;  ///< by pool tag
    bool forgotten = false;

    std::vector<std::string> DescribePool() const;
    std::vector<std::string> DescribeObjects() const;
    std::vector<std::string> DescribeRegistrations() const;
};

std::vector<std::string> Machine::State::DescribePool() const {
    std::vector<std::string> lines;
    for (const TagUsage& usage : ListPoolUsage()) {
        const auto found = blocksAtBoot.find(usage.tag);
        const std::size_t before = found == blocksAtBoot.end() ? 0 : found->second;
        if (usage.blocks > before) {
            lines.push_back("pool tag " + TagText(usage.tag) + ": " +
                            std::to_string(usage.blocks - before) + " blocks");
        }
    }
    return lines;
}

std::vector<std::string> Machine::State::DescribeObjects() const {
    std::vector<std::string> lines;
    for (const auto& [type, now] : CountObjects()) {
        const auto found = populationAtBoot.find(type);
        const bool known = found != populationAtBoot.end();
        DescribeCount(lines, now.objects - (known ? found->second.objects : 0),
                      "objects of type " + type);
        DescribeCount(lines, now.handles - (known ? found->second.handles : 0),
                      "handles of type " + type);
    }
    return lines;
}

std::vector<std::string> Machine::State::DescribeRegistrations() const {
    std::vector<std::string> lines = DescribeRegistryCallbacks();
    DescribeCount(lines, static_cast<long>(ProcessNotifyRoutineCount()), "process notify routines");
    DescribeCount(lines, static_cast<long>(RegisteredProviderCount()), "trace providers");
    DescribeCount(lines, static_cast<long>(RunningSystemThreads()), "running system threads");
    for (const std::u16string& name : LoadedDrivers()) {
        lines.push_back("driver " + ToUtf8(name) + " is loaded");
    }
    return lines;
}

Machine::Machine(const MachineOptions& options) : state_(std::make_unique<State>()) {
    if (machineExists.exchange(true)) {
        throw std::logic_error("Machine: another machine exists in this process");
    }
    SetVersion(options.majorVersion, options.minorVersion, options.buildNumber);
    StartClock();
    InitializeRegistry();
    CurrentThread();
    state_->populationAtBoot = CountObjects();
    for (const TagUsage& usage : ListPoolUsage()) {
        state_->blocksAtBoot[usage.tag] = usage.blocks;
    }
}

Machine::~Machine() {
    if (state_->forgotten) AbandonDrivers();
    for (const ObjectRef<Process>& process : LiveProcesses()) {
        ExitProcess(*process);
    }
    for (const std::u16string& name : LoadedDrivers()) {
        UnloadDriver(name);
    }
    DrainSystemWork();
    std::string left;
    Rule rule = Rule::kObjectLeaked;
    if (!state_->forgotten && VerifierEnabled()) {
        CheckPool();
        if (!state_->DescribePool().empty()) rule = Rule::kPoolLeaked;
        for (const std::string& line : FindLeaks().lines) {
            left += "\n  " + line;
        }
    }
    AbandonDrivers();
    DestroyRegistry();
    platform::SetSystemTime(0);
    StopClock();
    machineExists = false;
    state_.reset();
    if (left.empty()) return;
    left.insert(0, "left when the machine went down:");
    Violation(rule, std::move(left));
}

NTSTATUS Machine::LoadDriver(const DriverImage& image) {
    return LoadDriverImage(image);
}

NTSTATUS Machine::UnloadDriver(std::u16string_view name) {
    return UnloadDriverImage(name);
}

bool Machine::IsLoaded(std::u16string_view name) const {
    return IsDriverLoaded(name);
}

ObjectRef<Process> Machine::StartProcess(const ProcessOptions& options) {
    if (options.id % 4 != 0) {
        Refuse("StartProcess: process id " + std::to_string(options.id) +
               " is not a multiple of 4");
    }
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    ObjectRef<Process> process;
    do {
        const std::uintptr_t id = options.id != 0 ? options.id : AllocateId();
        process = ObjectRef<Process>::Adopt(
            CreateObject<Process>(kProcessType, id, options.parentId, options.imagePath,
                                  std::int64_t{now.QuadPart}, options.token));
        if (EnterProcess(*process)) break;
        if (options.id != 0) {
            Refuse("StartProcess: process id " + std::to_string(options.id) + " is in use");
        }
    } while (true);

    const ObjectRef<Process> parent = FindProcess(options.parentId);
    std::optional<ThreadScope> inParent;
    if (parent) inParent.emplace(*parent);
    if (NT_SUCCESS(NotifyProcessStart(*process))) return process;
    inParent.reset();
    ExitProcess(*process, STATUS_ACCESS_DENIED);
    return {};
}

void Machine::ExitProcess(Process& process, NTSTATUS) {
    const ObjectRef<Process> keep(&process);
    const ThreadScope inProcess(process);
    NotifyProcessExit(process);
    CloseAllHandles(process);
    RemoveProcess(process);
}

Process& Machine::SystemProcess() {
    return platform::SystemProcess();
}

void Machine::SetRegistryValue(std::u16string_view key, std::u16string_view value,
                               std::uint32_t type, const void* data, std::size_t size) {
    const NTSTATUS status = SetValueOfKey(key, value, type, data, size);
    if (!NT_SUCCESS(status)) {
        char number[16];
        std::snprintf(number, sizeof(number), "0x%08X", static_cast<unsigned>(status));
        Refuse("SetRegistryValue: " + ToUtf8(key) + ", value " + ToUtf8(value) + ": status " +
               number);
    }
}

void Machine::SetRegistryDword(std::u16string_view key, std::u16string_view value,
                               std::uint32_t number) {
    SetRegistryValue(key, value, REG_DWORD, &number, sizeof(number));
}

void Machine::SetRegistryString(std::u16string_view key, std::u16string_view value,
                                std::u16string_view text) {
    const std::u16string terminated(text);
    SetRegistryValue(key, value, REG_SZ, terminated.c_str(),
                     (terminated.size() + 1) * sizeof(char16_t));
}

void Machine::SetRegistryStrings(std::u16string_view key, std::u16string_view value,
                                 const std::vector<std::u16string>& texts) {
    std::u16string list;
    for (const std::u16string& text : texts) {
        list.append(text).push_back(u'\0');
    }
    SetRegistryValue(key, value, REG_MULTI_SZ, list.c_str(), (list.size() + 1) * sizeof(char16_t));
}

void Machine::NotifyShutdown() {
    const ThreadScope system(platform::SystemProcess());
    platform::NotifyShutdown();
}

void Machine::SetSystemTime(std::int64_t time) {
    platform::SetSystemTime(time);
}

Leaks Machine::FindLeaks() const {
    Leaks leaks{state_->DescribePool()};
    for (auto& lines : {state_->DescribeObjects(), state_->DescribeRegistrations()}) {
        leaks.lines.insert(leaks.lines.end(), lines.begin(), lines.end());
    }
    return leaks;
}

void Machine::ForgetLeaks() {
    state_->forgotten = true;
}

std::u16string ServiceKeyPath(std::u16string_view name) {
    return std::u16string(u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\")
        .append(name);
}

}  // namespace platform
