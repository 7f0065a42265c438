#pragma once

#include "PipeWireParams.h"
#include "PipeWirePort.h"
#include "PipeWireSession.h"

#include <functional>
#include <map>
#include <memory>
#include <vector>

/// A node of the server that is, or is half of, a device: a sink, a source, or both.
/// Threads: the loop's.
class PipeWireNode {
public:
    enum class Kind { Sink, Source, Duplex };

    /// What a node of this media class is; nothing when it is no device.
    static std::optional<Kind> kindOfMediaClass(const std::string& mediaClass);

    /// Follows node `id` of the server. `serial` names it for as long as this process lives; the server's own
    /// id may name another node soon. Calls `changed` after every change, for the first time when everything
    /// is known.
    PipeWireNode(PipeWireSession& session, uint32_t id, uint64_t serial, Kind kind,
                 const PipeWireProperties& properties, PipeWireLoop::Work changed);
    ~PipeWireNode();
    PipeWireNode(const PipeWireNode&) = delete;
    PipeWireNode& operator=(const PipeWireNode&) = delete;

    uint32_t id() const noexcept { return _id; }
    uint64_t serial() const noexcept { return _serial; }
    Kind kind() const noexcept { return _kind; }
    bool isReady() const noexcept { return _isReady; } ///< everything the server reports of it has come
    bool isRunning() const noexcept { return _isRunning; }
    const PipeWireProperties& properties() const noexcept { return _properties; }
    /// The card it belongs to, by its id on the server.
    std::optional<uint32_t> cardID() const;

    /// The ports that audio is played to (inputs) or recorded from, in channel order; no monitors.
    std::vector<const PipeWirePort*> playbackPorts() const;
    std::vector<const PipeWirePort*> capturePorts() const;
    /// The ports of a sink that give back what is played to it.
    std::vector<const PipeWirePort*> monitorPorts() const;
    void portAppeared(const PipeWirePort& port);
    void portDisappeared(uint32_t portID);
    /// Of the first playback port, or capture port; zero when it says none.
    PipeWireLatency latency(bool ofPlayback) const;

    PipeWireVolumeProps volumeProps() const;
    /// The rates its formats take.
    std::vector<PipeWireRateRange> rates() const;
    /// The rate of its present format, Hz; nothing while it has none.
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
