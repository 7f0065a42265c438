#include "RingOffsets.h"

#include "DXRReadCheck.h"
#include "GlobalQueue.h"
#include "HostClock.h"

#include <cmath>
#include <limits>

namespace {

constexpr double ticksPerSecond = dxr::HostClock::ticksPerSecond;
constexpr auto readingTicks = static_cast<uint64_t>(0.2 * ticksPerSecond); // interval between readings
constexpr double unknown = std::numeric_limits<double>::quiet_NaN();

} // namespace

CXRef<RingOffsets> RingOffsets::initWithDevice(AudioObjectID deviceID, std::vector<Part> parts,
                                               LastCycle lastCycle, const CXRef<CXDispatchQueue>& queue)
{
    const DXRReadCheck reads;
    if (subDeviceStatusesOf(deviceID).size() < 2 && !reads.hasFailed())
        return nullptr;
    const CXRef<CXDispatchTimer> timer = CXDispatchTimer::init();
    if (!timer)
        return nullptr;
    auto offsets =
        CXRef<RingOffsets>::adopt(new RingOffsets(timer, std::move(parts), std::move(lastCycle), queue));
    timer->setTimeoutHandler([weak = CXWeak(*offsets)](const CXRef<CXDispatchTimer>&) {
        if (const CXRef<RingOffsets> self = weak.lock())
            self->_read();
    });
    timer->setDispatchQueue(queue);
    timer->setTimeoutAbsolute(0, readingTicks);
    return offsets;
}

RingOffsets::RingOffsets(CXRef<CXDispatchTimer> timer, std::vector<Part> parts, LastCycle lastCycle,
                         const CXRef<CXDispatchQueue>& queue)
    : _timer(std::move(timer)), _lastCycle(std::move(lastCycle)), _queue(queue)
{
    std::vector<Ring> rings;
    for (Part& part : parts) {
        rings.push_back({part.node->isInput(), std::move(part.devices)});
        _nodes.push_back(std::move(part.node));
    }
    _rings = std::make_shared<const std::vector<Ring>>(std::move(rings));
}

void RingOffsets::stop()
{
    CX_ASSERT_ON_QUEUE(_queue);
    _isStopped = true;
    _timer->cancel();
}

void RingOffsets::_read()
{
    const std::optional<Placements> lastCycle = _lastCycle();
    if (!lastCycle)
        return;
    // Does not throw: the queue has had a thread since the callback was created.
    dxr::GlobalQueue::highPriority().async(
        [weak = CXWeak(*this), queue = _queue, rings = _rings, placements = *lastCycle] {
            const SubDeviceStatuses statuses = subDeviceStatusesOf(placements[0].clockID);
            std::vector<double> seconds;
            for (const Ring& ring : *rings) {
                const DXRReadCheck reads;
                const CyclePlacement& placement = placements[ring.isInput ? 0 : 1];
                const double offset = secondsAfterClock(
                    latencyOfSlowest(ring.devices, ring.isInput, placement, statuses), placement);
                seconds.push_back(reads.hasFailed() ? unknown : offset);
            }
            if (statuses.empty())
                return;
            queue->dispatchAsync(CXDispatchClientLane | CXDispatchAfterCancel, // the runner may be destroyed
                                 [weak, seconds = std::move(seconds)] {
                                     if (const CXRef<RingOffsets> self = weak.lock())
                                         self->_set(seconds);
                                 });
        });
}

/// `seconds`: each node's offset from the clock's time stamps. One that is not finite leaves it as it is.
void RingOffsets::_set(const std::vector<double>& seconds)
{
    CX_ASSERT_ON_QUEUE(_queue);
    if (_isStopped)
        return;
    for (size_t i = 0; i < seconds.size(); ++i) {
        if (std::isfinite(seconds[i]))
            _nodes[i]->setHostTimeOffset(std::llround(seconds[i] * ticksPerSecond));
    }
}
