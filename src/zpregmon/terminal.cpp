#include "zpregmon/terminal.h"

#include <cstdlib>

namespace zpregmon {

bool WantsColour(std::FILE* file) {
    const char* const noColour = std::getenv("NO_COLOR");
    return ShowsColour(file) && (noColour == nullptr || *noColour == '\0');
}

}  // namespace zpregmon
