#include "zpregmon/session_options.h"

#include "client/text_encoding.h"
#include "client/vocabulary.h"
#include "driver/control_codes.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <string_view>

namespace zpregmon {

namespace {

std::optional<std::uint32_t> ParseOverrides(std::string_view text) {
    std::uint32_t mask = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), mask);
    if (error == std::errc() && end == text.data() + text.size()) {
        return mask <= (zpregflt::OVERRIDE_TRUSTED | zpregflt::OVERRIDE_EXEMPTIONS)
                   ? std::optional(mask)
                   : std::nullopt;
    }
    mask = 0;
    for (std::size_t start = 0; start <= text.size();) {
        const std::size_t comma = std::min(text.find(',', start), text.size());
        const std::string_view name = text.substr(start, comma - start);
        if (name == "trusted") {
            mask |= zpregflt::OVERRIDE_TRUSTED;
        } else if (name == "exemptions") {
            mask |= zpregflt::OVERRIDE_EXEMPTIONS;
        } else {
            return std::nullopt;
        }
        start = comma + 1;
    }
    return mask;
}

std::u16string ReadImageName(const std::string& text) {
    std::optional<std::u16string> name = FromUtf8(text);
    if (!name || name->empty()) {
        throw CLI::ValidationError("--exempt", "expected a name that is not empty");
    }
    return std::move(*name);
}

}  // namespace

void AddOperationsOption(CLI::App& command, const char* name, const char* description,
                         std::optional<zpregflt::OperationMask>& operations) {
    command.add_option_function<std::string>(
        name,
        [&operations, name](const std::string& text) {
            std::string problem;
            operations = ParseOperations(text, problem);
            if (!operations) {
                throw CLI::ValidationError(name, problem);
            }
        },
        description);
}

void AddRecordingOptions(CLI::App& command, SessionSettings& settings) {
    AddOperationsOption(
        command, "--operations",
        "Operations to record, by name with commas or as a number; default: the driver's own",
        settings.operations);
    command
        .add_option("--capture-max", settings.captureMaxSize, "Most bytes to capture of one value")
        ->check(CLI::Range(std::uint32_t{0}, std::uint32_t{0xFFFFFFFF}));
    command.add_flag("--report-original", settings.reportOriginal,
                     "Record the data that a changed value had before");
}

void AddExemptOption(CLI::App& command, std::vector<std::u16string>& images) {
    command
        .add_option_function<std::vector<std::string>>(
            "--exempt",
            [&images](const std::vector<std::string>& names) {
                for (const std::string& name : names) {
                    images.push_back(ReadImageName(name));
                }
            },
            "Image name that is not monitored; repeatable")
        ->expected(1)
        ->take_all();
}

void AddBuffersOption(CLI::App& command, SessionOptions& session, std::size_t most) {
    command.add_option("--buffers", session.buffers, "Buffers lent to the driver")
        ->check(CLI::Range(std::size_t{1}, most))
        ->capture_default_str();
}

void AddOverrideOption(CLI::App& command, std::uint32_t& mask) {
    command.add_option_function<std::string>(
        "--override",
        [&mask](const std::string& text) {
            const std::optional<std::uint32_t> parsed = ParseOverrides(text);
            if (!parsed) {
                throw CLI::ValidationError(
                    "--override", fmt::format("'{}' is no set of overrides, expected 'trusted', "
                                              "'exemptions', both with a comma, or a number up "
                                              "to 3",
                                              text));
            }
            mask = *parsed;
        },
        "Monitor 'trusted' processes, 'exemptions', or both");
}

}  // namespace zpregmon
