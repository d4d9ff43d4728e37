#pragma once
// Delivers computed graph data to a graph: through the graph's update handler on the delivery queue
// (the main queue for graph models), or at once on the caller's thread. Deliveries still queued when
// the controller is destroyed are dropped, so a graph never receives data after it is gone.

#include "graphing/VELTGraphData.h"
#include "platform/DispatchQueue.h"

#include <functional>
#include <memory>

namespace tavolar {

class RZGraphDataUpdateController {
public:
    using UpdateHandler = std::function<void(GraphDataArray)>;

    RZGraphDataUpdateController(UpdateHandler updateHandler, DispatchQueue queue);
    ~RZGraphDataUpdateController();
    RZGraphDataUpdateController(const RZGraphDataUpdateController&) = delete;
    RZGraphDataUpdateController& operator=(const RZGraphDataUpdateController&) = delete;

    const DispatchQueue& queue() const noexcept { return queue_; }

    // Returns at once; on the queue, the handler receives the data and then completionHandler runs.
    void updateWithGraphData(GraphDataArray graphData, std::function<void()> completionHandler = {});
    // Hands the data to the handler now, on the calling thread.
    void updateImmediatelyWithGraphData(GraphDataArray graphData);

private:
    std::shared_ptr<UpdateHandler> handler_;
    DispatchQueue queue_;
};

} // namespace tavolar
