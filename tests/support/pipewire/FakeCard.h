#pragma once

#include "TestClient.h"

#include <spa/monitor/device.h>

/// A sound card that the test's process exports to a server. It has a profile, routes with volume and mute,
/// headphones that can be plugged in, and a sink (and a source).
/// Threads: one.
class FakeCard {
public:
    struct Options {
        std::string name = "fake";   ///< the card is alsa_card.NAME, its nodes alsa_output.NAME.stereo…
        bool microphone = false;     ///< whether it also has a source
        NodeProperties properties{}; ///< of the card, added to the default serial number, maker and bus
    };

    enum Route : uint32_t { Speakers, Headphones, Microphone };

    struct State {
        bool headphonesPlugged = false;
        uint32_t activeRoutes[2] = {Speakers, Microphone}; ///< of the sink and of the source
        float amplitudes[3][2] = {{1, 1}, {1, 1}, {1, 1}}; ///< of each route and channel
        bool muted[3] = {};                                ///< of each route
    };

    FakeCard(const std::string& remote, Options options);
    ~FakeCard() { _client.destroy(_exported); }

    std::string sinkName() const { return "alsa_output." + _options.name + ".stereo"; }
    std::string deviceName() const { return "alsa_card." + _options.name; }

    /// Changes the state as the hardware or another client would.
    void change(const std::function<void(State&)>& change);
    /// Waits until `isTrue` holds for the card's state. Returns false on timeout.
    bool waitUntil(const std::function<bool(const State&)>& isTrue) const;

private:
    static int _addListener(void* object, spa_hook* listener, const spa_device_events* events, void* data);
    static int _sync(void* object, int sequence);
    static int _enumParams(void* object, int sequence, uint32_t id, uint32_t start, uint32_t count,
                           const spa_pod* filter);
    static int _setParam(void* object, uint32_t id, uint32_t flags, const spa_pod* param);

    /// Returns a parameter as JSON; empty after the last one.
    std::string _param(uint32_t id, uint32_t index) const;
    void _emitInfo();

    const Options _options;
    spa_device _device{};
    spa_hook_list _hooks{};
    std::unique_ptr<pw_properties, decltype(&pw_properties_free)> _properties{nullptr, pw_properties_free};
    spa_param_info _params[3];
    spa_device_info _info{};
    State _state;
    TestClient _client; // after the fields that its thread uses
    pw_proxy* _exported = nullptr;
};
