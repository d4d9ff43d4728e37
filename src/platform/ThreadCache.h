// Threads for the queues' workers, reused instead of created for each worker.
//
// A queue starts a worker thread when work arrives and lets it end after a short idle spell; a
// calculation that makes its own queues (a waterfall makes three) would otherwise pay for creating,
// naming and tearing down its threads every time. A worker body handed to `runDetached` runs on a
// parked thread when one is waiting, else on a new one; when the body returns, the thread parks for
// a while and then ends. Each body still has a thread of its own for as long as it runs.
#pragma once

#include <functional>

namespace tavolar {

void runDetached(std::function<void()> body);

} // namespace tavolar
