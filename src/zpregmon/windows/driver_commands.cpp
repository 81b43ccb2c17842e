#include "zpregmon/session_options.h"
#include "zpregmon/windows/commands.h"
#include "zpregmon/windows/drivers.h"
#include "zpregmon/windows/wide_text.h"

#include <fmt/format.h>

#include <map>

namespace zpregmon {

namespace {

struct InstallArguments {
    DWORD start = SERVICE_DEMAND_START;
    DriverSettings settings;
};

void AddInstallOptions(CLI::App& command, InstallArguments& arguments) {
    const std::map<std::string, DWORD> starts = {{"boot", SERVICE_BOOT_START},
                                                 {"system", SERVICE_SYSTEM_START},
                                                 {"auto", SERVICE_AUTO_START},
                                                 {"demand", SERVICE_DEMAND_START}};
    DriverSettings& settings = arguments.settings;
    command
        .add_option("--start", arguments.start,
                    "When the driver is loaded: boot, system, auto or demand (the default)")
        ->transform(CLI::Transformer(starts))
        ->check(CLI::Range(DWORD{SERVICE_BOOT_START}, DWORD{SERVICE_DEMAND_START}))
        ->type_name("WHEN");
    AddRecordingOptions(command, settings.recording);
    AddOverrideOption(command, settings.overrideMask);
    command.add_option("--trace-process", settings.traceProcess,
                       "The only process that is traced, by id or image name");
    AddOperationsOption(command, "--trace-operations", "The only operations that are traced",
                        settings.traceOperations);
}

int Install(const InstallArguments& arguments) {
    InstallDrivers(arguments.start, arguments.settings);
    fmt::print("installed; zpregmon start loads the driver\n");
    return kWell;
}

int Uninstall() {
    UninstallDrivers();
    fmt::print("uninstalled\n");
    return kWell;
}

int Start() {
    for (const Driver& driver : kDrivers) {
        const bool isNew = StartDriver(driver);
        fmt::print("{}: {}\n", FromWide(driver.name), isNew ? "started" : "was running already");
    }
    return kWell;
}

int Stop() {
    for (auto driver = kDrivers.rbegin(); driver != kDrivers.rend(); ++driver) {
        const bool isNew = StopDriver(*driver);
        fmt::print("{}: {}\n", FromWide(driver->name), isNew ? "stopped" : "was not running");
    }
    return kWell;
}

}  // namespace

void AddInstallCommand(CLI::App& app, ChosenCommand& chosen) {
    CLI::App* const command = app.add_subcommand(
        "install", "Install the drivers that lie beside the program, with these settings");
    const auto arguments = std::make_shared<InstallArguments>();
    AddInstallOptions(*command, *arguments);
    command->callback(
        [arguments, &chosen] { chosen = [arguments] { return Install(*arguments); }; });
}

void AddUninstallCommand(CLI::App& app, ChosenCommand& chosen) {
    app.add_subcommand("uninstall", "Stop the drivers and remove them")->callback([&chosen] {
        chosen = Uninstall;
    });
}

void AddStartCommand(CLI::App& app, ChosenCommand& chosen) {
    app.add_subcommand("start", "Load the drivers")->callback([&chosen] { chosen = Start; });
}

void AddStopCommand(CLI::App& app, ChosenCommand& chosen) {
    app.add_subcommand("stop", "Unload the drivers")->callback([&chosen] { chosen = Stop; });
}

}  // namespace zpregmon
