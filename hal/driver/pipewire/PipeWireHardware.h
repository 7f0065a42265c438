#pragma once

#include "HALHardwareDriver.h"
#include "PipeWireDeviceList.h"
#include "PipeWireMirror.h"
#include "PipeWireReply.h"
#include "PipeWireRuns.h"
#include "PipeWireSession.h"

#include <functional>
#include <list>
#include <optional>
#include <string>
#include <vector>

/// Callback interface of the hardware's owner. Called on the loop's thread.
class PipeWireHardwareOwner {
public:
    /// What the model will know a device by.
    virtual CXRef<HALDeviceDriver> makeDriver() = 0;
    /// There is a server now, or none any more.
    virtual void serverFound(bool isFound) = 0;
    /// The devices that were there at the beginning are reported, or there is no server.
    virtual void enumerated() = 0;

protected:
    ~PipeWireHardwareOwner() = default;
};

/// The loop's half of the driver: reports devices as the server has them, and carries out what clients ask.
/// Every write finishes its reply, at once when there is nothing to wait for.
/// Threads: the loop's.
class PipeWireHardware final : PipeWireSessionClient,
                               PipeWireMirrorClient,
                               PipeWireDeviceListClient,
                               PipeWireRunsClient {
public:
    PipeWireHardware(PipeWireLoop& loop, PipeWireHardwareOwner& owner, HALDriverSink& sink,
                     const std::optional<std::string>& remote);
    ~PipeWireHardware();
    PipeWireHardware(const PipeWireHardware&) = delete;
    PipeWireHardware& operator=(const PipeWireHardware&) = delete;

    void connect() { _session.connect(); }
    /// Null when the device is absent or has gone.
    PipeWireDevice* deviceOf(const HALDeviceDriver* driver) const;

    using Reply = CXRef<PipeWireReply>;
    void setNominalSampleRate(PipeWireDevice& device, double rate, const Reply& reply);
    void setBufferFrameSize(PipeWireDevice& device, uint32_t frameCount, const Reply& reply);
    void setVolume(PipeWireDevice& device, HALDirection direction, uint32_t element, float scalar,
                   const Reply& reply);
    void setMuted(PipeWireDevice& device, HALDirection direction, bool muted, const Reply& reply);
    void setDataSource(PipeWireDevice& device, HALDirection direction, uint32_t sourceID, const Reply& reply);
    void chooseDefaultDevice(HALDefault which, const PipeWireDevice& device, const Reply& reply);

    /// 'what' when no cycle has come by the deadline; then nothing is left of the start.
    void startIO(PipeWireDevice& device, const CXRef<HALIOProcTable>& table, PipeWireRun::Time deadline,
                 const Reply& reply);
    void stopIO(PipeWireDevice& device, const Reply& reply);
    /// Runs the members in one cycle through `table`, with the streams of all in their order: those of one
    /// group domain and equal rates, else 'nope'. `groupNumber` names the group until stopTogether().
    void startTogether(uint64_t groupNumber, const std::vector<HALGroupMember>& members,
                       const CXRef<HALIOProcTable>& table, PipeWireRun::Time deadline, const Reply& reply);
    /// The member has gone (both null), or is there again. 'nope' when the device cannot run with the others.
    void setGroupMember(uint64_t groupNumber, size_t place, const CXRef<HALDeviceDriver>& driver,
                        const CXRef<HALIOProcTable>& table, const Reply& reply);
    void stopTogether(uint64_t groupNumber, const Reply& reply);

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

    void runChanged(PipeWireDevice& device) override { _publish(device); }
    void runsUpdated() override { _finishShown(); }

    void _publish(PipeWireDevice& device);
    void _finishWhen(const Reply& reply, std::function<bool()> shows);
    void _finishWhen(const PipeWireDevice& device, const Reply& reply,
                     std::function<bool(const PipeWireDevice&)> shows);
    void _finishShown();
    void _setVolumeProps(PipeWireDevice& device, HALDirection direction, const PipeWireVolumeProps& change,
                         const Reply& reply);
    void _finishWhenRuns(PipeWireDevice& device, const Reply& reply,
                         const std::function<bool(const PipeWireClockSeen&)>& shows);

    PipeWireHardwareOwner& _owner;
    HALDriverSink& _sink;
    PipeWireSession _session;
    PipeWireMirror _mirror;
    PipeWireDeviceList _devices;
    PipeWireRuns _runs;
    PipeWireClockSettings _settings;
    std::list<Pending> _pending;
};
