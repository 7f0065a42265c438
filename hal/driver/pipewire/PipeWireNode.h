#pragma once

#include "PipeWireParams.h"
#include "PipeWirePort.h"
#include "PipeWireSession.h"

#include <functional>
#include <map>
#include <memory>
#include <vector>

/// A node of the server that is a device or half of one: a sink, a source, or both.
/// Threads: the loop's.
class PipeWireNode {
public:
    enum class Kind { Sink, Source, Duplex };

    /// The kind of a node of this media class; nullopt if it is no device.
    static std::optional<Kind> kindOfMediaClass(const std::string& mediaClass);

    /// Follows the server's node `id`. `serial` identifies the node for the life of this process, because the
    /// server may soon reuse `id` for another node. Calls `changed` after every change, for the first time
    /// when the node becomes ready.
    PipeWireNode(PipeWireSession& session, uint32_t id, uint64_t serial, Kind kind,
                 const PipeWireProperties& properties, PipeWireLoop::Work changed);
    ~PipeWireNode();
    PipeWireNode(const PipeWireNode&) = delete;
    PipeWireNode& operator=(const PipeWireNode&) = delete;

    uint32_t id() const noexcept { return _id; }
    uint64_t serial() const noexcept { return _serial; }
    Kind kind() const noexcept { return _kind; }
    bool isReady() const noexcept { return _isReady; } ///< whether all data from the server has arrived
    bool isRunning() const noexcept { return _isRunning; }
    const PipeWireProperties& properties() const noexcept { return _properties; }
    /// The server's id of the card that the node belongs to.
    std::optional<uint32_t> cardID() const;

    /// The ports for playback (inputs) and for recording (outputs), in channel order, without monitors.
    std::vector<const PipeWirePort*> playbackPorts() const;
    std::vector<const PipeWirePort*> capturePorts() const;
    /// The outputs of a sink that deliver what is played to it.
    std::vector<const PipeWirePort*> monitorPorts() const;
    void portAppeared(const PipeWirePort& port);
    void portDisappeared(uint32_t portID);
    /// The latency of the first playback or capture port; zero if it reports none.
    PipeWireLatency latency(bool ofPlayback) const;

    PipeWireVolumeProps volumeProps() const;
    /// The rates that the node's formats support.
    std::vector<PipeWireRateRange> rates() const;
    /// The rate (Hz) of the current format; nullopt while the node has none.
    std::optional<uint32_t> formatRate() const;

    /// Asks the server to change volume or mute.
    void setVolumeProps(const PipeWireVolumeProps& change);

private:
    struct Listener;
    static void _info(void* data, const struct pw_node_info* info);
    static void _param(void* data, int sequence, uint32_t kind, uint32_t index, uint32_t next,
                       const spa_pod* param);
    void _commitWhenAnswered();
    void _followLatency();
    std::vector<const PipeWirePort*> _ports(bool inputs) const;

    PipeWireSession& _session;
    const uint32_t _id;
    const uint64_t _serial;
    const Kind _kind;
    const PipeWireLoop::Work _changed;
    const std::unique_ptr<Listener> _listener;
    pw_proxy* _proxy = nullptr;
    PipeWireProperties _properties;
    PipeWireParams _params;
    std::map<uint32_t, PipeWirePort> _allPorts; // by id
    std::unique_ptr<PipeWirePortLatency> _playbackLatency;
    std::unique_ptr<PipeWirePortLatency> _captureLatency;
    bool _isReady = false;
    bool _isRunning = false;
};
