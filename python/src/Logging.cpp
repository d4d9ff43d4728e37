// The engine's log lines in Python's logging, under the logger "tavolar". The engine logs on any
// thread, often while holding its own locks, so the sink never calls Python: it queues the lines and
// asks the interpreter to deliver them on the main thread at its next opportunity (or delivers them
// itself where the module already holds the GIL).

#include "platform/Logging.h"

#include "Bindings.h"

#include <mutex>
#include <vector>

namespace tavolar::python {

namespace {

// Lines beyond this many, waiting for an interpreter that never runs, are dropped.
constexpr std::size_t kMostQueuedLines = 10000;

struct Forwarding {
    std::mutex mutex;
    std::vector<LogLine> lines;
    bool deliveryScheduled = false;
};

// Never destroyed: engine threads may still log while the process exits.
Forwarding& forwarding() {
    static auto* shared = new Forwarding;
    return *shared;
}

int deliverScheduled(void*) {
    deliverLogLines();
    return 0;
}

void queueLine(const LogLine& line) {
    Forwarding& shared = forwarding();
    bool schedule = false;
    {
        std::lock_guard lock(shared.mutex);
        if (shared.lines.size() < kMostQueuedLines)
            shared.lines.push_back(line);
        schedule = !std::exchange(shared.deliveryScheduled, true);
    }
    // Needs neither the GIL nor a thread state; it fails only while the interpreter's short queue of
    // pending calls is full, and the next line tries again.
    if (schedule && Py_AddPendingCall(deliverScheduled, nullptr) != 0) {
        std::lock_guard lock(shared.mutex);
        shared.deliveryScheduled = false;
    }
}

} // namespace

void deliverLogLines() {
    std::vector<LogLine> lines;
    {
        Forwarding& shared = forwarding();
        std::lock_guard lock(shared.mutex);
        lines.swap(shared.lines);
        shared.deliveryScheduled = false;
    }
    if (lines.empty() || _Py_IsFinalizing())
        return;
    py::object logging = py::module_::import("logging");
    py::object logger = logging.attr("getLogger")("tavolar");
    const py::object error = logging.attr("ERROR"), info = logging.attr("INFO");
    for (const LogLine& line : lines)
        logger.attr("log")(line.level == LogLevel::Error ? error : info, "%s", line.text);
}

MutedLog::MutedLog() {
    setConsoleSink(nullptr);
}

MutedLog::~MutedLog() {
    setConsoleSink(queueLine);
}

void addLogging(py::module_& module) {
    setConsoleSink(queueLine);
    // Lines logged after the interpreter has gone have nowhere to go.
    py::module_::import("atexit").attr("register")(py::cpp_function([] { setConsoleSink(nullptr); }));
}

} // namespace tavolar::python
