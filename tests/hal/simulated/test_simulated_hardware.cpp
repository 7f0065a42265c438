#include "simulated.h"

#include "HALReads.h"

#include <gtest/gtest.h>

namespace {

class SimulatedHardwareTest : public testing::Test {
protected:
    const CXRef<SimulatedHardware> hal = SimulatedHardware::init(SimulatedClock::Stepped);
    const CXRef<HALModel> model = HALModel::initWithDriver(hal);
    AudioObjectID defaultOf(uint32_t selector)
    {
        return readValue<AudioObjectID>(*model, kAudioObjectSystemObject, at(selector)).value_or(0xFFFFFFFF);
    }
};

TEST_F(SimulatedHardwareTest, electsDefaultsFromWhatIsVisibleAndThere)
{
    const auto output = kAudioHardwarePropertyDefaultOutputDevice;
    EXPECT_EQ(defaultOf(output), kAudioObjectUnknown);
    hal->plug(aDevice().uid("hidden").outputs(2).hidden());
    hal->plug(aDevice().uid("mic").inputs(1));
    hal->plug(aDevice().uid("refuses").outputs(2).canBeDefault(false));
    EXPECT_EQ(defaultOf(output), kAudioObjectUnknown);
    const AudioObjectID first = hal->plug(aDevice().uid("first").outputs(2));
    const AudioObjectID second = hal->plug(aDevice().uid("second").outputs(2));
    EXPECT_EQ(defaultOf(output), first);
    EXPECT_EQ(defaultOf(kAudioHardwarePropertyDefaultInputDevice), hal->deviceID("mic"));

    EXPECT_EQ(writeValue(*model, kAudioObjectSystemObject, at(output), second), kAudioHardwareNoError);
    EXPECT_EQ(defaultOf(output), second);
    EXPECT_EQ(writeValue(*model, kAudioObjectSystemObject, at(output), hal->deviceID("mic")),
              kAudioHardwareIllegalOperationError);
    EXPECT_EQ(writeValue(*model, kAudioObjectSystemObject, at(output), 0xFFFFFFFFU),
              kAudioHardwareBadDeviceError);
    hal->unplug("second");
    EXPECT_EQ(defaultOf(output), first);
}

TEST_F(SimulatedHardwareTest, refusesASecondDeviceOfOneUID)
{
    EXPECT_NE(hal->plug(aDevice().uid("one")), kAudioObjectUnknown);
    EXPECT_EQ(hal->plug(aDevice().uid("one")), kAudioObjectUnknown);
    EXPECT_TRUE(hal->unplug("one"));
    EXPECT_FALSE(hal->unplug("one"));
    EXPECT_NE(hal->plug(aDevice().uid("one")), kAudioObjectUnknown);
}

} // namespace
