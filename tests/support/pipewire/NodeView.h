#pragma once

#include "TestClient.h"

#include <pipewire/extensions/metadata.h>

/// One node as any other client of the server sees it: its volumes, and the means to change them.
/// Threads: one; the client outlives it.
class NodeView {
public:
    NodeView(TestClient& client, uint32_t nodeID);
    ~NodeView();
    NodeView(const NodeView&) = delete;
    NodeView& operator=(const NodeView&) = delete;

    /// Linear amplitudes, one per channel; empty while the node has told none.
    std::vector<float> volumes() const;
    bool isMuted() const;
    void setVolumes(const std::vector<float>& amplitudes);
    void setMuted(bool muted);

private:
    static void _param(void* data, int sequence, uint32_t id, uint32_t index, uint32_t next,
                       const spa_pod* param);

    TestClient& _client;
    pw_proxy* _proxy = nullptr;
    spa_hook _listener{};
    std::vector<float> _volumes;
    bool _muted = false;
};

/// One metadata object as any other client of the server sees it.
/// Threads: one; the client outlives it.
class MetadataView {
public:
    MetadataView(TestClient& client, const std::string& name);
    ~MetadataView();
    MetadataView(const MetadataView&) = delete;
    MetadataView& operator=(const MetadataView&) = delete;

    /// The value of `key` for the whole server; empty when there is none.
    std::string value(const std::string& key) const;
    /// Waits until the key has this value. False when it never does.
    bool waitForValue(const std::string& key, const std::string& json) const;
    void set(const std::string& key, const std::string& json);

private:
    static int _property(void* data, uint32_t subject, const char* key, const char* type, const char* value);

    TestClient& _client;
    pw_proxy* _proxy = nullptr;
    spa_hook _listener{};
    NodeProperties _values;
};
