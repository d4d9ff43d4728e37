// Sound files as the project reads them: the command line's mono float WAV reader, playback's
// file reader and the simulated device's impulse response. Any bytes give samples or an error;
// what the command line accepts is a non-empty signal of finite samples at a positive rate, and
// playback hands out no more frames than the file says it holds.

#include "AudioFiles.h"
#include "audio/devices/VELTAudioFileReader.h"
#include "audio/devices/simulated/SimulatedDeviceConfiguration.h"
#include "fuzz/FuzzCheck.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace tavolar;
    const std::filesystem::path path = fuzz::writeTemporaryFile(data, size, ".sound");

    auto signal = cli::readMonoSoundFile(path, "response");
    if (signal)
        FUZZ_CHECK(signal->samples.length() > 0 && signal->sampleRate > 0 && signal->samples.isFinite(),
                   "an accepted WAV file is a signal of finite samples");
    else
        FUZZ_CHECK(!signal.error().localizedRecoverySuggestion.empty(), "a refused WAV file says what to do");

    if (auto file = VELTExtendedAudioFile::initForPlaybackWithFileURL(path)) {
        std::int64_t length = 0;
        (*file)->lengthInFrames(length);
        VELTAudioFileReader reader(3, 4096, (*file)->fileDataFormat());
        const std::uint32_t channels = (*file)->fileDataFormat().channelsPerFrame;
        reader.setFile(std::move(*file));
        reader.start();
        VELTAudioBufferList buffers(channels, 512, 4);
        std::int64_t frames = 0;
        while (!reader.endOfStream())
            frames += reader.copyFrames(512, buffers);
        reader.stop();
        FUZZ_CHECK(frames <= length, "playback hands out at most the file's frames");
    }

    SimulatedDeviceConfiguration configuration;
    if (configuration.loadImpulseResponseFromFile(path))
        FUZZ_CHECK(!configuration.impulseResponse.empty(), "an impulse response file gives samples");
    return 0;
}
