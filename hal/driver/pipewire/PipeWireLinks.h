#pragma once

#include "PipeWireSession.h"
#include "PipeWireWake.h"

#include <memory>
#include <utility>
#include <vector>

/// Links between ports of the server. The time that many links made at once take grows with the square of
/// their number, and their file descriptors do not fit into one message: they are made in batches, each when
/// the one before has settled.
/// Threads: the loop's.
class PipeWireLinks {
public:
    /// An output port and the input port it is linked to, by their ids on the server.
    using Ends = std::pair<uint32_t, uint32_t>;

    /// Begins to make a link for each of `ends`. Signals `wake` when the state of a link has changed.
    PipeWireLinks(PipeWireSession& session, const PipeWireWake& wake, std::vector<Ends> ends);
    ~PipeWireLinks();
    PipeWireLinks(const PipeWireLinks&) = delete;
    PipeWireLinks& operator=(const PipeWireLinks&) = delete;

    /// Whether a link was refused, has been destroyed, or carries no samples any more.
    bool isBroken() const;
    /// Whether any link carries samples.
    bool isActive() const;
    /// Whether all links of the first batch carry samples. The later ones follow while IO runs.
    bool hasStarted() const;
    /// Makes the broken links anew.
    void mend();

private:
    class Link;

    void _makeNext();
    void _settled();

    PipeWireSession& _session;
    const PipeWireWake& _wake;
    std::vector<Ends> _waiting; // the next is last
    std::vector<std::unique_ptr<Link>> _links;
    size_t _unsettledCount = 0;
};
