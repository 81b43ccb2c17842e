#include "zpregmon/event_output.h"

#include "zpregmon/command.h"
#include "zpregmon/terminal.h"

#include <fmt/format.h>

namespace zpregmon {

namespace {

std::unique_ptr<EventFormat> MakeFormat(const std::string& name, const ProcessImages* images,
                                        std::FILE* file) {
    FormatSettings settings;
    settings.images = images;
    settings.columns = TerminalColumnsOf(file);
    settings.colour = WantsColour(file);
    return FindFormat(name)->make(settings);
}

}  // namespace

void AddFilterOptions(CLI::App& command, EventFilter& filter) {
    const auto add = [&](const char* name, const char* description, auto method) {
        command
            .add_option_function<std::vector<std::string>>(
                name,
                [&filter, method](const std::vector<std::string>& rules) {
                    for (const std::string& rule : rules) {
                        if (const std::string problem = (filter.*method)(rule); !problem.empty()) {
                            throw CLI::ValidationError(problem);
                        }
                    }
                },
                description)
            ->expected(1)
            ->take_all()
            ->type_name("FIELD=WHAT");
    };
    add("--include",
        "Only events that match: op=, key=, value=, pid= or image=; * and ? are wild in patterns; "
        "repeatable",
        &EventFilter::Include);
    add("--exclude", "No events that match; repeatable", &EventFilter::Exclude);
}

void AddEventOutputOptions(CLI::App& command, EventOutputOptions& options) {
    std::vector<std::string> formats;
    for (const NamedFormat& format : Formats()) {
        formats.emplace_back(format.name);
    }
    command.add_option("-f,--format", options.format, "How events are printed")
        ->check(CLI::IsMember(formats))
        ->capture_default_str();
    command.add_option("-o,--output", options.path, "Where events go; - is standard output")
        ->capture_default_str();
    AddFilterOptions(command, options.filter);
}

EventOutput::EventOutput(const EventOutputOptions& options, const ProcessImages* images)
    : options_(options),
      images_(images),
      everything_(options.filter.IsEmpty()),
      file_(OpenToWrite(options.path)),
      writer_(MakeFormat(options.format, images, file_.get()), file_.get()) {}

bool EventOutput::IsTerminal() const {
    return zpregmon::IsTerminal(file_.get());
}

OutputState EventOutput::Finish() {
    const OutputState state = writer_.Flush();
    if (state == OutputState::kFailed) {
        fmt::print(stderr, "zpregmon: {}: cannot write: {}\n",
                   NameOfFile(options_.path, "standard output"), writer_.Problem());
    }
    return state;
}

}  // namespace zpregmon
