#pragma once

#include "DXRDeviceRunner.h"
#include "Events.h"
#include "dxr/c.h"

#include <atomic>
#include <mutex>

namespace dxr_c {

/// Whether an audio or log callback is running on this thread: functions that may wait refuse to run then.
bool& isInRestrictedCallback() noexcept;

/// A runner and the state that its callbacks need.
class Runner final : public CXObject {
public:
    explicit Runner(CXRef<DXRDeviceRunner> made) : runner(std::move(made)) {}
    ~Runner() override { end(); } // no block, which refers to this object, runs from here on

    /// Stops the runner and its callbacks permanently, even if another thread holds it, and starts it again.
    void end();
    void follow(const CXBlock<void()>& block);
    DXRIOBlock blockFor(dxr_io io, void* user, bool input);

    const CXRef<DXRDeviceRunner> runner;
    /// A callback has requested a stop: no callback is called until the next start.
    std::atomic<bool> hasEnded{false};
    /// Set when the handle is released: no callback is called any more.
    const CXRef<Notice> over = CXRef<Notice>::adopt(new Notice);

private:
    std::mutex _mutex;
    CXRef<Notice> _notice; // guarded by _mutex
};

} // namespace dxr_c
