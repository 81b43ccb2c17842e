#include "zpregmon/command.h"
#include "zpregmon/dump_files.h"
#include "zpregmon/event_output.h"

namespace zpregmon {

namespace {

struct DecodeArguments {
    std::vector<std::string> dumps;
    EventOutputOptions output;
};

int Decode(const DecodeArguments& arguments) {
    DumpFiles dumps(arguments.dumps);
    for (const std::string& dump : arguments.dumps) {
        CheckDifferent(dump, arguments.output.path);
    }
    EventOutput output(arguments.output, nullptr);
    dumps.Read([&](const Event& event) {
        output.Write(event);
        return output.IsOpen();
    });
    switch (output.Finish()) {
        case OutputState::kReaderGone:
            return kWell;  // who closes the pipe has seen enough
        case OutputState::kFailed:
            return kFault;
        case OutputState::kOpen:
            break;
    }
    return dumps.ReportDamage() ? kWell : kFault;
}

}  // namespace

void AddDecodeCommand(CLI::App& app, ChosenCommand& chosen) {
    CLI::App* const command = app.add_subcommand(
        "decode",
        "Print the events of dump files that the driver wrote. Of a truncated or damaged one, "
        "every event before the damage");
    const auto arguments = std::make_shared<DecodeArguments>();
    command->add_option("dump", arguments->dumps, "Dump file; - is standard input")->required();
    AddEventOutputOptions(*command, arguments->output);
    command->callback(
        [arguments, &chosen] { chosen = [arguments] { return Decode(*arguments); }; });
}

}  // namespace zpregmon
