#include "AudioHardware.h"
#include "DrivenHardware.h"
#include "HALIO.h"
#include "InChild.h"
#include "SerialQueue.h"
#include "simulated.h"

#include <barrier>
#include <cstring>
#include <future>
#include <latch>
#include <ranges>
#include <set>
#include <sys/resource.h>

namespace {

// ---- Notifications

using Selectors = std::vector<uint32_t>;
const Selectors objectValued{kAudioObjectPropertyName, kAudioObjectPropertyManufacturer,
                             kAudioObjectPropertyElementName, kAudioDevicePropertyModelUID,
                             kAudioAggregateDevicePropertyComposition};
/// The properties that can change.
const Selectors changeable[] = {
    objectValued,
    {kAudioHardwarePropertyDevices, kAudioHardwarePropertyDefaultOutputDevice,
     kAudioHardwarePropertyDefaultSystemOutputDevice, kAudioObjectPropertyOwnedObjects},
    {kAudioDevicePropertyTransportType, kAudioDevicePropertyClockDomain, kAudioDevicePropertyIsHidden,
     kAudioDevicePropertyDeviceCanBeDefaultDevice, kAudioDevicePropertyDeviceCanBeDefaultSystemDevice},
    {kAudioDevicePropertyStreams, kAudioDevicePropertyStreamConfiguration,
     kAudioDevicePropertyPreferredChannelsForStereo, kAudioAggregateDevicePropertyActiveSubDeviceList},
    {kAudioDevicePropertyDeviceIsRunning, kAudioDevicePropertyLatency, kAudioDevicePropertySafetyOffset,
     kAudioDevicePropertyBufferFrameSize, kAudioDevicePropertyBufferFrameSizeRange},
    {kAudioDevicePropertyNominalSampleRate, kAudioDevicePropertyActualSampleRate,
     kAudioDevicePropertyAvailableNominalSampleRates},
    {kAudioDevicePropertyVolumeScalar, kAudioDevicePropertyVolumeDecibels,
     kAudioDevicePropertyVolumeRangeDecibels},
    {kAudioDevicePropertyMute, kAudioDevicePropertyDataSource, kAudioDevicePropertyDataSources},
    {kAudioStreamPropertyStartingChannel, kAudioStreamPropertyVirtualFormat,
     kAudioStreamPropertyPhysicalFormat, kAudioStreamPropertyAvailableVirtualFormats,
     kAudioStreamPropertyAvailablePhysicalFormats}};

/// Returns a value as bytes, or an object as text; empty if it cannot be read. Checks that a read returns
/// exactly the announced size, and refuses less room.
std::string valueAt(HALModel& model, AudioObjectID object, const AudioObjectPropertyAddress& address)
{
    uint32_t announced = 0, size = 0;
    if (model.propertySize(object, address, {}, announced) != kAudioHardwareNoError)
        return "";
    std::string value(announced + 8, '\0');
    const auto room = std::as_writable_bytes(std::span(value));
    if (announced > 0) {
        EXPECT_EQ(model.readProperty(object, address, {}, room.first(announced - 1), size),
                  kAudioHardwareBadPropertySizeError);
    }
    EXPECT_EQ(model.readProperty(object, address, {}, room, size), kAudioHardwareNoError);
    EXPECT_EQ(size, announced);
    value.resize(size);
    if (std::ranges::count(objectValued, address.selector) == 0)
        return value;
    CXObject* pointer = nullptr;
    std::memcpy(&pointer, value.data(), sizeof pointer);
    return CXRefCast<CXValue>(CXRef<CXObject>::adopt(pointer))->plist().dump();
}

using HALModelAnnouncements = SimulatedModel;

TEST_F(HALModelAnnouncements, everyAddressIsReadExactlyAndAnnouncedWhenItsValueChanges)
{
    hal->plug(aDevice().uid("bystander").inputs(1).outputs(1));
    constexpr HALDirection in = HALDirection::Input, out = HALDirection::Output;
    SimulatedDeviceBuilder shape = aDevice().uid("device").inputs(2).outputs(2);
    const AudioObjectID device =
        hal->plug(shape.volume(out, 0.25F).source(out, 1, "Speakers").mute(out, false));
    hal->plug(aDevice().uid("part").outputs(2));
    const AudioObjectID aggregate = makeAggregate(*model, {"device", "part"});
    std::vector<AudioObjectID> objects{kAudioObjectSystemObject, device, aggregate};
    for (const AudioObjectID each : {device, aggregate})
        std::ranges::copy(readList<AudioObjectID>(*model, each, at(kAudioDevicePropertyStreams)),
                          std::back_inserter(objects));
    SimulatedDeviceBuilder reshaped = aDevice().inputs(3).outputs(1).hidden().canBeDefault(false);
    reshaped.name("Renamed").manufacturer("Maker").modelUID("model").transport(kAudioDeviceTransportTypeUSB);
    reshaped.sampleRate(96000.0).sampleRates({96000.0}).bufferFrameSize(64).bufferFrameSizeRange(32, 64);
    reshaped.channelVolumes(out, {0.5F}).volume(in, 0.5F).mute(out, true).source(out, 2, "Headphones");
    reshaped.stereoChannels(in, 2, 3).latency(in, 3, 4).clockDomain(7);
    std::optional<RunningProc> running;
    const std::pair<const char*, std::function<void()>> changes[] = {
        {"another shape", [&] { hal->reconfigure("device", [&](auto& each) { each = reshaped; }); }},
        {"running", [&] { running.emplace(*model, device, idle); }},
        {"another default", [&] { hal->setDefault(HALDirection::Output, "part"); }},
        {"a device that goes", [&] { hal->unplug("part"); }},
        {"a device that comes", [&] { hal->plug(aDevice().uid("new").inputs(2)); }},
    };
    struct Place {
        AudioObjectID object;
        AudioObjectPropertyAddress address;
        std::string value;
    };
    std::map<AudioObjectID, RecordingListener> listeners;
    std::vector<Place> places;
    for (const AudioObjectID object : objects) {
        listeners.try_emplace(object, *model, object, anyAddress);
        for (const uint32_t selector : changeable | std::views::join)
            for (const uint32_t scope : {kAudioObjectPropertyScopeGlobal, input, output})
                for (const uint32_t element : {0U, 1U, 2U, 3U})
                    places.emplace_back(object, at(selector, scope, element));
    }
    size_t changed = 0;
    for (const auto& [why, change] : changes) {
        for (Place& place : places)
            place.value = valueAt(*model, place.object, place.address);
        hal->settle();
        for (auto& [object, listener] : listeners)
            listener.clear();
        change();
        hal->settle();
        hal->settle(); // also for the aggregate, which changes later
        for (const auto& [object, address, before] : places) {
            if (valueAt(*model, object, address) == before)
                continue;
            ++changed;
            EXPECT_TRUE(listeners.at(object).includes(address))
                << why << ": '" << stringWithFourCharCode(address.selector) << "' in '"
                << stringWithFourCharCode(address.scope) << "' element " << address.element << " of object "
                << object;
        }
    }
    EXPECT_GT(changed, 150U);
}

// One listener runs on the notification thread, one on a queue; each removes the other while both run.
TEST_F(HALModelAnnouncements, listenersMayRemoveEachOther)
{
    const AudioObjectID device =
        hal->plug(aDevice().uid("device").outputs(2).mute(HALDirection::Output, false));
    const auto mute = at(kAudioDevicePropertyMute, output);
    for (uint32_t round = 0; round < 200; ++round) {
        const auto queue = dxr::SerialQueue::initWithLabel("listener");
        std::barrier both(2);
        std::latch done(2);
        std::optional<RecordingListener> listeners[2];
        for (int i = 1; i >= 0; --i) // the listener on the queue is called first
            listeners[i].emplace(*model, device, mute, i == 1 ? queue : nullptr, [&, i] {
                both.arrive_and_wait();
                listeners[1 - i]->remove();
                done.count_down();
            });
        writeValue(*model, device, mute, (round + 1) % 2);
        done.wait();
        hal->settle();
        queue->sync([] {});
    }
}

// ---- Drivers

class HALModelDrivers : public testing::Test {
protected:
    /// Creates an aggregate of `count` devices.
    AudioObjectID aggregateOf(int count)
    {
        std::vector<std::string> uids;
        for (int i = 0; i < count; ++i) {
            uids.push_back(std::to_string(i));
            hardware->plug(aDevice().uid(uids.back()).outputs(2));
        }
        return makeAggregate(*model, uids);
    }
    /// Runs a cycle of the device that was started last, and returns the first sample it plays.
    float runCycle() const
    {
        std::array<float, 64> samples{};
        AudioTimeStamp now{};
        now.hostTime = 1'000'000'000;
        AudioBufferList list{1, {{2, sizeof samples, samples.data()}}};
        hardware->callback(&now, nullptr, nullptr, &list, &now);
        return samples[0];
    }

    const CXRef<DrivenHardware> hardware = DrivenHardware::init();
    const CXRef<HALModel> model = HALModel::initWithDriver(hardware);
};

TEST_F(HALModelDrivers, aChangeThatComesAsTheDeviceGoesLeavesNoStreams)
{
    // The last change leaves two streams or more, which the loop below waits for.
    const SimulatedDeviceBuilder shapes[] = {aDevice().uid("device").outputs(2).outputs(2),
                                             aDevice().uid("device").outputs(2).outputs(2).outputs(2),
                                             aDevice().uid("device").outputs(2)};
    for (int round = 0; round < 500; ++round) {
        const AudioObjectID deviceID = hardware->plug(shapes[0]);
        const CXRef<HALDeviceDriver> device = hardware->device("device");
        std::set<AudioObjectID> streams;
        std::thread changes([&] {
            for (size_t i = 0; i < 8; ++i)
                hardware->sink->deviceChanged(*device, shapes[i % 3].description().state);
        });
        while (deviceID != kAudioObjectUnknown && streams.size() < 2)
            for (const AudioObjectID each :
                 readList<AudioObjectID>(*model, deviceID, at(kAudioDevicePropertyStreams)))
                streams.insert(each);
        hardware->sink->deviceRemoved(*device);
        changes.join();
        for (const AudioObjectID stream : streams) {
            uint32_t size = 0;
            ASSERT_EQ(model->propertySize(stream, at(kAudioObjectPropertyClass), {}, size),
                      kAudioHardwareBadObjectError)
                << round;
        }
    }
}

TEST_F(HALModelDrivers, aCallbackThatTheUnpluggingRemovesHasEndedForItsDestroyerToo)
{
    const AudioObjectID device = hardware->plug(aDevice().uid("slow").outputs(2));
    std::promise<void> entered;
    std::atomic<bool> isOver{false};
    const RunningProc proc(*model, device, [&](auto...) {
        const CXRealtimeExemption exemption("a callback that takes long");
        entered.set_value();
        sleepForMilliseconds(60);
        isOver = true;
    });
    std::jthread io([&] { runCycle(); });
    entered.get_future().wait();
    std::jthread unplugger([&] { hardware->sink->deviceRemoved(*hardware->device("slow")); });
    sleepForMilliseconds(20); // until it has removed the callback
    EXPECT_EQ(model->destroyIOProc(device, proc.id), kAudioHardwareBadDeviceError);
    EXPECT_TRUE(isOver);
}

// The second of two callbacks, which plays to scratch, is off when its cycle begins.
TEST_F(HALModelDrivers, aStreamThatIsSwitchedOnDuringACycleIsSilent)
{
    const AudioObjectID device = hardware->plug(aDevice().uid("device").outputs(2));
    AudioHardwareIOProcStreamUsage usage{nullptr, 1, {0}};
    const auto use = [&](uint32_t isOn) {
        usage.streamIsOn[0] = isOn;
        writeValue(*model, device, at(kAudioDevicePropertyIOProcStreamUsage, output), usage);
    };
    const RunningProc first(*model, device, idle);
    const RunningProc second(*model, device, eachCycle([&](const IOCycle& cycle) {
        std::ranges::fill(cycle.out(), 1.0F);
        const CXRealtimeExemption exemption("in place of another thread");
        use(1);
    }));
    usage.ioProc = second.id;
    for (const float expected : {1.0F, 0.0F}) {
        EXPECT_EQ(runCycle(), expected);
        use(0);
    }
}

// The driver's IO thread notices a new rate before the driver reports it.
TEST_F(HALModelDrivers, aChangeReportedMeanwhileDoesNotHideTheRateOfTheCycle)
{
    SimulatedDeviceBuilder shape = aDevice().uid("device").outputs(2);
    const RunningProc silent(*model, hardware->plug(aDevice().uid("microphone").inputs(1)), idle);
    const AudioObjectID device = hardware->plug(shape);
    std::optional<double> rate;
    const RunningProc proc(*model, device, [&](auto...) {
        const CXRealtimeExemption exemption("in place of the driver's other thread");
        shape.name("Renamed");
        hardware->sink->deviceChanged(*hardware->device("device"), shape.description().state);
        rate = readValue<double>(*model, device, at(kAudioDevicePropertyNominalSampleRate));
    });
    const AudioObjectID aggregate = makeAggregate(*model, {"device", "microphone"});
    uint64_t aggregateInputTicks = 0;
    std::optional<double> aggregateRate;
    std::optional<uint32_t> aggregateFrames;
    const RunningProc aggregateProc(
        *model, aggregate, [&](auto, auto, const AudioTimeStamp* inputTime, auto...) {
            aggregateInputTicks = inputTime->hostTime;
            aggregateRate = readValue<double>(*model, aggregate, at(kAudioDevicePropertyNominalSampleRate));
            aggregateFrames = readValue<uint32_t>(*model, aggregate, at(kAudioDevicePropertyBufferFrameSize));
        });
    hardware->sampleRate = 96000.0;
    runCycle();
    EXPECT_EQ(rate, 96000.0);
    EXPECT_EQ(aggregateRate, 96000.0);
    EXPECT_EQ(aggregateFrames, 32U);
    EXPECT_EQ(aggregateInputTicks, 1'000'000'000U - 333'333U) << "a cycle ago; the clock device has no input";
}

TEST_F(HALModelDrivers, subDevicesShareOneDeadline)
{
    std::multiset<HALDeadline> deadlines;
    hardware->whenAsked = [&](HALDeadline deadline) {
        deadlines.insert(deadline); // the clock device is the first
        return deadlines.size() == 1 ? kAudioHardwareNoError : kAudioHardwareUnspecifiedError;
    };
    const AudioObjectID aggregate = aggregateOf(4);
    EXPECT_EQ(writeValue(*model, aggregate, at(kAudioDevicePropertyNominalSampleRate), 96000.0),
              kAudioHardwareNoError);
    EXPECT_EQ(deadlines.size(), 4U);
    EXPECT_EQ(deadlines.count(*deadlines.begin()), 4U);
    deadlines.clear();
    RunningProc(*model, aggregate, idle, kAudioHardwareUnspecifiedError);
    // Beside the first clock each is tried once, then each as the clock.
    EXPECT_EQ(deadlines.size(), 7U);
    EXPECT_EQ(deadlines.count(*deadlines.rbegin()), 1U) << "only the last clock has all of the time";
    EXPECT_GT(*deadlines.rbegin() - *deadlines.begin(), std::chrono::seconds(2))
        << "the first leaves time for the others";
}

TEST_F(HALModelDrivers, aSubDeviceThatFailedIsNotStartedAgainUntilItChangesOrAPauseHasPassed)
{
    std::atomic<int> starts{0}; // the clock device's is the third
    hardware->whenAsked = [&](HALDeadline) {
        if (++starts % 5 != 1)
            return kAudioHardwareNoError;
        sleepForMilliseconds(500); // the pause is then 2.5 s, and the rest of the test is shorter
        return kAudioHardwareUnspecifiedError;
    };
    const AudioObjectID aggregate = aggregateOf(3);
    const RunningProc proc(*model, aggregate, idle);
    const auto changeVolume = [&](const std::string& uid) {
        const auto changed = aDevice().uid(uid).outputs(2).volume(HALDirection::Output, 0.5F);
        hardware->sink->deviceChanged(*hardware->device(uid), changed.description().state);
        hardware->settle();
        return starts.load();
    };
    EXPECT_EQ(changeVolume("0"), 3);
    hardware->unplug("0");
    hardware->settle();
    EXPECT_TRUE(subDeviceStatus(*model, aggregate)[2].isClock) << "the first that can lead";
    EXPECT_EQ(changeVolume("1"), 5);
    hardware->unplug("2");
    hardware->settle();
    hardware->plug(aDevice().uid("other"));
    hardware->settle();
    EXPECT_EQ(starts, 6) << "nor as the clock";
    EXPECT_TRUE(eventually([&] { return subDeviceStatus(*model, aggregate)[1].isRunning == 1; }));
    EXPECT_EQ(starts, 7) << "without another change";
}

TEST_F(HALModelDrivers, aGroupWithAStuckMemberHasMostOfTheTimeOnceAndThenRunsWithoutIt)
{
    std::vector<std::chrono::duration<double>> groups; // the time that each start of the group has
    hardware->whenGrouped = [&](HALDeadline deadline) {
        groups.emplace_back(deadline - std::chrono::steady_clock::now());
    };
    std::atomic<int> starts{0}; // the stuck device's is the second
    hardware->whenAsked = [&](HALDeadline) {
        if (++starts != 2)
            return kAudioHardwareNoError;
        sleepForMilliseconds(500); // see above
        return kAudioHardwareUnspecifiedError;
    };
    for (const char* uid : {"stuck", "good"})
        hardware->plug(aDevice().uid(uid).outputs(2).clockDomain(7));
    const AudioObjectID aggregate = makeAggregate(*model, {"stuck", "good"});
    const RunningProc proc(*model, aggregate, idle);
    EXPECT_TRUE(subDeviceStatus(*model, aggregate)[1].isClock);
    hardware->plug(aDevice().uid("other"));
    hardware->settle();
    EXPECT_EQ(starts, 3) << "no start is repeated";
    EXPECT_TRUE(eventually([&] { return subDeviceStatus(*model, aggregate)[0].isRunning == 1; }));
    EXPECT_EQ(starts, 4) << "only the stuck one's, and not in a group";
    ASSERT_EQ(groups.size(), 1U);
    EXPECT_GT(groups[0].count(), 3.5);
}

TEST_F(HALModelDrivers, readsDoNotWaitForADriverThatHangs)
{
    const AudioObjectID aggregate = aggregateOf(1);
    const auto reads = [&] {
        EXPECT_EQ(subDeviceStatus(*model, aggregate).size(), 1U);
        for (const AudioObjectID each : {aggregate, deviceWithUID(*model, "0")})
            EXPECT_EQ(readValue<double>(*model, each, at(kAudioDevicePropertyNominalSampleRate)), 48000.0);
    };
    hardware->whenAsked = [&](HALDeadline) {
        std::thread(reads).join();
        return kAudioHardwareUnspecifiedError;
    };
    RunningProc(*model, aggregate, idle, kAudioHardwareUnspecifiedError);
}

TEST(HALFunctions, returnAnErrorWhileNoThreadCanBeCreated)
{
    inChild([] {
        rlimit limit{};
        getrlimit(RLIMIT_NPROC, &limit);
        const auto limitThreads = [&limit](rlim_t count) {
            const rlimit threads{count, limit.rlim_max};
            setrlimit(RLIMIT_NPROC, &threads);
        };
        limitThreads(1);
        ASSERT_EQ(setresuid(65534, 65534, 65534), 0); // root has no limit
        EXPECT_FALSE(HALSetHardwareDriver(SimulatedHardware::init()));
        const AudioObjectPropertyAddress devices = at(kAudioHardwarePropertyDevices);
        uint32_t size = 0;
        EXPECT_EQ(AudioObjectGetPropertyDataSize(kAudioObjectSystemObject, &devices, 0, nullptr, &size),
                  kAudioHardwareUnspecifiedError);
        limitThreads(limit.rlim_cur);
        const CXRef<SimulatedHardware> hardware = SimulatedHardware::init();
        ASSERT_TRUE(HALSetHardwareDriver(hardware));
        const AudioObjectID device = hardware->plug(aDevice().uid("one").outputs(2));
        AudioDeviceIOProcID proc = nullptr;
        std::atomic<HALStatus> ended{kAudioHardwareNotRunningError};
        const AudioDeviceIOBlock endItself = [&](auto...) {
            limitThreads(1);
            ended = AudioDeviceDestroyIOProcID(device, proc);
        };
        AudioDeviceCreateIOProcIDWithBlock(&proc, device, nullptr, endItself);
        limitThreads(1);
        EXPECT_EQ(AudioDeviceStart(device, proc), kAudioHardwareUnspecifiedError);
        limitThreads(limit.rlim_cur);
        EXPECT_EQ(AudioDeviceStart(device, proc), kAudioHardwareNoError);
        EXPECT_TRUE(eventually([&] { return ended != kAudioHardwareNotRunningError; }));
        EXPECT_EQ(ended, kAudioHardwareNoError) << "the callback's queue has a thread";
    });
}

} // namespace
