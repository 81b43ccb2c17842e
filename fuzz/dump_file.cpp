// The input is a dump file.
#include "client/dump_file.h"
#include "fuzz/print_everything.h"

#include <cstdlib>
#include <memory>

extern "C" int LLVMFuzzerTestOneInput(unsigned char* data, std::size_t size) {
    if (size == 0) {
        return 0;  // for which there is no memory file
    }
    static zpregmon::EverythingPrinter printer;
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(fmemopen(data, size, "rb"),
                                                               std::fclose);
    zpregmon::EventSummary summary({});
    zpregmon::DumpFileReader reader(file.get());
    for (zpregmon::Event event; reader.Next(event);) {
        printer.Print(event, summary);
    }
    if (reader.Error() && reader.Error()->offset > size) {
        std::abort();  // damage that is not in the file
    }
    return 0;
}
