#pragma once

#include "HALHardwareDriver.h"

#include <optional>
#include <string>

class PipeWireEngine;

/// The devices of a PipeWire server: sinks, sources and cards as they come and go, their volumes, routes, rates and
/// cycle lengths, and audio through them. It follows the server through its end and its return.
/// Threads: as HALHardwareDriver; two of its own: one for the server, PipeWire's for audio.
/// Fails:   without a server there are no devices, until there is one. A server that hangs makes writes return 'what'
///          at their deadline; reads go on returning what was last known.
class PipeWireDriver final : public HALHardwareDriver {
public:
    /// `remote` is a remote name or the path of a server's socket; nothing means the user's own server, found as
    /// every client of PipeWire finds it.
    static CXRef<PipeWireDriver> initWithRemote(const std::optional<std::string>& remote = std::nullopt);

    void start(HALDriverSink& sink) override;
    void stop() override;
    void waitUntilEnumerated() override;
    std::string unavailableReason() const override;
    HALStatus chooseDefaultDevice(HALDefault which, HALDeviceDriver& device, HALDeadline deadline) override;

private:
    explicit PipeWireDriver(const std::optional<std::string>& remote);
    ~PipeWireDriver() override;

    const CXRef<PipeWireEngine> _engine;
};
