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
    /// Creates the driver that identifies a new device to the model.
    virtual CXRef<HALDeviceDriver> makeDriver() = 0;
    /// The connection to a server was made or lost.
    virtual void serverFound(bool isFound) = 0;
    /// The initial devices have been reported, or no server was found.
    virtual void enumerated() = 0;

protected:
    ~PipeWireHardwareOwner() = default;
};

/// The half of the driver on the loop's thread: reports the server's devices and carries out clients'
/// requests. Every write finishes its reply, at once if there is nothing to wait for.
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
    /// Null if `driver` is null or its device has disappeared.
    PipeWireDevice* deviceOf(const HALDeviceDriver* driver) const;

    using Reply = CXRef<PipeWireReply>;
    void setNominalSampleRate(PipeWireDevice& device, double rate, const Reply& reply);
    void setBufferFrameSize(PipeWireDevice& device, uint32_t frameCount, const Reply& reply);
    void setVolume(PipeWireDevice& device, HALDirection direction, uint32_t element, float scalar,
                   const Reply& reply);
    void setMuted(PipeWireDevice& device, HALDirection direction, bool muted, const Reply& reply);
    void setDataSource(PipeWireDevice& device, HALDirection direction, uint32_t sourceID, const Reply& reply);
    void chooseDefaultDevice(HALDefault which, const PipeWireDevice& device, const Reply& reply);

    /// Replies 'what' if there was no cycle by the deadline; the IO is then stopped.
    void startIO(PipeWireDevice& device, const CXRef<HALIOProcTable>& table, PipeWireRun::Time deadline,
                 const Reply& reply);
    void stopIO(PipeWireDevice& device, const Reply& reply);
    /// Runs the members in one cycle through `table`, with the streams of all members in order. Replies
    /// 'nope' unless they have the same group domain and equal rates. `groupNumber` identifies the group
    /// until stopTogether().
    void startTogether(uint64_t groupNumber, const std::vector<HALGroupMember>& members,
                       const CXRef<HALIOProcTable>& table, PipeWireRun::Time deadline, const Reply& reply);
    /// The member at `place` has disappeared (both null) or returned. Replies 'nope' if the device cannot run
    /// with the others.
    void setGroupMember(uint64_t groupNumber, size_t place, const CXRef<HALDeviceDriver>& driver,
                        const CXRef<HALIOProcTable>& table, const Reply& reply);
    void stopTogether(uint64_t groupNumber, const Reply& reply);

private:
    /// A write that was sent to the server and whose effect is not visible yet.
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
    void _dropFinished();
    static void _sendVolumeProps(PipeWireDevice& device, HALDirection direction,
                                 const PipeWireDevice::VolumePlace& place, const PipeWireVolumeProps& change);
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
