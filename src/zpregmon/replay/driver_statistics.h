// The driver's statistics as it writes them into its trace.
#pragma once

#include <string>

namespace zpregmon {

/// Has the driver write its statistics and sets them as tables: what became of the notifications of
/// each class, and of the reservations in each phase. While the driver is loaded; no registry
/// operation may be on its way, whose traces would come in between.
std::string TraceDriverStatistics();

}  // namespace zpregmon
