#include "audio/devices/VELTAudioNotificationQueueWorker.h"

namespace tavolar {

VELTAudioNotificationQueueWorker::VELTAudioNotificationQueueWorker(std::size_t capacity) : queue_(capacity) {}

VELTAudioNotificationQueueWorker::~VELTAudioNotificationQueueWorker() {
    teardown();
}

void VELTAudioNotificationQueueWorker::start() {
    if (tornDown_ || thread_.joinable())
        return;
    stopRequested_.store(false);
    thread_ = std::thread([this] { run(); });
}

void VELTAudioNotificationQueueWorker::stop() {
    if (thread_.joinable()) {
        stopRequested_.store(true, std::memory_order_release);
        added_.release();
        thread_.join();
    }
    dropQueued();
}

void VELTAudioNotificationQueueWorker::teardown() {
    stop();
    tornDown_ = true;
}

bool VELTAudioNotificationQueueWorker::addNotification(
    VELTQueueableAudioNotification* notification) noexcept {
    if (!notification->claim())
        return false;
    VELTQueueableAudioNotification* item = notification;
    if (queue_.write(std::span<VELTQueueableAudioNotification* const>(&item, 1)) != 1) {
        notification->setInProgress(false);
        return false;
    }
    added_.release();
    return true;
}

void VELTAudioNotificationQueueWorker::run() {
    while (!stopRequested_.load(std::memory_order_acquire)) {
        VELTQueueableAudioNotification* item = nullptr;
        while (!stopRequested_.load(std::memory_order_acquire) &&
               queue_.read(std::span<VELTQueueableAudioNotification*>(&item, 1)) == 1) {
            item->handle();
            item->setInProgress(false);
        }
        added_.waitFor(50);
    }
}

void VELTAudioNotificationQueueWorker::dropQueued() {
    VELTQueueableAudioNotification* item = nullptr;
    while (queue_.read(std::span<VELTQueueableAudioNotification*>(&item, 1)) == 1)
        item->setInProgress(false);
}

} // namespace tavolar
