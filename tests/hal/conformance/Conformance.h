#pragma once

#include "HALIO.h"

#include <memory>

/// Changes that the conformance suite makes to the hardware; each driver's tests implement them. Changes may
/// take effect a little later: the suite waits for each.
class ConformanceRig {
public:
    virtual ~ConformanceRig() = default;

    virtual HALModel& model() = 0;
    /// Plugs in a device with this many channels per direction (a direction with 0 is absent), and with
    /// volume and mute if it has outputs. The same name returns as the same unit. Returns the device's UID.
    virtual std::string plug(const std::string& name, uint32_t inputs, uint32_t outputs) = 0;
    virtual void unplug(const std::string& uid) = 0;
    /// Lets the devices run for some cycles or milliseconds.
    virtual void letTimePass() { sleepForMilliseconds(30); }

    /// Whether devices have the names passed to plug().
    virtual bool setsNames() const { return true; }
    /// The largest difference between a volume that was set and the one that is read: cards have steps.
    virtual float volumeTolerance() const { return 1e-5F; }
};

/// Creates a rig over hardware without devices. Called once per test, each in a separate process.
std::unique_ptr<ConformanceRig> makeConformanceRig();

/// Fixture for tests of the contract in HALModel.h, over the driver that the program is linked with.
class Conformance : public testing::Test {
protected:
    HALModel& hal() { return rig->model(); }
    bool eventually(const std::function<bool()>& condition)
    {
        return ::eventually(condition, [this] { rig->letTimePass(); });
    }
    bool waitForMore(const CycleWitness& witness)
    {
        return eventually([&, end = witness.cycles + 10] { return witness.cycles > end; });
    }

    /// Plugs in a device, stores its UID in `uid`, and waits for its ID.
    AudioObjectID plugged(const std::string& name, uint32_t inputs, uint32_t outputs)
    {
        uid = rig->plug(name, inputs, outputs);
        AudioObjectID device = kAudioObjectUnknown;
        EXPECT_TRUE(eventually([&] { return (device = deviceWithUID(hal(), uid)) != kAudioObjectUnknown; }));
        EXPECT_TRUE(eventually([&] { // its streams may appear a little later
            return channelsOf(hal(), device, input) == inputs && channelsOf(hal(), device, output) == outputs;
        }));
        return device;
    }

    std::unique_ptr<ConformanceRig> rig = makeConformanceRig();
    std::string uid; ///< of the device plugged last
};
