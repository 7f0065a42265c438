#pragma once

#include "HALDeviceDriver.h"

#include <condition_variable>
#include <mutex>
#include <optional>

/// What one thread waits for while the loop's thread has a write carried out: that the server has taken it,
/// and then, for a moment longer, that its effect shows.
/// Threads: any.
/// Waits:   wait() only, for a bounded time.
class PipeWireReply final : public CXObject {
public:
    static CXRef<PipeWireReply> make() { return CXRef<PipeWireReply>::adopt(new PipeWireReply); }

    /// The server has taken the write; its effect will come.
    void accept();
    /// The write is over. Only the first status counts.
    void finish(HALStatus status);
    bool isAccepted() const;
    bool isOver() const;

    /// The status; success when the server has taken the write but shows no effect yet; 'what' when it does
    /// not reply by `deadline`.
    HALStatus wait(HALDeadline deadline);

private:
    PipeWireReply() = default;
    ~PipeWireReply() override = default;

    mutable std::mutex _mutex;
    std::condition_variable _changed;
    bool _accepted = false;
    std::optional<HALStatus> _status;
};
