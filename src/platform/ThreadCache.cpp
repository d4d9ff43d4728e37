#include "platform/ThreadCache.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace tavolar {
namespace {

// How long a thread whose body returned waits for another before it ends.
constexpr auto kParkedLinger = std::chrono::seconds(2);

// Never destroyed: parked threads may still wait on it when static destructors run.
class ThreadCache {
public:
    static ThreadCache& shared() {
        static ThreadCache* cache = new ThreadCache;
        return *cache;
    }

    void run(std::function<void()> body) {
        std::unique_lock lock(mutex_);
        if (bodies_.size() < parked_) {
            bodies_.push_back(std::move(body));
            lock.unlock();
            wake_.notify_one();
            return;
        }
        lock.unlock();
        std::thread([this, first = std::move(body)]() mutable { serve(std::move(first)); }).detach();
    }

private:
    void serve(std::function<void()> body) {
        for (;;) {
            body();
            body = nullptr;
            std::unique_lock lock(mutex_);
            ++parked_;
            bool handed = wake_.wait_for(lock, kParkedLinger, [this] { return !bodies_.empty(); });
            --parked_;
            if (!handed)
                return;
            body = std::move(bodies_.front());
            bodies_.pop_front();
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> bodies_; // handed to parked threads, not yet taken
    std::size_t parked_ = 0;
};

} // namespace

void runDetached(std::function<void()> body) {
    ThreadCache::shared().run(std::move(body));
}

} // namespace tavolar
