#include "PipeWireWake.h"

#include <pipewire/pipewire.h>

PipeWireWake::PipeWireWake(PipeWireLoop& loop, PipeWireLoop::Work work)
    : _loop(loop), _work(std::move(work)),
      _source(pw_loop_add_event(
          loop.get(), [](void* self, uint64_t) { static_cast<PipeWireWake*>(self)->_work(); }, this))
{}

PipeWireWake::~PipeWireWake()
{
    if (_source)
        pw_loop_destroy_source(_loop.get(), _source);
}

void PipeWireWake::signal() const noexcept
{
    const CXRealtimeExemption exemption("writes to a counter of the kernel, which never waits");
    if (_source)
        pw_loop_signal_event(_loop.get(), _source);
}
