#include "zpregmon/session/session_settings.h"

namespace zpregmon {

namespace {

void Exempt(const std::u16string& image, ControlSession& session) {
    Exemption exemption;
    exemption.imageName = image;
    try {
        session.AddExemptions({&exemption, 1});
    } catch (const ControlError& error) {
        if (error.Code() != kStatusObjectNameCollision) {
            throw;
        }
    }
}

}  // namespace

void ApplySettings(const SessionSettings& settings, ControlSession& session) {
    if (settings.operations) {
        session.SetLoggedOperations(*settings.operations);
    }
    if (settings.captureMaxSize) {
        session.SetCaptureMaxSize(*settings.captureMaxSize);
    }
    if (settings.reportOriginal) {
        session.SetReportOriginal(true);
    }
    if (!settings.dumpFile.empty()) {
        session.SetDumpFile(settings.dumpFile);
    }
    for (const std::u16string& image : settings.exemptImages) {
        Exempt(image, session);
    }
}

}  // namespace zpregmon
