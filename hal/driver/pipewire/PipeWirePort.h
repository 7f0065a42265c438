#pragma once

#include "PipeWireParams.h"
#include "PipeWirePods.h"
#include "PipeWireSession.h"

#include <memory>

/// A port of a node: one channel, in one direction.
struct PipeWirePort {
    uint32_t id = 0;    ///< on the server
    uint32_t index = 0; ///< among the ports of its node and direction
    bool isInput = false;
    bool isMonitor = false; ///< delivers what is played to a sink
    bool isAudio = false;   ///< plain samples of one channel
    std::string name;
    std::string channel; ///< "FL"; empty if unknown

    PipeWirePort() = default;
    PipeWirePort(uint32_t globalID, const PipeWireProperties& properties);
};

/// The latency that one port reports, kept up to date.
/// Threads: the loop's.
class PipeWirePortLatency {
public:
    /// Calls `changed` whenever the latency has changed.
    PipeWirePortLatency(PipeWireSession& session, const PipeWirePort& port, PipeWireLoop::Work changed);
    ~PipeWirePortLatency();
    PipeWirePortLatency(const PipeWirePortLatency&) = delete;
    PipeWirePortLatency& operator=(const PipeWirePortLatency&) = delete;

    uint32_t portID() const noexcept { return _portID; }
    /// The latency between the port and the hardware, in the port's direction.
    const PipeWireLatency& latency() const noexcept { return _latency; }

private:
    struct Listener;
    static void _param(void* data, int sequence, uint32_t kind, uint32_t index, uint32_t next,
                       const spa_pod* param);

    const uint32_t _portID;
    const bool _isInput;
    const PipeWireLoop::Work _changed;
    const std::unique_ptr<Listener> _listener;
    pw_proxy* const _proxy;
    PipeWireLatency _latency;
};
