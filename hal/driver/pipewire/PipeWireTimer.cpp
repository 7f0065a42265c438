#include "PipeWireTimer.h"

#include <ctime>
#include <pipewire/pipewire.h>

PipeWireTimer::PipeWireTimer(PipeWireLoop& loop, PipeWireLoop::Work work)
    : _loop(loop), _work(std::move(work)),
      _source(pw_loop_add_timer(
          loop.get(), [](void* self, uint64_t) { static_cast<PipeWireTimer*>(self)->_work(); }, this))
{}

PipeWireTimer::~PipeWireTimer()
{
    pw_loop_destroy_source(_loop.get(), _source);
}

void PipeWireTimer::start(std::chrono::milliseconds delay)
{
    timespec value{};
    value.tv_sec = static_cast<time_t>(delay.count() / 1000);
    value.tv_nsec = static_cast<long>(delay.count() % 1000) * 1'000'000 + 1; // nothing at all would stop it
    pw_loop_update_timer(_loop.get(), _source, &value, nullptr, false);
}

void PipeWireTimer::stop()
{
    timespec never{};
    pw_loop_update_timer(_loop.get(), _source, &never, nullptr, false);
}
