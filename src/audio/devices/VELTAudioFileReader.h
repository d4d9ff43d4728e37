#pragma once
// Reads an audio file ahead of a real-time thread: a reader thread keeps a lock-free queue of a few
// buffers filled from the file, and the audio thread copies frames out of it without touching the
// disk. start() fills the queue before it returns, so the first render already has data.

#include "audio/devices/AudioStreamDescription.h"
#include "audio/devices/BinarySemaphore.h"
#include "audio/devices/LockFreeRingBuffer.h"
#include "audio/devices/VELTAudioBufferList.h"
#include "audio/devices/VELTExtendedAudioFile.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

namespace tavolar {

class VELTAudioFileReader {
public:
    // bufferCount buffers of framesPerBuffer frames of audio in the given description's channels.
    VELTAudioFileReader(std::uint32_t bufferCount, std::uint32_t framesPerBuffer,
                        const AudioStreamDescription& description);
    ~VELTAudioFileReader();
    VELTAudioFileReader(const VELTAudioFileReader&) = delete;
    VELTAudioFileReader& operator=(const VELTAudioFileReader&) = delete;

    // The file to read, from its current position; without one the stream is empty.
    void setFile(std::unique_ptr<VELTExtendedAudioFile> file);
    // Fills the queue, then starts the reader thread.
    void start();
    // Stops the reader thread; the queue keeps what it holds.
    void stop();

    // Copies up to frames frames into the first frames of the list's buffers (one per channel) and
    // answers how many it supplied. Runs on the audio thread.
    std::uint32_t copyFrames(std::uint32_t frames, VELTAudioBufferList& buffers) noexcept;
    // True once the whole file has been read and handed out. Runs on the audio thread.
    bool endOfStream() const noexcept;
    // Frames ready to copy, or true when the stream is ended. Runs on the audio thread.
    bool canSupply(std::uint32_t frames) const noexcept;
    // Renders that found the queue empty before the end of the file.
    std::uint64_t underruns() const noexcept { return underruns_.load(std::memory_order_relaxed); }

private:
    void fill();
    void run();

    const std::uint32_t framesPerBuffer_;
    const std::uint32_t channels_;
    std::unique_ptr<VELTExtendedAudioFile> file_;
    LockFreeRingBuffer<float> queue_;
    VELTAudioBufferList readBuffers_;
    std::vector<float> interleaved_;
    BinarySemaphore wanted_;
    std::thread reader_;
    std::atomic<bool> stopReader_{false};
    std::atomic<bool> fileEnded_{false};
    std::atomic<std::uint64_t> underruns_{0};
};

} // namespace tavolar
