// The input is a workload file, compressed or not.
#include "zpregmon/replay/workload.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    static const int file = memfd_create("workload", 0);
    static const std::string path = "/proc/self/fd/" + std::to_string(file);
    if (ftruncate(file, 0) != 0 || pwrite(file, data, size, 0) != static_cast<ssize_t>(size)) {
        std::abort();
    }
    try {
        const zpregmon::Workload workload = zpregmon::Workload::Read(path);
        for (const zpregmon::Record& record : workload.Records()) {
            if (record.bytes.size() > record.dataSize + size) {
                std::abort();  // more bytes than the file has
            }
        }
    } catch (const zpregmon::WorkloadError& error) {
        if (std::string(error.what()).find(path) != 0) {
            std::abort();  // an error that does not name the file
        }
    }
    return 0;
}
