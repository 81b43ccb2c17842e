// The example of docs/client-library.md, which stands here once more to be compiled and run.
#include "client/dump_file.h"
#include "client/every_kind.h"
#include "client/text_encoding.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

namespace zpregmon {

// The example begins here.
void PrintSetValues(std::FILE* dump) {
    DumpFileReader reader(dump);
    for (Event event; reader.Next(event);) {
        if (const auto set = event.As<ValueSet>()) {
            fmt::print("{} {}: {} bytes, {} captured\n", event.ProcessId(), ToTerminal(set->value),
                       set->data.size, set->data.captured.size());
        }
    }
    if (reader.Error()) {
        fmt::print(stderr, "damaged at {}: {}\n", reader.Error()->offset, reader.Error()->what);
    }
}
// The example ends here.

namespace {

std::string Between(const char* path, const std::string& start, const std::string& end) {
    std::ifstream file(path);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    const std::size_t from = text.find(start);
    EXPECT_NE(from, std::string::npos) << path;
    const std::size_t begin = from + start.size();
    return text.substr(begin, text.find(end, begin) - begin);
}

TEST(ClientLibrary, ExampleIsTheDocuments) {
    EXPECT_EQ(Between("docs/client-library.md", "```cpp\n", "```\n"),
              Between("tests/client/library_example_test.cpp", "// The example begins here.\n",
                      "// The example ends here.\n"));
}

TEST(ClientLibrary, ExampleWorks) {
    const std::vector<std::byte> image = EveryKind();
    const zpregflt::DumpBlockHeader header{zpregflt::kDumpBlockMagic,
                                           static_cast<std::uint32_t>(image.size())};
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::tmpfile(), std::fclose);
    std::fwrite(&header, sizeof(header), 1, file.get());
    std::fwrite(image.data(), 1, image.size(), file.get());
    std::rewind(file.get());
    testing::internal::CaptureStdout();
    PrintSetValues(file.get());
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "32 Start: 4 bytes, 4 captured\n32 : 22 bytes, 22 captured\n"
              "32 List: 12 bytes, 12 captured\n32 Blob: 100 bytes, 3 captured\n");
}

}  // namespace
}  // namespace zpregmon
