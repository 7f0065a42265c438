#pragma once

#include "TestClient.h"

#include <map>
#include <spa/monitor/device.h>
#include <spa/pod/builder.h>
#include <string>
#include <vector>

/// A sound card, exported to a server by the test's own process: a profile, routes with volume and mute, headphones
/// that can be plugged, and a sink (and a source) that belong to it.
/// Threads: one.
class FakeCard {
public:
    struct Options {
        std::string name =
            "fake";              ///< the card is alsa_card.NAME, its nodes alsa_output.NAME.stereo and so on
        bool microphone = false; ///< whether it has a source too
        NodeProperties properties{};     ///< of the card, on top of a serial number, a maker and a bus
        NodeProperties nodeProperties{}; ///< of its nodes
    };

    enum Route : uint32_t { Speakers, Headphones, Microphone };

    FakeCard(const std::string& remote, Options options);
    ~FakeCard();
    FakeCard(const FakeCard&) = delete;
    FakeCard& operator=(const FakeCard&) = delete;

    std::string sinkName() const { return "alsa_output." + _options.name + ".stereo"; }
    std::string sourceName() const { return "alsa_input." + _options.name + ".stereo"; }
    std::string deviceName() const { return "alsa_card." + _options.name; }

    /// What the hardware does by itself, or another client through it.
    void setHeadphonesPlugged(bool plugged);
    void setRoute(Route route);
    void setVolumes(Route route, std::vector<float> amplitudes);
    void setMuted(Route route, bool muted);

    Route outputRoute() const;
    std::vector<float> volumes(Route route) const;
    bool isMuted(Route route) const;
    /// Waits until the card is as asked. False when it never is.
    bool waitUntil(const std::function<bool(const FakeCard&)>& isTrue) const;

    TestClient& client() noexcept { return _client; }

private:
    struct RouteState {
        const char* name;
        const char* description;
        const char* portType;
        std::vector<float> amplitudes{1.0F, 1.0F};
        bool muted = false;
    };

    static int _addListener(void* object, spa_hook* listener, const spa_device_events* events, void* data);
    static int _sync(void* object, int sequence);
    static int _enumParams(void* object, int sequence, uint32_t id, uint32_t start, uint32_t count,
                           const spa_pod* filter);
    static int _setParam(void* object, uint32_t id, uint32_t flags, const spa_pod* param);

    const spa_pod* _param(spa_pod_builder& builder, uint32_t id, uint32_t index) const;
    const spa_pod* _profile(spa_pod_builder& builder, uint32_t id, uint32_t index) const;
    const spa_pod* _route(spa_pod_builder& builder, uint32_t id, uint32_t route) const;
    void _takeRoute(const spa_pod* param);
    void _emitInfo(uint64_t changes);
    void _changed(uint32_t paramID);
    bool _isAvailable(uint32_t route) const;
    pw_proxy* _makeNode(const std::string& name, const char* mediaClass, uint32_t cardID, int device);

    const Options _options;
    TestClient _client;
    spa_device _device{};
    spa_hook_list _hooks{};
    NodeProperties _properties;
    std::vector<spa_dict_item> _items;
    spa_dict _dictionary{};
    spa_param_info _params[4];
    spa_device_info _info{};
    std::vector<RouteState> _routes;
    uint32_t _activeRoutes[2] = {Speakers, Microphone}; // of the sink and of the source
    bool _headphonesPlugged = false;
    pw_proxy* _exported = nullptr;
    std::vector<pw_proxy*> _nodes;
};
