#pragma once

#include "PipeWireSession.h"

#include <memory>
#include <utility>
#include <vector>

/// Links between ports of the server. Many at once take a server time that grows with the square of their number,
/// and more file descriptors than fit into a message: they are made a few at a time, each lot when the one before
/// has settled.
/// Threads: the loop's.
class PipeWireLinks {
public:
    /// An output port and the input port it is linked to, by their ids on the server.
    using Ends = std::pair<uint32_t, uint32_t>;

    explicit PipeWireLinks(PipeWireSession& session);
    ~PipeWireLinks();
    PipeWireLinks(const PipeWireLinks&) = delete;
    PipeWireLinks& operator=(const PipeWireLinks&) = delete;

    /// Makes these links, the first of them now.
    void make(std::vector<Ends> all);

private:
    class Link;

    void _makeNext();
    void _settled();

    PipeWireSession& _session;
    std::vector<Ends> _waiting; // the next is last
    std::vector<std::unique_ptr<Link>> _links;
    size_t _unsettled = 0;
};
