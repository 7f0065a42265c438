#include "simulated.h"

#include "HALReads.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>

namespace {

class SimulatedHardwareTest : public testing::Test {
protected:
    const CXRef<SimulatedBackend> hal = SimulatedBackend::init(SimulatedClock::Stepped);
    AudioObjectID defaultOf(uint32_t selector)
    {
        return readValue<AudioObjectID>(*hal, kAudioObjectSystemObject, at(selector)).value_or(0xFFFFFFFF);
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

    EXPECT_EQ(writeValue(*hal, kAudioObjectSystemObject, at(output), second), kAudioHardwareNoError);
    EXPECT_EQ(defaultOf(output), second);
    EXPECT_EQ(writeValue(*hal, kAudioObjectSystemObject, at(output), hal->deviceID("mic")),
              kAudioHardwareIllegalOperationError);
    EXPECT_EQ(writeValue(*hal, kAudioObjectSystemObject, at(output), 0xFFFFFFFFU),
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

TEST_F(SimulatedHardwareTest, showsDevicesOfEveryShapeAndName)
{
    const std::string huge(65536, 'x');
    struct {
        const char* why;
        std::string name;
        std::string shown;
        uint32_t inputs;
    } const rows[] = {
        {"no name", "", "", 0},
        {"bytes that are no text", "a\xFF\xC0z", "a\xEF\xBF\xBD\xEF\xBF\xBDz", 1},
        {"escape sequences stay as they are, here", "\x1B[2Jx", "\x1B[2Jx", 1024},
        {"a very long one", huge, huge, 2},
    };
    for (const auto& row : rows) {
        SimulatedDeviceBuilder device = aDevice().uid(row.why).name(row.name);
        if (row.inputs > 0)
            device.inputs(row.inputs);
        const AudioObjectID id = hal->plug(device);
        EXPECT_EQ(readText(*hal, id, at(kAudioObjectPropertyName)), row.shown) << row.why;
        const auto list = readList<std::byte>(
            *hal, id, at(kAudioDevicePropertyStreamConfiguration, kAudioObjectPropertyScopeInput));
        EXPECT_EQ(list.size(), row.inputs > 0 ? 24U : 8U) << row.why;
        AudioDeviceIOProcID proc = nullptr;
        hal->createIOProc(
            id, [](auto...) {}, proc);
        EXPECT_EQ(hal->start(id, proc), kAudioHardwareNoError) << row.why;
        hal->stepCycles(2);
    }
}

TEST_F(SimulatedHardwareTest, failsTheReadsItWasToldToAndNoOthers)
{
    const AudioObjectID device = hal->plug(aDevice().uid("faulty").outputs(2));
    const auto rate = at(kAudioDevicePropertyNominalSampleRate);
    hal->failReads(kAudioDevicePropertyNominalSampleRate, 2, 2, kAudioHardwareUnspecifiedError);
    std::vector<bool> answers;
    for (int i = 0; i < 5; ++i) {
        answers.push_back(readValue<double>(*hal, device, rate).has_value());
        EXPECT_TRUE(readText(*hal, device, at(kAudioObjectPropertyName))) << "another selector";
    }
    EXPECT_EQ(answers, (std::vector{true, false, false, true, true}));
    hal->failWrites(kAudioHardwareUnspecifiedError);
    EXPECT_EQ(writeValue(*hal, device, rate, 44100.0), kAudioHardwareUnspecifiedError);
    EXPECT_EQ(readValue<double>(*hal, device, rate), 48000.0);
}

// The list grows between the question for its size and the read: '!siz', and the next attempt finds all.
TEST_F(SimulatedHardwareTest, runsAScriptBetweenTheSizeAndTheData)
{
    hal->plug(aDevice().uid("a"));
    hal->beforeRead(kAudioHardwarePropertyDevices, 1, [&] { hal->plug(aDevice().uid("b")); });
    uint32_t size = 0;
    hal->propertySize(kAudioObjectSystemObject, at(kAudioHardwarePropertyDevices), {}, size);
    std::vector<std::byte> room(size);
    EXPECT_EQ(hal->readProperty(kAudioObjectSystemObject, at(kAudioHardwarePropertyDevices), {}, room, size),
              kAudioHardwareBadPropertySizeError);
    EXPECT_EQ(readDevices(*hal).size(), 2U);
}

// Ten times a thousand devices come and go. What is measured is printed, not judged: the machine is not ours
// alone.
TEST_F(SimulatedHardwareTest, takesNoLongerForADeviceBecauseOfThoseBefore)
{
    using Clock = std::chrono::steady_clock;
    std::printf("round   devices seen   plug (us each)   unplug (us each)\n");
    for (int round = 1; round <= 10; ++round) {
        const auto start = Clock::now();
        for (int i = 0; i < 1000; ++i)
            hal->plug(aDevice().uid("device-" + std::to_string(i)).outputs(2));
        hal->settle();
        const auto plugged = Clock::now();
        ASSERT_EQ(readDevices(*hal).size(), 1000U);
        for (int i = 0; i < 1000; ++i)
            hal->unplug("device-" + std::to_string(i));
        hal->settle();
        const auto end = Clock::now();
        ASSERT_TRUE(readDevices(*hal).empty());
        const auto each = [](auto span) {
            return std::chrono::duration<double, std::micro>(span).count() / 1000.0;
        };
        std::printf("%5d   %12d   %14.1f   %16.1f\n", round, round * 1000, each(plugged - start),
                    each(end - plugged));
    }
}

} // namespace
