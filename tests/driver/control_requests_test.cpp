// The control device's requests: who may send them, their inputs and what they change.
#include "driver/driver_fixture.h"

#include <cstring>

namespace driver_test {

namespace {

using namespace zpregflt;

// Codes that the driver does not have, of the two ways in which a request carries its buffers and
// that differ in the driver; the last lacks the bit of the driver's own codes.
constexpr ULONG kUnknownBuffered = 0x22F0FC;
constexpr ULONG kUnknownNeither = 0x22F0FF;
constexpr ULONG kForeign = 0x220FFC & ~kControlCodeBit;

class ControlRequestsTest : public DriverTest {
protected:
    LONG Generation() const { return State.ExemptionGeneration; }
};

TEST_F(ControlRequestsTest, OnlyTrustedProcessesAreServed) {
    Start();
    std::byte exemption[14] = {std::byte{0}, std::byte{0}, std::byte{10}};
    exemption[10] = std::byte{'x'};
    const std::uint32_t number = 1;
    alignas(8) std::byte output[16] = {};
    const struct {
        ULONG code;
        const void* input;
        std::size_t inputLength;
        NTSTATUS trusted;
        NTSTATUS untrusted = STATUS_UNSUCCESSFUL;
    } cases[] = {
        {IOCTL_ZPRF_GET_BUFFER, nullptr, 0, STATUS_INVALID_PARAMETER},
        {IOCTL_ZPRF_EXEMPT_ADD, exemption, sizeof(exemption), STATUS_SUCCESS},
        {IOCTL_ZPRF_EXEMPT_REMOVE, exemption, sizeof(exemption), STATUS_SUCCESS},
        {IOCTL_ZPRF_EXEMPT_REMOVE_ALL, nullptr, 0, STATUS_SUCCESS},
        {IOCTL_ZPRF_FLUSH, nullptr, 0, STATUS_SUCCESS},
        {IOCTL_ZPRF_SET_DUMP_FILE, &number, 4, STATUS_INVALID_PARAMETER},
        {IOCTL_ZPRF_SET_LOGGED_OPERATIONS, &number, 4, STATUS_SUCCESS},
        {IOCTL_ZPRF_SET_CAPTURE_MAX_SIZE, &number, 4, STATUS_SUCCESS},
        {IOCTL_ZPRF_SET_REPORT_ORIGINAL, &number, 4, STATUS_SUCCESS},
        {kUnknownBuffered, nullptr, 0, STATUS_INVALID_DEVICE_REQUEST},
        {kUnknownNeither, nullptr, 0, STATUS_INVALID_DEVICE_REQUEST},
        {kForeign, nullptr, 0, STATUS_INVALID_DEVICE_REQUEST, STATUS_INVALID_DEVICE_REQUEST},
    };
    Client stranger(Worker());
    ASSERT_EQ(stranger.Open(), STATUS_SUCCESS);
    for (const auto& c : cases) {
        for (const bool trusted : {false, true}) {
            const Client& sender = trusted ? TheClient() : stranger;
            std::size_t information = 77;
            EXPECT_EQ(sender.Control(c.code, c.input, c.inputLength, output, sizeof(output),
                                     &information),
                      trusted ? c.trusted : c.untrusted)
                << std::hex << c.code << (trusted ? " trusted" : " untrusted");
            EXPECT_EQ(information, 0u) << std::hex << c.code;
        }
    }
    for (const std::byte byte : output)
        EXPECT_EQ(byte, std::byte{0}) << "no request but the buffer request has output";
    // A buffer is locked before anything is known of the code.
    EXPECT_EQ(
        TheClient().Control(kUnknownNeither, nullptr, 0, reinterpret_cast<void*>(0x10000), 16),
        STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(TheClient().Control(kUnknownNeither, nullptr, 0, nullptr, 16),
              STATUS_INVALID_PARAMETER);
}

TEST_F(ControlRequestsTest, ProcessThatTheLibraryDoesNotKnow) {
    Start();
    // Its end has been notified, and yet a thread of it is still at work.
    const auto process = machine_->StartProcess({.imagePath = kWorkerImage});
    machine_->ExitProcess(*process);
    Client client(*process);
    ASSERT_EQ(client.Open(), STATUS_SUCCESS);
    for (const ULONG code : {IOCTL_ZPRF_FLUSH, kUnknownBuffered, kForeign})
        EXPECT_EQ(client.Control(code), STATUS_INVALID_CID) << std::hex << code;
}

TEST_F(ControlRequestsTest, ReadsAndWritesAreRefused) {
    Start();
    const ThreadScope thread(Worker());
    const HANDLE file = OpenFile(kDeviceName, GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, FILE_OPEN,
                                 FILE_SYNCHRONOUS_IO_NONALERT);
    ASSERT_NE(file, nullptr) << "opening is not restricted to trusted processes";
    IO_STATUS_BLOCK ioStatus = {};
    char bytes[8] = {};
    LARGE_INTEGER offset = {};
    EXPECT_EQ(NtWriteFile(file, nullptr, nullptr, nullptr, &ioStatus, bytes, 8, &offset, nullptr),
              STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(NtReadFile(file, nullptr, nullptr, nullptr, &ioStatus, bytes, 8, &offset, nullptr),
              STATUS_INVALID_DEVICE_REQUEST);
    NtClose(file);
}

TEST_F(ControlRequestsTest, Settings) {
    SetParameter(u"Report", u"Original", 0x5500);
    Start();
    const struct {
        ULONG code;
        std::uint32_t number;
        volatile ULONG* setting;
        std::uint32_t expected;
    } cases[] = {
        {IOCTL_ZPRF_SET_LOGGED_OPERATIONS, 0x3FFFFF, &State.LoggedOperations, 0x3FFFFF},
        {IOCTL_ZPRF_SET_LOGGED_OPERATIONS, 0, &State.LoggedOperations, 0},
        {IOCTL_ZPRF_SET_CAPTURE_MAX_SIZE, 0xFFFFFFFF, &State.CaptureMaxSize, 0xFFFFFFFF},
        {IOCTL_ZPRF_SET_CAPTURE_MAX_SIZE, 16, &State.CaptureMaxSize, 16},
        // Of the flag only the low-order byte is written.
        {IOCTL_ZPRF_SET_REPORT_ORIGINAL, 0x100, &State.ReportOriginal, 0x5501},
        {IOCTL_ZPRF_SET_REPORT_ORIGINAL, 0, &State.ReportOriginal, 0x5500},
        {IOCTL_ZPRF_SET_REPORT_ORIGINAL, 1, &State.ReportOriginal, 0x5501},
    };
    for (const auto& c : cases) {
        const std::uint32_t input[] = {c.number, 0xDEADBEEF};
        EXPECT_EQ(TheClient().Control(c.code, input, sizeof(input)), STATUS_SUCCESS);
        EXPECT_EQ(*c.setting, c.expected) << std::hex << c.code << ", " << c.number;
    }
    // Inputs that are too short change nothing.
    const std::byte zeros[64] = {};
    const std::pair<ULONG, std::size_t> minima[] = {
        {IOCTL_ZPRF_SET_LOGGED_OPERATIONS, 4}, {IOCTL_ZPRF_SET_CAPTURE_MAX_SIZE, 4},
        {IOCTL_ZPRF_SET_REPORT_ORIGINAL, 4},   {IOCTL_ZPRF_SET_DUMP_FILE, 4},
        {IOCTL_ZPRF_EXEMPT_ADD, 10},           {IOCTL_ZPRF_EXEMPT_REMOVE, 10}};
    for (const auto& [code, minimum] : minima) {
        for (const std::size_t length : {std::size_t{0}, std::size_t{1}, minimum - 1}) {
            EXPECT_EQ(TheClient().Control(code, zeros, length), STATUS_BUFFER_TOO_SMALL)
                << std::hex << code << ", length " << length;
        }
    }
    EXPECT_EQ(State.CaptureMaxSize, 16u);
    EXPECT_EQ(State.ReportOriginal, 0x5501u);
    EXPECT_EQ(Generation(), 0);
}

// --- Exemptions ----------------------------------------------------------------------------------

/// Builds the input of an exemption request, entry by entry. Items lie behind their entry's header
/// in the order in which they are given.
class Chain {
public:
    /// Begins an entry; `gap` bytes lie between it and what is there already.
    Chain& Entry(std::size_t gap = 0) {
        if (!bytes_.empty()) Set(0, bytes_.size() + gap - entry_);
        bytes_.resize(bytes_.size() + gap, 0xEE);
        entry_ = bytes_.size();
        bytes_.resize(entry_ + sizeof(ExemptionRequest), 0);
        return *this;
    }
    Chain& Narrow(std::string_view text, bool terminated = true) {
        return Add(2, text.data(), text.size(), terminated ? 1 : 0);
    }
    Chain& Wide1(std::u16string_view text, bool terminated = true) {
        return Add(4, text.data(), text.size() * 2, terminated ? 2 : 0);
    }
    Chain& Identifier(std::size_t size = 16) { return Add(6, "0123456789ABCDEF", size, 0); }
    Chain& Wide2(std::u16string_view text, bool terminated = true) {
        return Add(8, text.data(), text.size() * 2, terminated ? 2 : 0);
    }
    Chain& Skip(std::size_t count) {
        bytes_.resize(bytes_.size() + count, 0xEE);
        return *this;
    }
    /// A field of the current entry's header.
    Chain& Set(std::size_t field, std::size_t value) {
        const auto offset = static_cast<std::uint16_t>(value);
        std::memcpy(bytes_.data() + entry_ + field, &offset, sizeof(offset));
        return *this;
    }
    const std::vector<std::uint8_t>& Bytes() const { return bytes_; }

private:
    Chain& Add(std::size_t field, const void* data, std::size_t size, std::size_t terminator) {
        Set(field, bytes_.size() - entry_);
        const auto* first = static_cast<const std::uint8_t*>(data);
        bytes_.insert(bytes_.end(), first, first + size);
        bytes_.resize(bytes_.size() + terminator, 0);
        return *this;
    }

    std::vector<std::uint8_t> bytes_;
    std::size_t entry_ = 0;
};

constexpr NTSTATUS kBad = STATUS_INVALID_PARAMETER;

const struct {
    const char* name;
    Chain chain;
    NTSTATUS status;
    LONG applied;  ///< entries
} kChains[] = {
    // clang-format off
    {"narrow", Chain().Entry().Narrow("a.exe"), STATUS_SUCCESS, 1},
    {"first wide", Chain().Entry().Wide1(u"a.exe"), STATUS_SUCCESS, 1},
    {"all at odd offsets", Chain().Entry().Skip(1).Wide1(u"a").Identifier().Wide2(u"b").Narrow("a.exe"), STATUS_SUCCESS, 1},
    {"empty wide", Chain().Entry().Wide1(u""), STATUS_SUCCESS, 1},
    {"entry at an odd offset", Chain().Entry().Narrow("a").Entry(1).Wide1(u"b").Entry(2).Narrow("c"), STATUS_SUCCESS, 3},
    {"identifier inside the header", Chain().Entry().Narrow("abcdefgh").Set(6, 2), STATUS_SUCCESS, 1},
    {"identifier at the end", Chain().Entry().Narrow("a").Identifier(16), STATUS_SUCCESS, 1},
    {"neither name", Chain().Entry().Identifier().Wide2(u"b"), kBad, 0},
    {"header alone", Chain().Entry(), kBad, 0},
    {"narrow without end", Chain().Entry().Narrow("a.exe", false), kBad, 0},
    {"narrow empty", Chain().Entry().Narrow(""), kBad, 0},
    {"narrow at the end", Chain().Entry().Set(2, 10), kBad, 0},
    {"narrow far outside", Chain().Entry().Narrow("a").Set(2, 0xFFFF), kBad, 0},
    {"wide without end", Chain().Entry().Wide1(u"a.exe", false), kBad, 0},
    {"wide ends in half a character", Chain().Entry().Wide1(u"a", false).Skip(1).Set(4, 10), kBad, 0},
    {"wide outside", Chain().Entry().Wide1(u"a").Set(4, 0xFFFE), kBad, 0},
    {"second wide without end", Chain().Entry().Narrow("a").Wide2(u"b", false), kBad, 0},
    {"second wide outside", Chain().Entry().Narrow("a").Set(8, 0x4000), kBad, 0},
    {"identifier cut off", Chain().Entry().Narrow("a").Identifier(15), kBad, 0},
    {"identifier outside", Chain().Entry().Narrow("a").Set(6, 0xFFFF), kBad, 0},
    {"next at the end", Chain().Entry().Narrow("a").Set(0, 12), kBad, 1},
    {"next outside", Chain().Entry().Narrow("a").Set(0, 0xFFFF), kBad, 1},
    {"next cut off", Chain().Entry().Narrow("a").Set(0, 11).Skip(8), kBad, 1},
    {"third is bad", Chain().Entry().Narrow("a").Entry().Wide1(u"b").Entry().Narrow("c", false), kBad, 2},
    {"same entry again", Chain().Entry().Narrow("a").Entry().Narrow("A").Entry().Narrow("b"), STATUS_OBJECT_NAME_COLLISION, 1},
    // clang-format on
};

TEST_F(ControlRequestsTest, ExemptionChains) {
    Start();
    for (const auto& c : kChains) {
        LONG generation = Generation();
        // Exactly as long as the chain, so that reading on is found out.
        const std::vector<std::uint8_t>& bytes = c.chain.Bytes();
        EXPECT_EQ(TheClient().Control(IOCTL_ZPRF_EXEMPT_ADD, bytes.data(), bytes.size()), c.status)
            << c.name;
        EXPECT_EQ(Generation(), generation + c.applied) << c.name;
        // The entries before the bad one are there, so they can be removed; then none is.
        generation = Generation();
        const NTSTATUS removed =
            TheClient().Control(IOCTL_ZPRF_EXEMPT_REMOVE, bytes.data(), bytes.size());
        const NTSTATUS expected =
            c.status == STATUS_OBJECT_NAME_COLLISION ? STATUS_NOT_FOUND : c.status;
        EXPECT_EQ(removed, expected) << c.name;
        EXPECT_EQ(Generation(), generation + c.applied) << c.name;
    }
    EXPECT_EQ(platform::QueryPoolUsage(zpklib::kExemptionTag).blocks, 0u);
}

TEST_F(ControlRequestsTest, RemovingExemptions) {
    Start();
    const auto bytes = Chain().Entry().Narrow("a").Entry().Wide1(u"b").Bytes();
    const auto send = [&](ULONG code) {
        return TheClient().Control(code, bytes.data(), bytes.size());
    };
    EXPECT_EQ(send(IOCTL_ZPRF_EXEMPT_REMOVE), STATUS_NOT_FOUND);
    EXPECT_EQ(Generation(), 0);
    {
        const FaultPlan plan(
            {.routine = "ExAllocatePoolWithTag", .tag = zpklib::kExemptionTag, .nth = 2});
        EXPECT_EQ(send(IOCTL_ZPRF_EXEMPT_ADD), STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_TRUE(plan.Fired());
    }
    EXPECT_EQ(Generation(), 1) << "the first entry stays applied";
    EXPECT_EQ(platform::QueryPoolUsage(zpklib::kExemptionTag).blocks, 1u);
    for (const LONG generation : {2, 3}) {
        EXPECT_EQ(TheClient().Control(IOCTL_ZPRF_EXEMPT_REMOVE_ALL), STATUS_SUCCESS);
        EXPECT_EQ(Generation(), generation) << "also when there was nothing to remove";
        EXPECT_EQ(platform::QueryPoolUsage(zpklib::kExemptionTag).blocks, 0u);
    }
}

}  // namespace

}  // namespace driver_test
