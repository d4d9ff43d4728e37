// Generating the long measurement stimulus: a 10 s exponential sweep at 192 kHz (1.92 million
// samples, each an exponential and a sine in double precision), with the default silences.

#include "dsp/SweptSine.h"
#include "engine/VELTLogSweepSettings.h"

#include <benchmark/benchmark.h>

namespace {

void BM_LogSweep10sAt192kHz(benchmark::State& state) {
    for (auto _ : state) {
        auto sweep = tavolar::realVectorWithLogSweepFrom(1.0f, 96000.0f, 10000.0f, 1.0f, 500.0f, 2000.0f,
                                                         0.0f, 0.0f, 192000.0f);
        benchmark::DoNotOptimize(sweep.components());
    }
    state.SetItemsProcessed(state.iterations() * 1920000);
}
BENCHMARK(BM_LogSweep10sAt192kHz)->Unit(benchmark::kMillisecond);

void BM_LongPresetStimulusAt192kHz(benchmark::State& state) {
    const auto settings = tavolar::VELTLogSweepSettings::longLogSweepSettings();
    for (auto _ : state) {
        auto stimulus = settings.stimulusSignalWithSampleRate(192000);
        benchmark::DoNotOptimize(stimulus.components());
    }
}
BENCHMARK(BM_LongPresetStimulusAt192kHz)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
