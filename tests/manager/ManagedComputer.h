#pragma once

#include "DXRDeviceManager.h"
#include "Eventually.h"
#include "SimulatedComputer.h"

/// The UID of a monitor, which contains its port.
inline std::string monitorUID(const std::string& port)
{
    return "AppleGFXHDAEngineOutputDP:" + port + ":{1234}";
}
inline SimulatedDeviceBuilder monitor(const std::string& port)
{
    SimulatedDeviceBuilder made = aDevice().uid(monitorUID(port)).name("Monitor").outputs(2);
    return made.transport(kAudioDeviceTransportTypeDisplayPort);
}

inline SimulatedDeviceBuilder headset()
{
    return aDevice().uid("headset").name("Headset").inputs(1).outputs(2);
}

/// A simulated computer with a device manager.
class ManagedComputer : public SimulatedComputer {
protected:
    using Devices = DXRDeviceManager::Devices;
    /// The arguments of one call of a notifier.
    struct Changes {
        Devices connected, disconnected, updated;
    };

    ManagedComputer()
    {
        manager.addDeviceNotifier(nullptr, _notifier);
        settle();
        updates.clear();
    }
    ~ManagedComputer() override
    {
        settle();
        manager.removeDeviceNotifier(_notifier);
    }

    /// Waits until the manager has processed every change so far and the main queue is empty.
    virtual void settle()
    {
        for (int round = 0; round < 3; ++round) { // an update may request another
            settleHardware();
            DXRDeviceManager::queue().sync([] {});
        }
        settleHardware();
    }
    bool becomesTrue(const std::function<bool()>& condition)
    {
        settle();
        return eventually(condition, [this] { settle(); });
    }
    AudioObjectID plug(const SimulatedDeviceBuilder& device)
    {
        const AudioObjectID deviceID = hal.plug(device);
        settle();
        return deviceID;
    }
    void unplug(const std::string& uid)
    {
        EXPECT_TRUE(hal.unplug(uid)) << uid;
        settle();
    }
    void reconfigure(const std::string& uid, const auto& change)
    {
        hal.reconfigure(uid, change);
        settle();
    }
    CXRef<DXRDevice> device(const std::string& uid, bool isInput)
    {
        return manager.deviceWithDeviceUID(uid, isInput);
    }
    /// Returns the changes of all updates since the last call.
    Changes changesSinceLast()
    {
        Changes all;
        for (const Changes& one : std::exchange(updates, {})) {
            all.connected.insert(one.connected.begin(), one.connected.end());
            all.disconnected.insert(one.disconnected.begin(), one.disconnected.end());
            all.updated.insert(one.updated.begin(), one.updated.end());
        }
        return all;
    }

    DXRDeviceManager& manager = DXRDeviceManager::sharedDeviceManager();
    std::vector<Changes> updates; // written on the manager's queue

private:
    const DXRDeviceManager::NotifierBlock _notifier =
        [this](const Devices& connected, const Devices& disconnected, const Devices& updated) {
            updates.push_back({connected, disconnected, updated});
        };
};
