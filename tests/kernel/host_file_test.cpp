// Files of the host, read and written through the kernel's interfaces.
#include "test_device.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace platform::device_tests {

namespace {

constexpr ULONG kSynchronous = FILE_SYNCHRONOUS_IO_NONALERT;
constexpr ULONG_PTR kUntouched = 0x55;

class HostFileTest : public DeviceTest {
protected:
    HostFileTest() {
        std::string pattern = std::filesystem::temp_directory_path() / "host_file_test.XXXXXX";
        folder_ = mkdtemp(pattern.data());
    }
    ~HostFileTest() override { std::filesystem::remove_all(folder_); }

    std::string Path(const char* name = "file") const { return folder_ / name; }
    void Fill(std::string_view text) { std::ofstream(Path()) << text; }
    std::string Content() const {
        std::ostringstream text;
        text << std::ifstream(Path()).rdbuf();
        return text.str();
    }

    NTSTATUS OpenPath(const std::string& path, ACCESS_MASK access, ULONG disposition, ULONG options,
                      HANDLE* handle, ULONG_PTR* information = nullptr) {
        const std::u16string name = HostFileName(path);
        UNICODE_STRING text = Describe(name);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &text, 0, nullptr, nullptr);
        IO_STATUS_BLOCK ioStatus{{}, kUntouched};
        const NTSTATUS status = NtCreateFile(handle, access, &attributes, &ioStatus, nullptr, 0, 0,
                                             disposition, options, nullptr, 0);
        if (information != nullptr) *information = ioStatus.Information;
        return status;
    }
    HANDLE MustOpenFile(ACCESS_MASK access = kReadWrite, ULONG options = kSynchronous) {
        HANDLE handle = nullptr;
        EXPECT_EQ(OpenPath(Path(), access, FILE_OPEN_IF, options, &handle), STATUS_SUCCESS);
        return handle;
    }

    NTSTATUS Write(HANDLE handle, std::string_view text, LARGE_INTEGER* offset = nullptr) {
        return NtWriteFile(handle, nullptr, nullptr, nullptr, &ioStatus_,
                           const_cast<char*>(text.data()), static_cast<ULONG>(text.size()), offset,
                           nullptr);
    }
    NTSTATUS Read(HANDLE handle, std::string& text, ULONG length, LARGE_INTEGER* offset = nullptr) {
        text.assign(length, '-');
        const NTSTATUS status = NtReadFile(handle, nullptr, nullptr, nullptr, &ioStatus_,
                                           text.data(), length, offset, nullptr);
        text.resize(NT_SUCCESS(status) ? ioStatus_.Information : 0);
        return status;
    }

    std::filesystem::path folder_;
    IO_STATUS_BLOCK ioStatus_{};
};

TEST_F(HostFileTest, DispositionsMakeAndEmptyFiles) {
    const struct {
        ULONG disposition;
        bool exists;
        NTSTATUS status;
        ULONG_PTR information;
        const char* contentAfter;
    } cases[] = {
        {FILE_OPEN, true, STATUS_SUCCESS, 1, "old"},
        {FILE_OPEN, false, STATUS_OBJECT_NAME_NOT_FOUND, kUntouched, ""},
        {FILE_CREATE, true, STATUS_OBJECT_NAME_COLLISION, kUntouched, "old"},
        {FILE_CREATE, false, STATUS_SUCCESS, 2, ""},
        {FILE_OPEN_IF, true, STATUS_SUCCESS, 1, "old"},
        {FILE_OPEN_IF, false, STATUS_SUCCESS, 2, ""},
        {FILE_OVERWRITE_IF, true, STATUS_SUCCESS, 3, ""},
        {FILE_OVERWRITE_IF, false, STATUS_SUCCESS, 2, ""},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(::testing::Message() << row.disposition << " existing " << row.exists);
        std::filesystem::remove(Path());
        if (row.exists) Fill("old");
        HANDLE handle = nullptr;
        ULONG_PTR information = 0;
        EXPECT_EQ(OpenPath(Path(), kReadWrite, row.disposition, 0, &handle, &information),
                  row.status);
        EXPECT_EQ(information, row.information);
        EXPECT_EQ(Content(), row.contentAfter);
        EXPECT_EQ(std::filesystem::exists(Path()), row.exists || NT_SUCCESS(row.status));
        if (NT_SUCCESS(row.status)) NtClose(handle);
    }
}

TEST_F(HostFileTest, HostErrorsBecomeStatuses) {
    Fill("");
    const std::pair<std::string, NTSTATUS> cases[] = {
        {Path("none/file"), STATUS_OBJECT_PATH_NOT_FOUND},
        {Path("file/below"), STATUS_OBJECT_PATH_NOT_FOUND},
        {Path(std::string(300, 'x').c_str()), STATUS_OBJECT_NAME_INVALID},
        {Path() + std::string("\0suffix", 7), STATUS_OBJECT_NAME_INVALID},
        {folder_, STATUS_ACCESS_DENIED},  // a directory, opened for writing
    };
    for (const auto& [path, status] : cases) {
        HANDLE handle = nullptr;
        EXPECT_EQ(OpenPath(path, kReadWrite, FILE_OPEN_IF, 0, &handle), status) << path;
    }
    HANDLE full = nullptr;
    ASSERT_EQ(OpenPath("/dev/full", kReadWrite, FILE_OPEN, kSynchronous, &full), STATUS_SUCCESS);
    EXPECT_EQ(Write(full, "text"), STATUS_DISK_FULL);
    EXPECT_EQ(ioStatus_.Status, STATUS_DISK_FULL);
    EXPECT_EQ(ioStatus_.Information, 0u);
    NtClose(full);
}

TEST_F(HostFileTest, SynchronousFileHasAPosition) {
    const HANDLE handle = MustOpenFile();
    EXPECT_EQ(Write(handle, "one "), STATUS_SUCCESS);
    EXPECT_EQ(ioStatus_.Information, 4u);
    EXPECT_EQ(Write(handle, "two "), STATUS_SUCCESS);
    LARGE_INTEGER offset{.QuadPart = 1};
    EXPECT_EQ(Write(handle, "ff", &offset), STATUS_SUCCESS);
    EXPECT_EQ(Write(handle, "+"), STATUS_SUCCESS);  // behind the last transfer
    LARGE_INTEGER end{.QuadPart = -1};
    EXPECT_EQ(Write(handle, "end", &end), STATUS_SUCCESS);
    EXPECT_EQ(Content(), "off+two end");

    std::string text;
    EXPECT_EQ(Read(handle, text, 4), STATUS_END_OF_FILE);
    offset.QuadPart = 4;
    EXPECT_EQ(Read(handle, text, 3, &offset), STATUS_SUCCESS);
    EXPECT_EQ(text, "two");
    EXPECT_EQ(Read(handle, text, 100), STATUS_SUCCESS);
    EXPECT_EQ(text, " end");
    offset.QuadPart = -3;
    EXPECT_EQ(Read(handle, text, 1, &offset), STATUS_INVALID_PARAMETER);
    const auto bad = reinterpret_cast<void*>(0x10);
    offset.QuadPart = 0;
    EXPECT_EQ(NtReadFile(handle, nullptr, nullptr, nullptr, &ioStatus_, bad, 4, &offset, nullptr),
              STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(NtWriteFile(handle, nullptr, nullptr, nullptr, &ioStatus_, bad, 4, &offset, nullptr),
              STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(Content(), "off+two end");
    NtClose(handle);
    const HANDLE asynchronous = MustOpenFile(kReadWrite, 0);
    EXPECT_EQ(Write(asynchronous, "text"), STATUS_INVALID_PARAMETER) << "it has none";
    EXPECT_EQ(Write(asynchronous, "OFF", &offset), STATUS_SUCCESS);
    NtClose(asynchronous);
    EXPECT_EQ(Content(), "OFF+two end");
}

TEST_F(HostFileTest, WritersOfOneFileTakeTurns) {
    constexpr int kWrites = 500;
    const HANDLE handle = MustOpenFile();
    const auto writeMany = [&](std::string_view text) {
        ThreadScope scope(*process_);
        IO_STATUS_BLOCK ioStatus{};
        for (int count = 0; count < kWrites; ++count) {
            NtWriteFile(handle, nullptr, nullptr, nullptr, &ioStatus,
                        const_cast<char*>(text.data()), static_cast<ULONG>(text.size()), nullptr,
                        nullptr);
        }
    };
    std::thread first(writeMany, "aaaa");
    std::thread second(writeMany, "bbbb");
    first.join();
    second.join();
    NtClose(handle);
    const std::string content = Content();
    ASSERT_EQ(content.size(), 2u * kWrites * 4);
    for (std::size_t at = 0; at < content.size(); at += 4) {
        const std::string_view text = std::string_view(content).substr(at, 4);
        ASSERT_TRUE(text == "aaaa" || text == "bbbb") << text;
    }
}

}  // namespace

}  // namespace platform::device_tests
