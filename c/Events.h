#pragma once

#include "SerialQueue.h"

#include <atomic>

namespace dxr_c {

/// The queue on which callbacks for changes are called. Never destroyed: it may be in use when the process
/// ends.
dxr::SerialQueue& events();
/// Waits until every pending callback for changes has returned, unless called by one of them.
void waitForEvents();

/// Shared by a registered callback and its calls, which may be pending or in progress when it ends.
struct Notice final : CXObject {
    std::atomic<bool> isOver{false}; ///< no call may begin any more
};

} // namespace dxr_c
