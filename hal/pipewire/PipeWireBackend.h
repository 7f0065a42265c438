#pragma once

#include "HALModelBackend.h"

#include <memory>
#include <optional>
#include <span>
#include <string>

struct PipeWireGroupMember;

/// The devices of a PipeWire server: sinks, sources and cards as they come and go, their volumes, routes, rates and
/// cycle lengths, and audio through them. It follows the server through its end and its return.
/// Threads: as HALBackend; three of its own: one for the server, PipeWire's for audio, and the notification thread.
/// Fails:   without a server there are no devices, until there is one. One that hangs makes writes answer 'what'
///          after at most two seconds; reads go on answering what was last known.
class PipeWireBackend final : public HALModelBackend {
public:
    /// `remote` is a remote name or the path of a server's socket; nothing means the user's own server, found as
    /// every client of PipeWire finds it. Throws std::runtime_error when the process has no descriptors left.
    static CXRef<PipeWireBackend> initWithRemote(const std::optional<std::string>& remote = std::nullopt);

    // -- Several devices in one cycle, as PipeWireHardware says. Not on IO threads.
    HALStatus startTogether(uint64_t groupNumber, std::span<const PipeWireGroupMember> members,
                            const CXRef<HALIOProcTable>& table);
    HALStatus setGroupMember(uint64_t groupNumber, size_t place, AudioObjectID deviceID);
    void stopTogether(uint64_t groupNumber);
    using HALModelBackend::ioProcTable;
    using HALModelBackend::notifier;

protected:
    HALStatus setNominalSampleRate(AudioObjectID deviceID, double rate) override;
    HALStatus setBufferFrameSize(AudioObjectID deviceID, uint32_t frameCount) override;
    HALStatus setVolume(AudioObjectID deviceID, HALDirection direction, uint32_t element,
                        float scalar) override;
    HALStatus setMuted(AudioObjectID deviceID, HALDirection direction, bool muted) override;
    HALStatus setDataSource(AudioObjectID deviceID, HALDirection direction, uint32_t sourceID) override;
    HALStatus chooseDefaultDevice(HALDefault which, AudioObjectID deviceID) override;
    HALStatus startIO(AudioObjectID deviceID, const CXRef<HALIOProcTable>& table) override;
    void stopIO(AudioObjectID deviceID) override;
    void waitUntilEnumerated() override;

private:
    class Engine; // the loop, and what lives on it

    explicit PipeWireBackend(const std::optional<std::string>& remote);
    ~PipeWireBackend() override;

    const std::unique_ptr<Engine> _engine;
};
