#pragma once
// Carries events out of a real-time thread: the audio thread adds a notification made beforehand
// to a lock-free queue, and the worker's thread runs the notification's handler. A notification
// already queued or running is not queued again.

#include "audio/devices/BinarySemaphore.h"
#include "audio/devices/LockFreeRingBuffer.h"

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <thread>

namespace tavolar {

class VELTQueueableAudioNotification {
public:
    explicit VELTQueueableAudioNotification(std::function<void()> handler) : handler_(std::move(handler)) {}

    bool isInProgress() const noexcept { return inProgress_.load(std::memory_order_acquire); }
    void setInProgress(bool inProgress) noexcept { inProgress_.store(inProgress, std::memory_order_release); }
    // Marks the notification in progress; false when it already was. Runs on the audio thread.
    bool claim() noexcept { return !inProgress_.exchange(true, std::memory_order_acq_rel); }
    void handle() const { handler_(); }

private:
    std::function<void()> handler_;
    std::atomic<bool> inProgress_{false};
};

class VELTAudioNotificationQueueWorker {
public:
    explicit VELTAudioNotificationQueueWorker(std::size_t capacity = 64);
    ~VELTAudioNotificationQueueWorker();
    VELTAudioNotificationQueueWorker(const VELTAudioNotificationQueueWorker&) = delete;
    VELTAudioNotificationQueueWorker& operator=(const VELTAudioNotificationQueueWorker&) = delete;

    // Starts the worker's thread (after a teardown, nothing happens).
    void start();
    // Stops the thread; notifications still queued are dropped and marked not in progress.
    void stop();
    // Stops for good.
    void teardown();
    bool isRunning() const noexcept { return thread_.joinable(); }

    // Queues a notification whose lifetime spans the worker's; false when it is already in progress
    // or the queue is full. Runs on the audio thread.
    bool addNotification(VELTQueueableAudioNotification* notification) noexcept;

private:
    void run();
    void dropQueued();

    LockFreeRingBuffer<VELTQueueableAudioNotification*> queue_;
    BinarySemaphore added_;
    std::thread thread_;
    std::atomic<bool> stopRequested_{false};
    bool tornDown_ = false;
};

} // namespace tavolar
