#pragma once

#include "HALDeviceDriver.h"

#include <condition_variable>
#include <mutex>
#include <optional>

/// The result of a write that the loop's thread carries out while another thread waits: until the server has
/// accepted the write, and then briefly until its effect is visible.
/// Threads: any.
/// Waits:   wait() only, for a bounded time.
class PipeWireReply final : public CXObject {
public:
    static CXRef<PipeWireReply> make() { return CXRef<PipeWireReply>::adopt(new PipeWireReply); }

    /// The server has accepted the write; its effect will follow.
    void accept();
    /// The write is finished. Only the first status counts.
    void finish(HALStatus status);
    bool isAccepted() const;
    bool isOver() const;

    /// Returns the status; success if the server has accepted the write but its effect is not visible in
    /// time; 'what' if the server does not reply by `deadline`.
    HALStatus wait(HALDeadline deadline);

private:
    PipeWireReply() = default;
    ~PipeWireReply() override = default;

    mutable std::mutex _mutex;
    std::condition_variable _changed;
    bool _accepted = false;
    std::optional<HALStatus> _status;
};
