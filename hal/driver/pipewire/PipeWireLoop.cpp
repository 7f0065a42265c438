#include "PipeWireLoop.h"

#include <pipewire/pipewire.h>
#include <stdexcept>

namespace {

pw_loop* newLoop()
{
    pw_init(nullptr, nullptr); // counted; the library stays for the life of the process
    pw_loop* loop = pw_loop_new(nullptr);
    if (!loop)
        throw std::runtime_error("no loop for PipeWire");
    return loop;
}

} // namespace

PipeWireLoop::PipeWireLoop()
    : _loop(newLoop()),
      _wake(pw_loop_add_event(
          _loop, [](void* self, uint64_t) { static_cast<PipeWireLoop*>(self)->_runPosted(); }, this)),
      _thread("dxr-pipewire", [this] { _run(); })
{}

PipeWireLoop::~PipeWireLoop()
{
    post([this] { _ended = true; });
    _thread.join();
    pw_loop_destroy_source(_loop, _wake);
    pw_loop_destroy(_loop);
}

void PipeWireLoop::post(Work work)
{
    {
        const std::scoped_lock lock(_mutex);
        _posted.push_back(std::move(work));
    }
    pw_loop_signal_event(_loop, _wake); // one descriptor write, which any thread may do
}

void PipeWireLoop::_run()
{
    pw_loop_enter(_loop);
    while (!_ended)
        pw_loop_iterate(_loop, -1);
    pw_loop_leave(_loop);
}

void PipeWireLoop::_runPosted()
{
    for (;;) {
        Work work;
        {
            const std::scoped_lock lock(_mutex);
            if (_posted.empty())
                return;
            work = std::move(_posted.front());
            _posted.pop_front();
        }
        work();
    }
}
