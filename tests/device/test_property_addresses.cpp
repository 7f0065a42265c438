#include "CXValue.h"
#include "DXRPropertyAddress.h"
#include "DXRPropertyListener.h"
#include "SerialQueue.h"
#include "SimulatedComputer.h"

namespace {

using Address = DXRPropertyAddress;
using DXRPropertyAddressTest = SimulatedComputer;
using DXRPropertyListenerTest = SimulatedComputer;

class Target final : public CXObject {
public:
    static CXRef<Target> init() { return CXRef<Target>::adopt(new Target); }
    int changes = 0;
};

TEST_F(DXRPropertyAddressTest, comparesByFieldsAndByText)
{
    const auto volume = Address::deviceVolumeScalar(kAudioObjectPropertyScopeOutput, 0);
    EXPECT_EQ(volume->description(), "volm:outp:0");
    EXPECT_EQ(volume->hash(), 0x766F6C6DU ^ 0x6F757470U);
    EXPECT_TRUE(volume->isOutput() && !volume->isInput() && !volume->isGlobal());
    EXPECT_TRUE(volume->isEqual(Address::initWithAddress(volume->address()).get()));
    EXPECT_TRUE(volume->isEqual(CXValue::initWithPlist("volm:outp:0").get()));
    EXPECT_FALSE(volume->isEqual(CXValue::initWithPlist("volm:outp:1").get()));
    EXPECT_FALSE(volume->isEqual(Address::deviceVolumeScalar(kAudioObjectPropertyScopeOutput, 1).get()));
    EXPECT_FALSE(volume->isEqual(nullptr));
    EXPECT_EQ(volume->copy(), volume);
    EXPECT_EQ(Address::init()->description(), "00000000:00000000:0");
    EXPECT_TRUE(Address::deviceSampleRate()->isGlobal());
    EXPECT_TRUE(Address::deviceTapEnabled()->isOutput());
}

TEST_F(DXRPropertyAddressTest, readsAndWritesValues)
{
    const AudioObjectID box = hal.plug(aDevice()
                                           .uid("box")
                                           .name("Box")
                                           .outputs(2)
                                           .volume(HALDirection::Output, 0.5F)
                                           .mute(HALDirection::Output, false)
                                           .source(HALDirection::Output, 7, "Line")
                                           .sampleRates({44100, 48000}));
    const uint32_t out = kAudioObjectPropertyScopeOutput;
    EXPECT_EQ(Address::deviceVolumeScalar(out, 0)->floatForObjectID(box), 0.5F);
    EXPECT_TRUE(Address::deviceVolumeScalar(out, 0)->setFloat(0.25F, box));
    EXPECT_EQ(Address::deviceVolumeScalar(out, 0)->floatForObjectID(box), 0.25F);
    EXPECT_EQ(Address::deviceVolumeScalar(out, 0)->doubleForObjectID(box), std::nullopt); // another size
    EXPECT_TRUE(Address::deviceMute(out, 0)->setUInt32(1, box));
    EXPECT_EQ(Address::deviceMute(out, 0)->uint32ForObjectID(box), 1U);
    EXPECT_TRUE(Address::deviceSampleRate()->setDouble(44100.0, box));
    EXPECT_EQ(Address::deviceSampleRate()->doubleForObjectID(box), 44100.0);
    EXPECT_FALSE(Address::deviceDeviceUID()->setUInt32(1, box));
    EXPECT_TRUE(Address::objectName()->objectForObjectID(box)->isEqual(CXValue::initWithPlist("Box").get()));
    const uint32_t sourceID = 7;
    const auto name = Address::deviceDataSourceName(out)->objectForObjectID(box, &sourceID, sizeof sourceID);
    EXPECT_TRUE(name->isEqual(CXValue::initWithPlist("Line").get()));
    const auto ranges = Address::deviceAvailableSampleRates()->valueRangeArrayForObjectID(box);
    ASSERT_EQ(ranges.size(), 2U);
    EXPECT_EQ(ranges[1]->min(), 48000.0);
    EXPECT_TRUE(Address::deviceBufferFrameSizeRange()->valueRangeForObjectID(box)->isRange());
    const std::vector<uint32_t> streams = Address::deviceStreams(out)->uint32ArrayForObjectID(box);
    ASSERT_EQ(streams.size(), 1U);
    const uint32_t global = kAudioObjectPropertyScopeGlobal;
    EXPECT_EQ(Address::streamVirtualFormat(global)->basicStreamForObjectID(streams[0])->channelCount(), 2U);
    EXPECT_FALSE(
        Address::streamAvailableVirtualFormats(global)->rangedStreamArrayForObjectID(streams[0]).empty());
    // Empty is not the same as none.
    EXPECT_EQ(Address::deviceStreams(kAudioObjectPropertyScopeInput)->dataForObjectID(box)->size(), 0U);
}

TEST_F(DXRPropertyAddressTest, readsNothingFromNothing)
{
    for (const AudioObjectID object : {AudioObjectID{0}, AudioObjectID{0x00FFFFFF}}) {
        uint32_t kept = 99;
        EXPECT_FALSE(Address::deviceIsHidden()->getUInt32(&kept, object));
        EXPECT_FALSE(Address::deviceIsHidden()->getSize(&kept, object));
        EXPECT_EQ(kept, 99U);
        EXPECT_EQ(Address::objectName()->objectForObjectID(object), nullptr);
        EXPECT_EQ(Address::objectName()->objectForObjectID(object, &kept, sizeof kept), nullptr);
        EXPECT_EQ(Address::deviceStreams(0)->dataForObjectID(object), std::nullopt);
        EXPECT_TRUE(Address::deviceStreams(0)->uint32ArrayForObjectID(object).empty());
        EXPECT_EQ(Address::deviceBufferFrameSizeRange()->valueRangeForObjectID(object), nullptr);
        EXPECT_FALSE(Address::deviceBufferFrameSize()->setUInt32(512, object));
    }
}

TEST_F(DXRPropertyAddressTest, asksAgainForAListThatGrows)
{
    hal.plug(aDevice().uid("a").outputs(1));
    const auto devices = Address::plugInDeviceList();
    hal.beforeRead(kAudioHardwarePropertyDevices, 1, [this] { hal.plug(aDevice().uid("b").outputs(1)); });
    EXPECT_EQ(devices->uint32ArrayForObjectID(kAudioObjectSystemObject).size(), 2U);
    const struct {
        const char* why;
        uint64_t first, count; // which reads fail; of each attempt's two, that of the size is the first
        HALStatus status;
        bool isRead;
    } rows[] = {
        {"grew once", 2, 1, kAudioHardwareBadPropertySizeError, true},
        {"its size cannot be read again", 2, 2, kAudioHardwareBadPropertySizeError, false},
        {"another failure", 2, 1, kAudioHardwareUnspecifiedError, false},
    };
    for (const auto& row : rows) {
        hal.failReads(kAudioHardwarePropertyDevices, row.first, row.count, row.status);
        EXPECT_EQ(devices->dataForObjectID(kAudioObjectSystemObject).has_value(), row.isRead) << row.why;
    }
}

TEST_F(DXRPropertyListenerTest, callsItsTargetWhileBothLive)
{
    hal.plug(aDevice().uid("box").outputs(2).mute(HALDirection::Output, false));
    CXRef<Target> target = Target::init();
    const auto muted = Address::deviceMute(kAudioObjectPropertyScopeOutput, 0);
    const CXRef<dxr::SerialQueue> queue = dxr::SerialQueue::initWithLabel("listener");
    auto listener = DXRPropertyListener::initWithObjectID(
        hal.deviceID("box"), muted->address(), queue, target,
        [&](const CXRef<CXObject>& who, const AudioObjectPropertyAddress* what) {
            static_cast<Target&>(*who).changes +=
                muted->isEqual(Address::initWithAddress(what).get()) ? 1 : 100;
            EXPECT_TRUE(queue->isCurrent());
        });
    const auto toggle = [&] {
        static bool isMuted = false;
        isMuted = !isMuted;
        hal.reconfigure("box", [](auto& box) { box.mute(HALDirection::Output, isMuted); });
        settleHardware();
        queue->sync([] {});
    };
    listener->stop(); // harmless
    toggle();
    EXPECT_EQ(target->changes, 0);
    listener->start();
    listener->start();
    toggle();
    EXPECT_EQ(target->changes, 1);
    listener->stop();
    toggle();
    EXPECT_EQ(target->changes, 1);
    listener->start();
    target = nullptr; // the listener did not keep it
    toggle();
}

TEST_F(DXRPropertyListenerTest, comesFromAnAddressForTheNotificationThread)
{
    hal.plug(aDevice().uid("box").outputs(2));
    const CXRef<Target> target = Target::init();
    const auto name = Address::objectName();
    const CXRef<dxr::SerialQueue> ignored = dxr::SerialQueue::initWithLabel("ignored");
    const auto listener = name->listenerWithObjectID(
        hal.deviceID("box"), ignored, target, [&](const CXRef<CXObject>& who, const Address::Ref& what) {
            static_cast<Target&>(*who).changes += what == name && !ignored->isCurrent() ? 1 : 100;
        });
    listener->start();
    hal.reconfigure("box", [](auto& box) { box.name("New"); });
    settleHardware();
    EXPECT_EQ(target->changes, 1);
}

} // namespace
