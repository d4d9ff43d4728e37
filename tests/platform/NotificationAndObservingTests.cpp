#include "platform/NotificationCenter.h"
#include "platform/Observing.h"
#include "platform/RunLoop.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

namespace tavolar {
namespace {

using namespace std::chrono_literals;

constexpr const char* kEndOfBuffer = "VELTAudioOutputControllerEndOfBufferNotification";

TEST(NotificationCenter, DeliversByNameAndSenderInRegistrationOrder) {
    NotificationCenter center;
    int outputA = 0, outputB = 0;
    std::vector<std::string> log;
    center.addObserver(kEndOfBuffer, &outputA, [&](const Notification& n) { log.push_back("A:" + n.name); });
    center.addObserver(kEndOfBuffer, nullptr, [&](const Notification& n) {
        log.push_back(n.sender == &outputA ? "any:A" : n.sender == &outputB ? "any:B" : "any:none");
    });
    center.addObserver("", &outputB, [&](const Notification& n) { log.push_back("B:" + n.name); });

    center.post(kEndOfBuffer, &outputA);
    center.post(kEndOfBuffer, &outputB);
    center.post("Other", &outputA);
    center.post("Other", &outputB);
    center.post(kEndOfBuffer);
    EXPECT_EQ(log, (std::vector<std::string>{"A:" + std::string(kEndOfBuffer), "any:A", "any:B",
                                             "B:" + std::string(kEndOfBuffer), "B:Other", "any:none"}));

    std::optional<int> channel;
    std::optional<std::string> wrongType;
    center.addObserver("WithInfo", nullptr, [&](const Notification& n) {
        channel = n.userInfoValue<int>("channel");
        wrongType = n.userInfoValue<std::string>("channel");
    });
    center.post("WithInfo", nullptr, {{"channel", 3}});
    EXPECT_EQ(channel, 3);
    EXPECT_FALSE(wrongType);
}

TEST(NotificationCenter, RemovedObserversAreNotCalledEvenFromInsideAHandlerOrAQueue) {
    NotificationCenter center;
    int calls = 0, selfRemovingCalls = 0;
    NotificationObserverToken selfRemoving = 0;
    auto token = center.addObserver("Tick", nullptr, [&](const Notification&) { ++calls; });
    selfRemoving = center.addObserver("Tick", nullptr, [&](const Notification&) {
        ++selfRemovingCalls;
        center.removeObserver(selfRemoving);
    });
    center.post("Tick");
    center.removeObserver(token);
    center.removeObserver(token); // a second removal is harmless
    center.post("Tick");
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(selfRemovingCalls, 1);

    // Delivery on the main queue happens when the run loop runs; removal drops what waits there.
    RunLoop::runOnce();
    std::thread::id deliveredOn;
    int queuedCalls = 0;
    auto queued = center.addObserver(
        "Queued", nullptr,
        [&](const Notification&) {
            ++queuedCalls;
            deliveredOn = std::this_thread::get_id();
        },
        DispatchQueue::main());
    std::thread poster([&] { center.post("Queued"); });
    poster.join();
    EXPECT_EQ(queuedCalls, 0);
    RunLoop::runOnce();
    EXPECT_EQ(queuedCalls, 1);
    EXPECT_EQ(deliveredOn, std::this_thread::get_id());
    center.post("Queued");
    center.removeObserver(queued);
    RunLoop::runOnce();
    EXPECT_EQ(queuedCalls, 1);
}

TEST(NotificationCenter, RemovalWaitsForADeliveryRunningOnAnotherThread) {
    NotificationCenter center;
    std::atomic<bool> entered{false};
    std::atomic<bool> handlerDone{false};
    auto token = center.addObserver("Slow", nullptr, [&](const Notification&) {
        entered = true;
        std::this_thread::sleep_for(30ms);
        handlerDone = true;
    });
    std::thread poster([&] { center.post("Slow"); });
    while (!entered)
        std::this_thread::yield();
    center.removeObserver(token);
    EXPECT_TRUE(handlerDone.load());
    poster.join();
}

// Sweep-like settings: the effective start frequency depends on the full-range switch, and the label
// depends on the start frequency, so a switch flip reaches both.
class SweepSettings : public Observable {
public:
    void setFullRangeSweep(bool value) {
        fullRangeSweep_ = value;
        didChangeValueForKey("fullRangeSweep");
    }
    void setStartFreq(float value) {
        startFreq_ = value;
        didChangeValueForKey("startFreq");
    }
    void setCalibration() { didChangeValueForKey("calibration"); }
    std::vector<std::string_view> keyPathsForValuesAffectingValueForKey(std::string_view key) const override {
        if (key == "startFreq")
            return {"fullRangeSweep"};
        if (key == "label")
            return {"startFreq", "label"}; // a cycle must not loop forever
        return {};
    }

private:
    bool fullRangeSweep_ = false;
    float startFreq_ = 20;
};

TEST(Observing, ObserversHearTheirKeyAndEveryKeyThatDependsOnIt) {
    SweepSettings settings;
    std::vector<std::string> heard;
    auto observe = [&](std::string keyPath) {
        return settings.addObserver(keyPath, [&](std::string_view path) { heard.emplace_back(path); });
    };
    observe("fullRangeSweep");
    auto start = observe("startFreq");
    observe("label");
    observe("calibration.sensitivity");
    observe("calibrationFile"); // begins with a changed key's name but is not a path through it
    observe("unrelated");

    settings.setFullRangeSweep(true);
    EXPECT_EQ(heard, (std::vector<std::string>{"fullRangeSweep", "startFreq", "label"}));
    heard.clear();
    settings.setStartFreq(10);
    EXPECT_EQ(heard, (std::vector<std::string>{"startFreq", "label"}));
    heard.clear();
    settings.setCalibration();
    EXPECT_EQ(heard, (std::vector<std::string>{"calibration.sensitivity"}));

    heard.clear();
    settings.removeObserver(start);
    settings.setFullRangeSweep(false);
    EXPECT_EQ(heard, (std::vector<std::string>{"fullRangeSweep", "label"}));

    // A copy starts without observers, and an observer may remove itself while being told.
    heard.clear();
    SweepSettings copy = settings;
    copy.setFullRangeSweep(true);
    EXPECT_TRUE(heard.empty());
    ObservationToken selfRemoving = 0;
    int calls = 0;
    selfRemoving = copy.addObserver("startFreq", [&](std::string_view) {
        ++calls;
        copy.removeObserver(selfRemoving);
    });
    copy.setStartFreq(1);
    copy.setStartFreq(2);
    EXPECT_EQ(calls, 1);
}

} // namespace
} // namespace tavolar
