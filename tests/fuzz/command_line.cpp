// The command line's own parsers of numbers: the sweep options (parsed into numbers by CLI11, then
// checked by SweepOptions), channel lists and colours. One argument per line of the input. Options
// that are accepted give a sweep the engine can build; lists and colours read back as written.

#include "CommandLine.h"
#include "RecordDescription.h"
#include "SweepOptions.h"
#include "fuzz/FuzzCheck.h"

#include <cmath>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace tavolar;
    std::vector<std::string> arguments{"sweep"};
    for (std::string_view rest(reinterpret_cast<const char*>(data), size);
         !rest.empty() && arguments.size() < 16;) {
        const std::size_t end = std::min(rest.find('\n'), rest.size());
        arguments.emplace_back(rest.substr(0, end));
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }

    CLI::App app;
    cli::SweepOptions options;
    options.addTo(app);
    std::vector<const char*> argv;
    for (const std::string& argument : arguments)
        argv.push_back(argument.c_str());
    bool parsed = true;
    try {
        app.parse(static_cast<int>(argv.size()), argv.data());
    } catch (const CLI::ParseError&) {
        parsed = false;
    }
    for (std::int64_t rate : {8000, 44100, 192000, 768000}) {
        auto sweep = parsed ? options.settings(rate) : Expected<VELTLogSweepSettings>(std::unexpect);
        if (!sweep)
            continue;
        const float start = sweep->startFreq(),
                    end = sweep->fullRangeSweep() ? rate / 2.0f : sweep->endFreq();
        FUZZ_CHECK(start > 0.0f && start < end && end <= rate / 2.0f,
                   "the sweep's band lies below half the rate");
        FUZZ_CHECK(sweep->duration() > 0.0f && sweep->duration() <= 300000.0f,
                   "the sweep's length is bounded");
        FUZZ_CHECK(sweep->amplitude() > 0.0f && sweep->amplitude() <= 1.0f,
                   "the sweep's level is at most full scale");
        FUZZ_CHECK(sweep->beginSilence() >= 0.0f && sweep->beginSilence() <= 300000.0f &&
                       sweep->endSilence() >= 0.0f && sweep->endSilence() <= 300000.0f,
                   "the silences are bounded");
        cli::describeSweep(*sweep, rate);
    }

    for (const std::string& argument : arguments) {
        if (auto list = cli::parseIndexList(argument)) {
            FUZZ_CHECK(list->size() ==
                           static_cast<std::size_t>(std::count(argument.begin(), argument.end(), ',')) + 1,
                       "a channel list has one channel per item");
            FUZZ_CHECK(std::all_of(list->begin(), list->end(), [](std::int64_t value) { return value >= 0; }),
                       "channels are not negative");
        }
        if (auto color = cli::parseColor(argument)) {
            for (double component : {color->red, color->green, color->blue, color->alpha})
                FUZZ_CHECK(component >= 0.0 && component <= 1.0, "colour components lie from 0 to 1");
            const std::string hex = cli::colorHex(*color);
            FUZZ_CHECK(cli::parseColor(hex) && cli::colorHex(*cli::parseColor(hex)) == hex,
                       "a colour's text reads back as the same colour");
        }
    }
    return 0;
}
