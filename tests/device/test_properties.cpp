#include "DXRPropertyAddress.h"
#include "DXRPropertyListener.h"
#include "QDL.h"
#include "SerialQueue.h"
#include "SimulatedComputer.h"

#include <cmath>
#include <cstdlib>
#include <memory>

namespace {

using Address = DXRPropertyAddress;
constexpr uint64_t always = UINT64_MAX / 2; // number of reads that fail
constexpr HALDirection outputs = HALDirection::Output;

template <class Item> std::vector<Item> taken(Item* list, uint32_t count)
{
    const std::unique_ptr<Item, decltype(&std::free)> owner(list, &std::free);
    return {list, list + count};
}

/// Tests properties through the QDL functions, addresses and listeners.
class Properties : public SimulatedComputer {
protected:
    std::vector<AudioObjectID> listed()
    {
        uint32_t count = 99;
        AudioObjectID* list = QDLAudioDeviceIDList(&count);
        EXPECT_NE(list, nullptr);
        return taken(list, count);
    }
};

TEST_F(Properties, haveFallbacksWithoutADevice)
{
    EXPECT_EQ(QDLAudioDeviceDefaultInputDeviceID() + QDLAudioDeviceBoomAudioID(), 0U);
    EXPECT_EQ(QDLAudioDeviceDefaultOutputDeviceUID(), std::nullopt);
    EXPECT_TRUE(listed().empty());
    EXPECT_EQ(QDLAudioDeviceMaximumSampleRate(output), 0.0);
    for (const AudioObjectID device : {AudioObjectID{0}, AudioObjectID{0x00FFFFFF}}) {
        uint32_t count = 99;
        EXPECT_FALSE(Address::deviceIsHidden()->getUInt32(&count, device));
        EXPECT_EQ(count, 99U);
        EXPECT_TRUE(QDLAudioDeviceIsHidden(device));
        EXPECT_EQ(QDLAudioDeviceNameFromDeviceID(device), std::nullopt);
        EXPECT_EQ(QDLAudioDeviceChannelCount(device, input), 0U);
        EXPECT_EQ(QDLAudioDeviceSampleRate(device, output), 0.0);
        EXPECT_EQ(Address::deviceStreams(0)->dataForObjectID(device), std::nullopt);
        EXPECT_FALSE(Address::deviceBufferFrameSize()->setUInt32(512, device));
        EXPECT_EQ(QDLDataSourceIDsFromDeviceID(device, output, &count), nullptr);
        EXPECT_EQ(count, 0U);
    }
    for (const double rate : {1000.0, 1e6})
        EXPECT_TRUE(QDLAudioDeviceSampleRateIsValid(rate)) << rate;
    for (const double rate : {999.99, 1000000.01, std::nan("")})
        EXPECT_FALSE(QDLAudioDeviceSampleRateIsValid(rate)) << rate;
}

// What devices and references do not cover.
TEST_F(Properties, describeADevice)
{
    hal.plug(aDevice().uid("mic").inputs(1).sampleRate(96000.0));
    const AudioObjectID box = hal.plug(aDevice().uid("box").outputs(2).outputs(6).sampleRate(44100.0));
    EXPECT_EQ(QDLAudioDeviceDefaultInputDeviceUID(), "mic");
    EXPECT_EQ(QDLAudioDeviceDefaultSystemOutputDeviceUID(), "box");
    EXPECT_EQ(QDLAudioDeviceIDFromUID("bo") + QDLAudioDeviceIDFromUID(std::nullopt), 0U);
    // An output-only device does not affect the input's maximum, and vice versa.
    EXPECT_EQ(QDLAudioDeviceMaximumSampleRate(input), 96000.0);
    EXPECT_EQ(QDLAudioDeviceMaximumSampleRate(output), 44100.0);

    constexpr uint32_t out = kAudioObjectPropertyScopeOutput, global = kAudioObjectPropertyScopeGlobal;
    EXPECT_EQ(Address::deviceSampleRate()->floatForObjectID(box), std::nullopt) << "another size";
    double rate = 0.0;
    EXPECT_TRUE(Address::deviceSampleRate()->getDouble(&rate, box));
    EXPECT_EQ(rate, 44100.0);
    const std::vector<uint32_t> streams = Address::deviceStreams(out)->uint32ArrayForObjectID(box);
    ASSERT_EQ(streams.size(), 2U);
    EXPECT_EQ(Address::streamVirtualFormat(global)->basicStreamForObjectID(streams[1])->channelCount(), 6U);
    EXPECT_FALSE(
        Address::streamAvailableVirtualFormats(global)->rangedStreamArrayForObjectID(streams[0]).empty());
    const auto none = Address::deviceStreams(kAudioObjectPropertyScopeInput)->dataForObjectID(box);
    EXPECT_EQ(none.value().size(), 0U) << "empty is not the same as unreadable";

    SimulatedDeviceBuilder many = aDevice().uid("many");
    for (int i = 0; i < 1030; ++i)
        many.outputs(1);
    const AudioObjectID wide = hal.plug(many);
    using Usage = std::vector<bool>;
    AudioDeviceIOProcID procID = nullptr;
    ASSERT_EQ(AudioDeviceCreateIOProcIDWithBlock(&procID, wide, nullptr, [](auto...) {}), 0);
    EXPECT_EQ(QDLAudioDeviceGetStreamUsage(wide, procID, output), Usage(1030, true));
    const std::optional<Usage> usages[] = {Usage{false, true}, Usage{true}, Usage(99, true), std::nullopt};
    for (const std::optional<Usage>& usage : usages) {
        Usage expected = usage.value_or(Usage()); // missing streams are off, surplus ones are ignored
        expected.resize(1030);
        QDLAudioDeviceSetStreamUsage(wide, procID, output, usage);
        EXPECT_EQ(QDLAudioDeviceGetStreamUsage(wide, procID, output), expected);
    }
}

TEST_F(Properties, listTheOutsideVirtualDeviceExactlyWhenItShowsItself)
{
    const AudioObjectID plain = hal.plug(aDevice().uid("plain").hidden().outputs(2));
    const AudioObjectID boom = hal.plug(aDevice().uid("GDAudioDevice_UID").outputs(2).hidden());
    EXPECT_EQ(QDLAudioDeviceBoomAudioID(), boom);
    EXPECT_EQ(listed(), std::vector{plain}) << "other hidden devices are listed";
    hal.reconfigure("GDAudioDevice_UID", [](SimulatedDeviceBuilder& device) { device.hidden(false); });
    EXPECT_EQ(listed().size(), 2U);
    hal.failReads(kAudioDevicePropertyIsHidden, 1, always, kAudioHardwareUnspecifiedError);
    EXPECT_EQ(listed(), std::vector{plain});
    hal.failReads(kAudioHardwarePropertyDevices, 1, always, kAudioHardwareUnspecifiedError);
    EXPECT_EQ(listed(), std::vector{boom}) << "also when the hardware's own list cannot be read";
}

TEST_F(Properties, areReadAgainWhileAListGrows)
{
    hal.plug(aDevice().uid("a").outputs(1));
    hal.beforeRead(kAudioHardwarePropertyDevices, 1, [this] { hal.plug(aDevice().uid("b").outputs(1)); });
    EXPECT_EQ(listed().size(), 2U);
    const auto isRead = [this](uint64_t first, uint64_t count, HALStatus status) {
        hal.failReads(kAudioHardwarePropertyDevices, first, count, status);
        return Address::plugInDeviceList()->dataForObjectID(kAudioObjectSystemObject).has_value();
    };
    // Each attempt reads the size, then the value.
    EXPECT_TRUE(isRead(2, 1, kAudioHardwareBadPropertySizeError)) << "grew once";
    EXPECT_FALSE(isRead(2, 2, kAudioHardwareBadPropertySizeError)) << "its size cannot be read again";
    EXPECT_FALSE(isRead(2, 1, kAudioHardwareUnspecifiedError));
    EXPECT_FALSE(isRead(1, always, kAudioHardwareBadPropertySizeError)) << "it never fits";
    EXPECT_TRUE(listed().empty());
}

TEST_F(Properties, findDataSourcesByTheirNames)
{
    SimulatedDeviceBuilder builder = aDevice().uid("box").outputs(2).source(outputs, 7, "Speakers");
    const AudioObjectID box = hal.plug(builder.source(outputs, 9, "Line").source(outputs, 11, "Line"));
    const auto sourceIDs = [&] {
        uint32_t count = 0;
        uint32_t* const list = QDLDataSourceIDsFromDeviceID(box, output, &count);
        return taken(list, count);
    };
    EXPECT_EQ(sourceIDs(), (std::vector<uint32_t>{7, 9, 11}));
    EXPECT_EQ(QDLCurrentDataSourceForDeviceID(box, output), 7U);
    EXPECT_EQ(QDLSourceNameFromDataSource(box, 9, output), "Line");
    EXPECT_EQ(QDLSourceNameFromDataSource(box, 8, output), "");
    EXPECT_EQ(QDLDataSourceIDFromSourceName(box, output, "Line"), 9U) << "the first of that name";
    for (const std::optional<std::string>& other : {std::optional<std::string>("line"), {""}, {}})
        EXPECT_EQ(QDLDataSourceIDFromSourceName(box, output, other), 0U);
    hal.failReads(kAudioDevicePropertyDataSourceNameForIDCFString, 1, always, kAudioHardwareUnspecifiedError);
    EXPECT_EQ(QDLDataSourceIDFromSourceName(box, output, ""), 7U) << "a nameless source has the empty name";
    hal.failReads(kAudioDevicePropertyDataSources, 2, 1, kAudioHardwareUnspecifiedError);
    EXPECT_EQ(sourceIDs(), (std::vector<uint32_t>{0, 0, 0})) << "as many as announced, though unreadable";
}

TEST(PropertyAddress, isEqualToItsCopyAndItsText)
{
    const auto volume = Address::deviceVolumeScalar(kAudioObjectPropertyScopeOutput, 0);
    EXPECT_TRUE(volume->isEqual(volume->copy().get()));
    EXPECT_TRUE(volume->isEqual(CXValue::initWithPlist("volm:outp:0").get()));
    EXPECT_FALSE(volume->isEqual(CXValue::initWithPlist("volm:outp:1").get()));
    EXPECT_FALSE(volume->isEqual(Address::deviceVolumeScalar(kAudioObjectPropertyScopeOutput, 1).get()));
    EXPECT_FALSE(volume->isEqual(nullptr));
}

TEST_F(Properties, haveListenersThatCallTheirTargetWhileBothLive)
{
    const AudioObjectID box = hal.plug(aDevice().uid("box").outputs(2).mute(outputs, false));
    CXRef<CXValue> target = CXValue::initWithPlist("first target");
    int changes = 0;
    const auto muted = Address::deviceMute(kAudioObjectPropertyScopeOutput, 0);
    const CXRef<dxr::SerialQueue> queue = dxr::SerialQueue::initWithLabel("listener");
    const auto listener = DXRPropertyListener::initWithObjectID(
        box, muted->address(), queue, target,
        [&](const CXRef<CXObject>& who, const AudioObjectPropertyAddress* what) {
            EXPECT_TRUE(queue->isCurrent());
            EXPECT_TRUE(who == target && muted->isEqual(Address::initWithAddress(what).get()));
            ++changes;
        });
    bool isMuted = false;
    const auto changesAfterAToggle = [&] {
        isMuted = !isMuted;
        hal.reconfigure("box", [&](auto& it) { it.mute(outputs, isMuted); });
        settleHardware();
        queue->sync([] {});
        return std::exchange(changes, 0);
    };
    listener->stop(); // a second stop does nothing
    EXPECT_EQ(changesAfterAToggle(), 0);
    listener->start();
    listener->start();
    EXPECT_EQ(changesAfterAToggle(), 1);
    listener->stop();
    EXPECT_EQ(changesAfterAToggle(), 0);
    listener->start();
    const CXWeak<CXValue> weak(std::exchange(target, CXValue::initWithPlist("second target")));
    EXPECT_FALSE(weak.lock()) << "the listener does not keep it";
    EXPECT_EQ(changesAfterAToggle(), 0);

    // A listener created by an address is called on the notification thread even if a queue is passed.
    const auto ofAddress = muted->listenerWithObjectID(
        box, queue, target, [&](const CXRef<CXObject>& who, const Address::Ref& what) {
            changes += who == target && what == muted && !queue->isCurrent() ? 1 : 100;
        });
    ofAddress->start();
    EXPECT_EQ(changesAfterAToggle(), 1);
}

} // namespace
