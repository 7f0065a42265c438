#pragma once

#include "DXRDeviceManager.h"
#include "SimulatedComputer.h"

/// A simulated computer whose devices are managed.
class ManagedComputer : public SimulatedComputer {
protected:
    using Devices = DXRDeviceManager::Devices;
    /// What a notifier was told in one update.
    struct Told {
        Devices connected, disconnected, updated;
    };

    ManagedComputer()
    {
        manager.addDeviceNotifier(nullptr, _notifier);
        settle();
        told.clear();
    }
    ~ManagedComputer() override
    {
        settle();
        manager.removeDeviceNotifier(_notifier);
    }

    /// Waits until every change so far has been through the manager, and the main queue is empty.
    void settle()
    {
        for (int round = 0; round < 3; ++round) { // an update may ask for another
            settleHardware();
            DXRDeviceManager::queue().sync([] {});
        }
        settleHardware();
    }
    /// Plugs and settles.
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
    CXRef<DXRDevice> device(const std::string& uid, bool isInput)
    {
        return manager.deviceWithDeviceUID(uid, isInput);
    }
    /// What was told since the last call, all updates together.
    Told toldSinceLast()
    {
        Told all;
        for (const Told& one : std::exchange(told, {})) {
            all.connected.insert(one.connected.begin(), one.connected.end());
            all.disconnected.insert(one.disconnected.begin(), one.disconnected.end());
            all.updated.insert(one.updated.begin(), one.updated.end());
        }
        return all;
    }

    DXRDeviceManager& manager = DXRDeviceManager::sharedDeviceManager();
    std::vector<Told> told; // written on the manager's queue

private:
    const DXRDeviceManager::NotifierBlock _notifier =
        [this](const Devices& connected, const Devices& disconnected, const Devices& updated) {
            told.push_back({connected, disconnected, updated});
        };
};
