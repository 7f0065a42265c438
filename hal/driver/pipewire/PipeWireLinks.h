#pragma once

#include "PipeWireSession.h"
#include "PipeWireWake.h"

#include <memory>
#include <utility>
#include <vector>

/// Links between ports of the server, created in batches, each after the previous one has settled: the time
/// to create many links at once grows with the square of their number, and their file descriptors do not fit
/// into one message.
/// Threads: the loop's.
class PipeWireLinks {
public:
    /// An output port and the input port it is linked to, by the server's ids.
    using Ends = std::pair<uint32_t, uint32_t>;

    /// Starts creating a link for each of `ends`. Signals `wake` when the state of a link has changed.
    PipeWireLinks(PipeWireSession& session, const PipeWireWake& wake, std::vector<Ends> ends);
    ~PipeWireLinks();
    PipeWireLinks(const PipeWireLinks&) = delete;
    PipeWireLinks& operator=(const PipeWireLinks&) = delete;

    /// Whether a link was refused or destroyed, or has stopped carrying samples.
    bool isBroken() const;
    /// Whether any link carries samples.
    bool isActive() const;
    /// Whether all links of the first batch carry samples. The later ones follow while IO runs.
    bool hasStarted() const;
    /// Recreates the broken links.
    void mend();

private:
    class Link;

    void _makeNext();
    void _settled();

    PipeWireSession& _session;
    const PipeWireWake& _wake;
    std::vector<Ends> _waiting; // in reverse: the next one is at the back
    std::vector<std::unique_ptr<Link>> _links;
    size_t _unsettledCount = 0;
};
