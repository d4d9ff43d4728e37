#pragma once
// An audio file read or written in a client format: the file holds interleaved 32-bit floats
// (CAF for the files this library creates); the client hands over or receives buffer lists in its
// own layout (one buffer per channel, or interleaved). Writing can also be asynchronous: a
// real-time thread queues buffers into a lock-free ring and a writer thread of the file's own puts
// them on disk. Status codes: the sound-file library's error numbers, or the library's own codes.

#include "audio/devices/AudioStatus.h"
#include "audio/devices/AudioStreamDescription.h"
#include "audio/devices/LockFreeRingBuffer.h"
#include "audio/devices/VELTAudioBufferList.h"
#include "platform/TavolarError.h"

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <thread>
#include <vector>

namespace tavolar {

class BinarySemaphore;

class VELTExtendedAudioFile {
public:
    ~VELTExtendedAudioFile();
    VELTExtendedAudioFile(const VELTExtendedAudioFile&) = delete;
    VELTExtendedAudioFile& operator=(const VELTExtendedAudioFile&) = delete;

    // Creates a CAF file of 32-bit floats with the channels and rate of fileDescription (which must
    // be float linear PCM); eraseExisting replaces a file already there, otherwise that is an error.
    static AudioStatus createWithURL(const std::filesystem::path& url,
                                     const AudioStreamDescription& fileDescription, bool eraseExisting,
                                     std::unique_ptr<VELTExtendedAudioFile>& file);
    // Opens a file for reading; the client format starts as the file's channels, one buffer each.
    static AudioStatus openURL(const std::filesystem::path& url,
                               std::unique_ptr<VELTExtendedAudioFile>& file);
    // The same, answering an error that names the file (for playback).
    static Expected<std::unique_ptr<VELTExtendedAudioFile>>
    initForPlaybackWithFileURL(const std::filesystem::path& url);

    const std::filesystem::path& url() const noexcept { return url_; }
    const AudioStreamDescription& fileDataFormat() const noexcept { return fileFormat_; }
    const AudioStreamDescription& clientDataFormat() const noexcept { return clientFormat_; }
    // The client format must have the file's channel count and sample rate.
    AudioStatus setClientDataFormat(const AudioStreamDescription& description);
    AudioStatus lengthInFrames(std::int64_t& frames) const;

    // Writes frames frames of the buffer list (in the client format).
    AudioStatus write(std::uint32_t frames, const VELTAudioBufferList& buffers);
    // Reads up to frames frames into the buffer list; frames becomes the number read (0 at the end).
    AudioStatus read(std::uint32_t& frames, VELTAudioBufferList& buffers);

    // Starts the writer thread, with room queued for at least bufferedFrames frames.
    AudioStatus prepareAsynchronousWrites(std::uint32_t bufferedFrames);
    // Queues frames frames of the buffer list for writing. A buffer that does not fit whole is
    // dropped and counted, and the status says so. Runs on the audio thread.
    AudioStatus writeAsync(std::uint32_t frames, const VELTAudioBufferList& buffers) noexcept;
    // Whether frames more frames can be queued now. Runs on the audio thread.
    bool canWriteAsync(std::uint32_t frames) const noexcept;
    std::uint64_t droppedFrames() const noexcept { return droppedFrames_.load(std::memory_order_relaxed); }

    // Writes what is queued, stops the writer and closes the file; later calls do nothing.
    AudioStatus dispose();

private:
    VELTExtendedAudioFile() = default;
    void runWriter();
    AudioStatus drainQueue();

    std::filesystem::path url_;
    void* handle_ = nullptr; // SNDFILE*
    bool writable_ = false;
    AudioStreamDescription fileFormat_;
    AudioStreamDescription clientFormat_;
    std::vector<float> interleaved_;  // conversion scratch of the synchronous paths
    std::vector<float> drainScratch_; // the writer thread's copy of the queue

    std::unique_ptr<LockFreeRingBuffer<float>> queue_;
    std::unique_ptr<BinarySemaphore> queued_;
    std::thread writer_;
    std::atomic<bool> stopWriter_{false};
    std::atomic<std::uint64_t> droppedFrames_{0};
    std::atomic<AudioStatus> writerStatus_{kAudioStatusNoError};
};

} // namespace tavolar
