// Writes the image of a buffer with every kind of record to standard output; with an argument, as
// the only block of a dump file.
#include "client/every_kind.h"

#include <cstdio>

int main(int argc, char**) {
    const std::vector<std::byte> image = zpregmon::EveryKind();
    const zpregflt::DumpBlockHeader header{zpregflt::kDumpBlockMagic,
                                           static_cast<std::uint32_t>(image.size())};
    if (argc > 1) {
        std::fwrite(&header, sizeof(header), 1, stdout);
    }
    std::fwrite(image.data(), 1, image.size(), stdout);
    return std::fflush(stdout) == 0 ? 0 : 1;
}
