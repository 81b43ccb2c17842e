#include "zpregmon/session/monitor.h"

#include "zpregmon/session/session_summary.h"

namespace zpregmon {

MonitorResult RunMonitor(ControlDevice& device, const MonitorOptions& options,
                         const MonitorCalls& calls) {
    MonitorResult result;
    ControlSession session(device);
    ApplySettings(options.settings, session);
    session.Start(options.session, [&](std::span<const std::byte> image) {
        WalkBuffer(image, calls.receive, result);
        calls.bufferEnds();
    });
    while (calls.pause()) {
        session.Flush();
    }
    result.session = session.Finish();
    return result;
}

std::string DescribeMonitor(const MonitorResult& result) {
    std::string text;
    Lines lines(text);
    DescribeEvents(result, lines);
    AddCount(lines, "buffers delivered", result.session.buffersDelivered);
    DescribeLosses(result, result.session, lines);
    return text;
}

}  // namespace zpregmon
