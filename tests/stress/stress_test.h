// A machine with the driver at work and a client process that it trusts.
#pragma once

#include "platform/machine.h"
#include "stress/lending_client.h"
#include "zpregmon/replay/drivers.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>

namespace stress {

/// How long a stress goes on: a while where races are looked for; a moment elsewhere.
inline std::chrono::seconds WorkTime(int secondsUnderThreadSanitizer) {
#if defined(__SANITIZE_THREAD__)
    const int seconds = secondsUnderThreadSanitizer;
#else
    const int seconds = secondsUnderThreadSanitizer / 6;
#endif
    const char* chosen = std::getenv("ZPREGFLT_STRESS_SECONDS");
    return std::chrono::seconds(chosen != nullptr ? std::atoi(chosen) : seconds);
}

class StressTest : public testing::Test {
protected:
    /// Loads the drivers, which record `operations` besides those that always are, and previous
    /// data.
    void Boot(std::uint32_t operations) {
        constexpr char16_t kClientImage[] = u"\\Device\\HarddiskVolume1\\client.exe";
        machine_.SetRegistryStrings(platform::ServiceKeyPath(u"zpklib"), u"TrustedImages",
                                    {kClientImage});
        const std::u16string report =
            platform::ServiceKeyPath(u"zpregflt") + u"\\Parameters\\Report";
        machine_.SetRegistryDword(report, u"Operations", operations);
        machine_.SetRegistryDword(report, u"Original", 1);
        ASSERT_EQ(machine_.LoadDriver(zpregmon::SupportLibraryImage()), STATUS_SUCCESS);
        ASSERT_EQ(machine_.LoadDriver(zpregmon::RegistryMonitorImage()), STATUS_SUCCESS);
        client_ = machine_.StartProcess({.imagePath = kClientImage});
    }
    /// The machine stops if a pool tag of a driver is not back at zero.
    void TearDown() override {
        machine_.ExitProcess(*client_);
        EXPECT_EQ(machine_.UnloadDriver(u"zpregflt"), STATUS_SUCCESS);
        EXPECT_EQ(machine_.UnloadDriver(u"zpklib"), STATUS_SUCCESS);
    }
    platform::ObjectRef<platform::Process> StartMonitored() {
        return machine_.StartProcess({.imagePath = u"\\Device\\HarddiskVolume1\\worker.exe"});
    }

    platform::Machine machine_;
    platform::ObjectRef<platform::Process> client_;
};

}  // namespace stress
