#include "HALReads.h"
#include "QDL.h"
#include "simulated.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>

namespace {

constexpr bool input = true;
constexpr bool output = false;
constexpr AudioObjectID nobody = 0x00FFFFFF;

/// The one simulated computer of the process; each test finds and leaves it empty.
SimulatedHardware& hardware()
{
    static const CXRef<SimulatedHardware> backend = [] {
        CXRef<SimulatedHardware> made = SimulatedHardware::init(SimulatedClock::Stepped);
        HALSetHardwareDriver(made);
        return made;
    }();
    return *backend;
}

template <class Item> std::vector<Item> taken(Item* list, uint32_t count)
{
    const std::unique_ptr<Item, decltype(&std::free)> owner(list, &std::free);
    return {list, list + count};
}

class QDL : public testing::Test {
protected:
    AudioObjectID plug(const SimulatedDeviceBuilder& device) { return hal.plug(device); }
    ~QDL() override
    {
        hal.failReads(kAudioObjectPropertySelectorWildcard, 1, 0, 0);
        for (const AudioObjectID device : readDevices(hal))
            hal.unplug(readText(hal, device, at(kAudioDevicePropertyDeviceUID)).value_or(""));
    }
    std::vector<AudioObjectID> listed()
    {
        uint32_t count = 99;
        AudioObjectID* list = QDLAudioDeviceIDList(&count);
        EXPECT_NE(list, nullptr);
        return taken(list, count);
    }
    SimulatedHardware& hal = hardware();
};

TEST_F(QDL, answersFallbacksWithoutDevices)
{
    EXPECT_EQ(QDLAudioDeviceDefaultInputDeviceID(), 0U);
    EXPECT_EQ(QDLAudioDeviceDefaultOutputDeviceUID(), std::nullopt);
    EXPECT_EQ(QDLAudioDeviceBoomAudioID(), 0U);
    EXPECT_TRUE(listed().empty());
    std::free(QDLAudioDeviceIDList(nullptr));
    EXPECT_EQ(QDLAudioDeviceMaximumSampleRate(output), 0.0);
    for (const AudioObjectID device : {AudioObjectID{0}, nobody}) {
        uint32_t count = 99;
        EXPECT_TRUE(QDLAudioDeviceIsHidden(device));
        EXPECT_EQ(QDLAudioDeviceNameFromDeviceID(device), std::nullopt);
        EXPECT_EQ(QDLAudioDeviceTransportTypeFromDeviceID(device), 0U);
        EXPECT_EQ(QDLAudioDeviceChannelCount(device, input), 0U);
        EXPECT_FALSE(QDLAudioDeviceHasBuffers(device, output));
        EXPECT_EQ(QDLAudioDeviceSampleRate(device, output), 0.0);
        EXPECT_EQ(QDLDataSourceIDsFromDeviceID(device, output, &count), nullptr);
        EXPECT_EQ(count, 0U);
        EXPECT_EQ(QDLCurrentSourceNameFromDeviceID(device, output), "");
        EXPECT_EQ(QDLDataSourceIDFromSourceName(device, output, ""), 0U);
    }
}

TEST_F(QDL, describesADevice)
{
    const AudioObjectID mic = plug(aDevice().uid("mic").inputs(1).sampleRate(96000.0));
    const AudioObjectID box = plug(aDevice()
                                       .uid("box")
                                       .name("Büro")
                                       .manufacturer("Maker")
                                       .modelUID("m-1")
                                       .transport(kAudioDeviceTransportTypeUSB)
                                       .outputs(2)
                                       .outputs(6)
                                       .sampleRate(44100.0));
    EXPECT_EQ(QDLAudioDeviceDefaultInputDeviceID(), mic);
    EXPECT_EQ(QDLAudioDeviceDefaultInputDeviceUID(), "mic");
    EXPECT_EQ(QDLAudioDeviceDefaultOutputDeviceID(), box);
    EXPECT_EQ(QDLAudioDeviceDefaultSystemOutputDeviceUID(), "box");
    EXPECT_EQ(QDLAudioDeviceIDFromUID("box"), box);
    EXPECT_EQ(QDLAudioDeviceIDFromUID("bo"), 0U);
    EXPECT_EQ(QDLAudioDeviceIDFromUID(std::nullopt), 0U);
    EXPECT_EQ(QDLAudioDeviceNameFromDeviceID(box), "Büro");
    EXPECT_EQ(QDLAudioDeviceManufacturerFromDeviceID(box), "Maker");
    EXPECT_EQ(QDLAudioDeviceModelUIDFromDeviceID(box), "m-1");
    EXPECT_EQ(QDLAudioDeviceTransportTypeFromDeviceID(box), kAudioDeviceTransportTypeUSB);
    EXPECT_FALSE(QDLAudioDeviceIsHidden(box));
    EXPECT_EQ(QDLAudioDeviceChannelCount(box, output), 8U);
    EXPECT_EQ(QDLAudioDeviceStreamCount(box, output), 2U);
    EXPECT_EQ(QDLAudioDeviceChannelCount(box, input), 0U);
    EXPECT_FALSE(QDLAudioDeviceHasBuffers(box, input));
    EXPECT_EQ(QDLAudioDeviceSampleRate(box, output), 44100.0);
    // An output-only device never raises the input's maximum, nor the other way round.
    EXPECT_EQ(QDLAudioDeviceMaximumSampleRate(input), 96000.0);
    EXPECT_EQ(QDLAudioDeviceMaximumSampleRate(output), 44100.0);
}

TEST_F(QDL, knowsWhichRatesAreValid)
{
    for (const double rate : {1000.0, 44100.0, 1000000.0})
        EXPECT_TRUE(QDLAudioDeviceSampleRateIsValid(rate)) << rate;
    for (const double rate : {999.99, 1000000.01, 0.0, -48000.0, std::nan("")})
        EXPECT_FALSE(QDLAudioDeviceSampleRateIsValid(rate)) << rate;
}

TEST_F(QDL, listsTheOutsideVirtualDeviceExactlyWhenItShowsItself)
{
    const AudioObjectID plain = plug(aDevice().uid("plain").hidden().outputs(2));
    const AudioObjectID boom = plug(aDevice().uid("GDAudioDevice_UID").outputs(2).hidden());
    EXPECT_EQ(QDLAudioDeviceBoomAudioID(), boom);
    EXPECT_EQ(listed(), std::vector{plain}); // other hidden devices are listed
    hal.reconfigure("GDAudioDevice_UID", [](SimulatedDeviceBuilder& device) { device.hidden(false); });
    std::vector<AudioObjectID> both = listed();
    std::ranges::sort(both);
    EXPECT_EQ(both, (std::vector{plain, boom}));
    hal.failReads(kAudioDevicePropertyIsHidden, 1, UINT64_MAX / 2, kAudioHardwareUnspecifiedError);
    EXPECT_EQ(listed(), std::vector{plain});
    // A visible one is listed even when the hardware's own list is not to be had.
    hal.failReads(kAudioHardwarePropertyDevices, 1, UINT64_MAX / 2, kAudioHardwareUnspecifiedError);
    EXPECT_EQ(listed(), std::vector{boom});
}

TEST_F(QDL, listsAllDevicesWhileTheirNumberGrows)
{
    plug(aDevice().uid("first"));
    hal.beforeRead(kAudioHardwarePropertyDevices, 1, [this] { hal.plug(aDevice().uid("second")); });
    EXPECT_EQ(listed().size(), 2U);
    hal.failReads(kAudioHardwarePropertyDevices, 1, UINT64_MAX / 2, kAudioHardwareBadPropertySizeError);
    EXPECT_TRUE(listed().empty()); // and gives up when it never fits
}

TEST_F(QDL, findsDataSourcesByTheirNames)
{
    const AudioObjectID box = plug(aDevice()
                                       .uid("box")
                                       .outputs(2)
                                       .source(HALDirection::Output, 7, "Speakers")
                                       .source(HALDirection::Output, 9, "Line")
                                       .source(HALDirection::Output, 11, "Line"));
    uint32_t count = 0;
    EXPECT_EQ(taken(QDLDataSourceIDsFromDeviceID(box, output, &count), 3), (std::vector<uint32_t>{7, 9, 11}));
    EXPECT_EQ(count, 3U);
    EXPECT_EQ(QDLDataSourceIDsFromDeviceID(box, input, &count), nullptr);
    EXPECT_EQ(QDLCurrentDataSourceForDeviceID(box, output), 7U);
    EXPECT_EQ(QDLCurrentSourceNameFromDeviceID(box, output), "Speakers");
    EXPECT_EQ(QDLSourceNameFromDataSource(box, 9, output), "Line");
    EXPECT_EQ(QDLSourceNameFromDataSource(box, 8, output), "");
    EXPECT_EQ(QDLDataSourceIDFromSourceName(box, output, "Line"), 9U); // the first of that name
    EXPECT_EQ(QDLDataSourceIDFromSourceName(box, output, "line"), 0U);
    EXPECT_EQ(QDLDataSourceIDFromSourceName(box, output, ""), 0U);
    EXPECT_EQ(QDLDataSourceIDFromSourceName(box, output, std::nullopt), 0U);
    // Nameless sources have the empty name.
    hal.failReads(kAudioDevicePropertyDataSourceNameForIDCFString, 1, UINT64_MAX / 2,
                  kAudioHardwareUnspecifiedError);
    EXPECT_EQ(QDLDataSourceIDFromSourceName(box, output, ""), 7U);
    // As many as were announced, even when they cannot be read.
    hal.failReads(kAudioDevicePropertyDataSources, 2, 1, kAudioHardwareUnspecifiedError);
    EXPECT_EQ(taken(QDLDataSourceIDsFromDeviceID(box, output, &count), 3), (std::vector<uint32_t>{0, 0, 0}));
    EXPECT_EQ(count, 3U);
}

TEST_F(QDL, switchesTheStreamsOfACallback)
{
    const AudioObjectID box = plug(aDevice().uid("box").outputs(2).outputs(2).outputs(2));
    AudioDeviceIOProcID procID = nullptr;
    const AudioDeviceIOBlock block = [](auto...) {};
    ASSERT_EQ(AudioDeviceCreateIOProcIDWithBlock(&procID, box, nullptr, block), kAudioHardwareNoError);
    using Usage = std::vector<bool>;
    EXPECT_EQ(QDLAudioDeviceGetStreamUsage(box, procID, output), (Usage{true, true, true}));
    QDLAudioDeviceSetStreamUsage(box, procID, output, Usage{false, true}); // shorter: the rest is off
    EXPECT_EQ(QDLAudioDeviceGetStreamUsage(box, procID, output), (Usage{false, true, false}));
    QDLAudioDeviceSetStreamUsage(box, procID, output, Usage(9, true)); // longer: what is too much is ignored
    EXPECT_EQ(QDLAudioDeviceGetStreamUsage(box, procID, output), (Usage{true, true, true}));
    QDLAudioDeviceSetStreamUsage(box, nullptr, output, Usage{});
    QDLAudioDeviceSetStreamUsage(0, procID, output, Usage{});
    EXPECT_EQ(QDLAudioDeviceGetStreamUsage(box, procID, output), (Usage{true, true, true}));
    QDLAudioDeviceSetStreamUsage(box, procID, output, std::nullopt);
    EXPECT_EQ(QDLAudioDeviceGetStreamUsage(box, procID, output), (Usage{false, false, false}));
    EXPECT_TRUE(QDLAudioDeviceGetStreamUsage(box, nullptr, output).empty());
    EXPECT_TRUE(QDLAudioDeviceGetStreamUsage(0, procID, output).empty());
    AudioDeviceDestroyIOProcID(box, procID);
}

} // namespace
