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
    _deadline = _loop.callAt(PipeWireLoop::Clock::now() + delay, [this] {
        _deadline.reset();
        _work();
    });
}

void PipeWireTimer::stop()
{
    if (_deadline)
        _loop.takeBack(*_deadline);
    _deadline.reset();
}
