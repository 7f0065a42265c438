#pragma once

#include "PipeWireParams.h"
#include "PipeWirePods.h"
#include "PipeWireSession.h"

#include <memory>

/// A card of the server: its routes hold the volumes of the nodes that belong to it.
/// Threads: the loop's.
class PipeWireCard {
public:
    /// The parameters are those of PipeWireNode's constructor.
    PipeWireCard(PipeWireSession& session, uint32_t id, uint64_t serial, const PipeWireProperties& properties,
                 PipeWireLoop::Work changed);
    ~PipeWireCard();
    PipeWireCard(const PipeWireCard&) = delete;
    PipeWireCard& operator=(const PipeWireCard&) = delete;

    uint32_t id() const noexcept { return _id; }
    uint64_t serial() const noexcept { return _serial; }
    bool isReady() const noexcept { return _isReady; }
    const PipeWireProperties& properties() const noexcept { return _properties; }

    /// The routes that a sub-device can use in the current profile and that are not unplugged.
    std::vector<PipeWireRoute> routes(uint32_t device, bool isInput) const;
    /// The route that a sub-device uses now.
    std::optional<PipeWireRoute> activeRoute(uint32_t device, bool isInput) const;

    /// Asks the server to switch a sub-device to a route, with this change to its volume.
    void setRoute(uint32_t routeIndex, uint32_t device, const PipeWireVolumeProps& change);

private:
    struct Listener;
    static void _info(void* data, const struct pw_device_info* info);
    static void _param(void* data, int sequence, uint32_t kind, uint32_t index, uint32_t next,
                       const spa_pod* param);
    void _commitWhenAnswered();
    void _parse();

    PipeWireSession& _session;
    const uint32_t _id;
    const uint64_t _serial;
    const PipeWireLoop::Work _changed;
    const std::unique_ptr<Listener> _listener;
    pw_proxy* _proxy = nullptr;
    PipeWireProperties _properties;
    PipeWireParams _params;
    std::vector<PipeWireRoute> _routes;
    std::vector<PipeWireRoute> _activeRoutes;
    std::optional<uint32_t> _profile;
    bool _isReady = false;
};
