#include "driver/driver_fixture.h"

#include "client/record_decoder.h"
#include "driver/driver_entry.h"
#include "platform/kernel/io.h"

#include <unistd.h>
#include <cstdio>
#include <cstring>

namespace driver_test {

using zpregflt::RecordHeader;

platform::DriverImage MonitorImage() {
    return {u"zpregflt",
            FxDriverEntry,
            true,
            {std::begin(zpregflt::kPoolTags), std::end(zpregflt::kPoolTags)}};
}

// --- Buffers and what is in them -----------------------------------------------------------------

std::vector<Record> ReadChain(std::span<const std::byte> image) {
    std::vector<Record> records;
    zpregmon::RecordDecoder decoder(image);
    zpregmon::Event event;
    while (decoder.Next(event)) {
        Record record = {};
        std::memcpy(&record.header, event.Record().data(), sizeof(record.header));
        record.offset = image.size() - event.Record().size();
        if (event.Key()) record.key.emplace(*event.Key());
        records.push_back(std::move(record));
    }
    EXPECT_FALSE(decoder.Error()) << decoder.Error()->what << " at " << decoder.Error()->offset;
    return records;
}

std::vector<std::uint64_t> Marks(const std::vector<Record>& records) {
    std::vector<std::uint64_t> marks;
    for (const Record& record : records)
        marks.push_back(record.Mark());
    return marks;
}

std::vector<std::vector<std::byte>> ReadDump(const std::string& path) {
    std::vector<std::vector<std::byte>> images;
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        ADD_FAILURE() << "no dump file " << path;
        return images;
    }
    zpregflt::DumpBlockHeader header;
    while (std::fread(&header, 1, sizeof(header), file) == sizeof(header)) {
        EXPECT_EQ(header.Magic, zpregflt::kDumpBlockMagic);
        std::vector<std::byte> image(header.Length);
        EXPECT_EQ(std::fread(image.data(), 1, image.size(), file), image.size());
        images.push_back(std::move(image));
    }
    EXPECT_NE(std::feof(file), 0);
    std::fclose(file);
    return images;
}

Space::Space(std::uint32_t size, std::uint32_t flags, std::uint32_t sequence)
    : size_(size), sequence_(sequence) {
    address_ = zpregflt::MemReserve(&size_, &buffer_, &sequence_, flags);
    EXPECT_EQ(address_ == nullptr, buffer_ == nullptr);
}

void Space::Commit(std::uint64_t mark) const {
    auto* const header = static_cast<RecordHeader*>(address_);
    *header = {};
    header->Type = zpregflt::RecordType::kKeyFlushed;
    zpregflt::MemCommit(buffer_, header);
    header->SystemTime = mark;
}

void WriteMark(std::uint64_t mark, std::uint32_t size) {
    const Space space(size);
    ASSERT_TRUE(space);
    space.Commit(mark);
    space.Release();
}

std::vector<std::uint32_t> Sequences(LIST_ENTRY& list) {
    std::vector<std::uint32_t> sequences;
    for (PLIST_ENTRY entry = list.Flink; entry != &list; entry = entry->Flink)
        sequences.push_back(CONTAINING_RECORD(entry, EventBuffer, links)->sequence);
    return sequences;
}

// --- The client ----------------------------------------------------------------------------------

Loan::Loan(Client& client, std::size_t size) : client_(client), size_(size) {
    const ThreadScope thread(client.Owner());
    memory_ = static_cast<std::byte*>(platform::AllocateUserMemory(size));
    constexpr ACCESS_MASK kEventAllAccess = 0x1F0003;
    EXPECT_EQ(NtCreateEvent(&event_, kEventAllAccess, nullptr, NotificationEvent, FALSE),
              STATUS_SUCCESS);
}

Loan::~Loan() {
    if (IsOut()) {
        Cancel();
        Wait();
    }
    const ThreadScope thread(client_.Owner());
    NtClose(event_);
    platform::FreeUserMemory(memory_);
}

NTSTATUS Loan::Send() {
    const ThreadScope thread(client_.Owner());
    ioStatus_.Status = STATUS_PENDING;
    const NTSTATUS status = NtDeviceIoControlFile(client_.Device(), event_, nullptr, nullptr,
                                                  &ioStatus_, zpregflt::IOCTL_ZPRF_GET_BUFFER,
                                                  nullptr, 0, memory_, static_cast<ULONG>(size_));
    if (status != STATUS_PENDING) ioStatus_.Status = status;
    return __atomic_load_n(&ioStatus_.Status, __ATOMIC_ACQUIRE);
}

bool Loan::IsOut() const {
    return __atomic_load_n(&ioStatus_.Status, __ATOMIC_ACQUIRE) == STATUS_PENDING;
}

NTSTATUS Loan::Wait() const {
    const ThreadScope thread(client_.Owner());
    EXPECT_EQ(NtWaitForSingleObject(event_, FALSE, nullptr), STATUS_SUCCESS);
    return ioStatus_.Status;
}

void Loan::Cancel() {
    const ThreadScope thread(client_.Owner());
    IO_STATUS_BLOCK ioStatus = {};
    EXPECT_EQ(NtCancelIoFileEx(client_.Device(), &ioStatus_, &ioStatus), STATUS_SUCCESS);
}

HANDLE OpenFile(std::u16string_view name, ACCESS_MASK access, ULONG disposition, ULONG options) {
    UNICODE_STRING text = platform::Describe(name);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &text, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    HANDLE file = nullptr;
    IO_STATUS_BLOCK ioStatus = {};
    const NTSTATUS status = NtCreateFile(&file, access, &attributes, &ioStatus, nullptr, 0, 0,
                                         disposition, options, nullptr, 0);
    return NT_SUCCESS(status) ? file : nullptr;
}

NTSTATUS Client::Open() {
    const ThreadScope thread(process_);
    constexpr ACCESS_MASK kAccess = GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE;
    device_ = OpenFile(kDeviceName, kAccess, FILE_OPEN, 0);
    control_ = OpenFile(kDeviceName, kAccess, FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT);
    return device_ != nullptr && control_ != nullptr ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}

void Client::Close() {
    const ThreadScope thread(process_);
    for (HANDLE* file : {&device_, &control_}) {
        if (*file != nullptr) NtClose(std::exchange(*file, nullptr));
    }
}

NTSTATUS Client::Control(ULONG code, const void* input, std::size_t inputLength, void* output,
                         std::size_t outputLength, std::size_t* information) const {
    const ThreadScope thread(process_);
    IO_STATUS_BLOCK ioStatus = {};
    const NTSTATUS status = NtDeviceIoControlFile(
        control_, nullptr, nullptr, nullptr, &ioStatus, code, const_cast<void*>(input),
        static_cast<ULONG>(inputLength), output, static_cast<ULONG>(outputLength));
    if (information != nullptr) *information = ioStatus.Information;
    return status;
}

NTSTATUS Client::SetDumpFile(const std::string& path) const {
    const ThreadScope thread(process_);
    HANDLE file = OpenFile(platform::HostFileName(path), GENERIC_WRITE | SYNCHRONIZE,
                           FILE_OVERWRITE_IF, FILE_SYNCHRONOUS_IO_NONALERT);
    EXPECT_NE(file, nullptr) << path;
    const NTSTATUS status =
        SetNumber(zpregflt::IOCTL_ZPRF_SET_DUMP_FILE,
                  static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(file)));
    NtClose(file);
    return status;
}

std::unique_ptr<Loan> Client::Lend(std::size_t size) {
    auto loan = std::make_unique<Loan>(*this, size);
    EXPECT_EQ(loan->Send(), STATUS_PENDING);
    return loan;
}

// --- The fixture ---------------------------------------------------------------------------------

DriverTest::DriverTest()
    : dumpPath_(testing::TempDir() + "zpregflt_driver_test_" + std::to_string(::getpid())) {
    Boot({});
}

DriverTest::~DriverTest() {
    client_.reset();
    clientProcess_ = {};
    worker_ = {};
    machine_.reset();
    std::remove(dumpPath_.c_str());
}

void DriverTest::Boot(const platform::MachineOptions& options) {
    machine_.reset();
    machine_.emplace(options);
    machine_->SetRegistryStrings(platform::ServiceKeyPath(u"zpklib"), u"TrustedImages",
                                 {kClientImage});
}

std::u16string DriverTest::ParameterKey(std::u16string_view subkey) {
    return platform::ServiceKeyPath(u"zpregflt") + u"\\Parameters\\" + std::u16string(subkey);
}

void DriverTest::SetParameter(std::u16string_view subkey, std::u16string_view value,
                              std::uint32_t number) {
    machine_->SetRegistryDword(ParameterKey(subkey), value, number);
}

void DriverTest::StartProcesses() {
    clientProcess_ = machine_->StartProcess({.imagePath = kClientImage});
    worker_ = machine_->StartProcess({.imagePath = kWorkerImage});
    client_.emplace(*clientProcess_);
    ASSERT_EQ(client_->Open(), STATUS_SUCCESS);
}

void DriverTest::Start() {
    ASSERT_EQ(machine_->LoadDriver(LibraryImage()), STATUS_SUCCESS);
    ASSERT_EQ(machine_->LoadDriver(MonitorImage()), STATUS_SUCCESS);
    StartProcesses();
}

void DriverTest::StartWithoutBootBuffers() {
    ASSERT_EQ(machine_->LoadDriver(LibraryImage()), STATUS_SUCCESS);
    {
        const FaultPlan plan({.routine = "ExAllocatePoolWithTag", .tag = MakeTag("ZRsp")});
        ASSERT_EQ(machine_->LoadDriver(MonitorImage()), STATUS_SUCCESS);
        ASSERT_TRUE(plan.Fired());
    }
    StartProcesses();
}

void DriverTest::StartRecording(zpregflt::OperationMask operations) {
    SetParameter(u"Report", u"Operations", operations);
    Start();
}

void DriverTest::Stop() {
    client_.reset();
    for (auto* process : {&clientProcess_, &worker_}) {
        if (*process) machine_->ExitProcess(**process);
        *process = {};
    }
    EXPECT_EQ(machine_->UnloadDriver(u"zpregflt"), STATUS_SUCCESS);
    EXPECT_EQ(machine_->UnloadDriver(u"zpklib"), STATUS_SUCCESS);
    for (const std::string& line : machine_->FindLeaks().lines)
        ADD_FAILURE() << line;
}

zpregflt::KeyObjectContext* ContextOf(HANDLE key) {
    PVOID object = nullptr;
    EXPECT_EQ(ObReferenceObjectByHandle(key, 0, *CmKeyObjectType, KernelMode, &object, nullptr),
              STATUS_SUCCESS);
    // Swapped out and back in: nobody else uses the key object meanwhile.
    LARGE_INTEGER cookie = State.CallbackCookie;
    PVOID context = nullptr;
    EXPECT_EQ(CmSetCallbackObjectContext(object, &cookie, nullptr, &context), STATUS_SUCCESS);
    if (context != nullptr) {
        EXPECT_EQ(CmSetCallbackObjectContext(object, &cookie, context, nullptr), STATUS_SUCCESS);
    }
    ObfDereferenceObject(object);
    return static_cast<zpregflt::KeyObjectContext*>(context);
}

Counters CountersOf(ULONG notifyClass) {
    const zpregflt::OperationEntry& row = zpregflt::OperationTable[notifyClass];
    return {row.Hit, row.Fail, row.Filter, row.Log};
}

}  // namespace driver_test
