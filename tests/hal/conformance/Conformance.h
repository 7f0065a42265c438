#pragma once

#include "ConformanceRig.h"
#include "HALIO.h"

/// Fixture for tests of the contract in HALModel.h, over the driver that the program is linked with.
class Conformance : public testing::Test {
protected:
    HALModel& hal() { return rig->model(); }
    template <class Value>
    std::optional<Value> read(AudioObjectID object, uint32_t selector,
                              uint32_t scope = kAudioObjectPropertyScopeGlobal)
    {
        return readValue<Value>(hal(), object, at(selector, scope));
    }
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
