#pragma once

#include "PipeWireDeviceList.h"
#include "PipeWireMirror.h"
#include "PipeWireModel.h"
#include "PipeWireReply.h"
#include "PipeWireSession.h"

#include <functional>
#include <list>
#include <optional>
#include <string>

/// The loop's half of the backend: keeps the model in step with the server, and carries out what clients ask.
/// Every write answers through its reply, at once when nothing is to be waited for.
/// Threads: the loop's.
class PipeWireHardware final : PipeWireSessionClient, PipeWireMirrorClient, PipeWireDeviceListClient {
public:
    PipeWireHardware(PipeWireLoop& loop, PipeWireModel& model, const std::optional<std::string>& remote);
    ~PipeWireHardware();
    PipeWireHardware(const PipeWireHardware&) = delete;
    PipeWireHardware& operator=(const PipeWireHardware&) = delete;

    void connect() { _session.connect(); }

    using Reply = CXRef<PipeWireReply>;
    void setNominalSampleRate(AudioObjectID deviceID, double rate, const Reply& reply);
    void setBufferFrameSize(AudioObjectID deviceID, uint32_t frameCount, const Reply& reply);
    void setVolume(AudioObjectID deviceID, HALDirection direction, uint32_t element, float scalar,
                   const Reply& reply);
    void setMuted(AudioObjectID deviceID, HALDirection direction, bool muted, const Reply& reply);
    void setDataSource(AudioObjectID deviceID, HALDirection direction, uint32_t sourceID, const Reply& reply);
    void chooseDefaultDevice(HALDefault which, AudioObjectID deviceID, const Reply& reply);
    void startIO(AudioObjectID deviceID, const CXRef<HALIOProcTable>& table, const Reply& reply);
    void stopIO(AudioObjectID deviceID, const Reply& reply);

private:
    /// A write that the server has been asked for, until its effect shows.
    struct Pending {
        Reply reply;
        std::function<bool()> shows;
    };

    void sessionConnected() override;
    void sessionDisconnected() override;
    void sessionFoundNoServer() override;
    void globalAppeared(uint32_t id, const char* type, const PipeWireProperties& properties) override;
    void globalDisappeared(uint32_t id) override;

    void groupChanged(uint64_t serial) override;
    void clockSettingsChanged() override;
    void defaultsChanged() override;
    void changesEnded() override;
    void enumerated() override;
    void portAppeared(uint32_t nodeID) override;

    void deviceAppeared(PipeWireDevice& device) override;
    void deviceChanged(PipeWireDevice& device) override;
    void deviceDisappears(PipeWireDevice& device) override;

    void _publish(PipeWireDevice& device);
    void _finishWhen(const Reply& reply, std::function<bool()> shows);
    void _finishShown();
    void _setVolumeProps(PipeWireDevice& device, HALDirection direction, const PipeWireVolumeProps& change,
                         const Reply& reply);
    void _applyWishes(PipeWireDevice& device, const Reply& reply, std::function<bool()> shows);
    PipeWireDeviceIO::Wishes _wishes(PipeWireDevice& device) const;
    void _makeIO(PipeWireDevice& device, const CXRef<HALIOProcTable>& table);
    void _ioChanged(AudioObjectID deviceID);
    void _linkIO(PipeWireDevice& device);

    PipeWireModel& _model;
    PipeWireSession _session;
    PipeWireMirror _mirror;
    PipeWireDeviceList _devices;
    PipeWireTimer _ioEnded;
    PipeWireClockSettings _settings;
    std::list<Pending> _pending;
    std::unordered_map<AudioObjectID, CXRef<HALIOProcTable>> _running; // devices whose IO is on
};
