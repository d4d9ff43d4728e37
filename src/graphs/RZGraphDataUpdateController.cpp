#include "graphs/RZGraphDataUpdateController.h"

namespace tavolar {

RZGraphDataUpdateController::RZGraphDataUpdateController(UpdateHandler updateHandler, DispatchQueue queue)
    : handler_(std::make_shared<UpdateHandler>(std::move(updateHandler))), queue_(std::move(queue)) {}

RZGraphDataUpdateController::~RZGraphDataUpdateController() = default;

void RZGraphDataUpdateController::updateWithGraphData(GraphDataArray graphData,
                                                      std::function<void()> completionHandler) {
    // The queued work holds the handler weakly: once the controller (and its graph) is gone, it
    // delivers nothing and calls nothing.
    queue_.async([handler = std::weak_ptr<UpdateHandler>(handler_), graphData = std::move(graphData),
                  completion = std::move(completionHandler)]() mutable {
        auto alive = handler.lock();
        if (!alive)
            return;
        if (*alive)
            (*alive)(std::move(graphData));
        if (completion)
            completion();
    });
}

void RZGraphDataUpdateController::updateImmediatelyWithGraphData(GraphDataArray graphData) {
    if (*handler_)
        (*handler_)(std::move(graphData));
}

} // namespace tavolar
