#include "PipeWireTimer.h"

PipeWireTimer::PipeWireTimer(PipeWireLoop& loop, PipeWireLoop::Work work)
    : _loop(loop), _work(std::move(work))
{}

PipeWireTimer::~PipeWireTimer()
{
    stop();
}

void PipeWireTimer::start(std::chrono::milliseconds delay)
{
    stop();
    _deadline = _loop._deadlines.emplace(PipeWireLoop::Clock::now() + delay, this);
}

void PipeWireTimer::stop()
{
    if (_deadline)
        _loop._deadlines.erase(*_deadline);
    _deadline.reset();
}

void PipeWireTimer::_fire()
{
    stop();
    _work();
}
