#include "AudioHardware.h"
#include "CXValue.h"
#include "HALReads.h"
#include "SerialQueue.h"
#include "simulated.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <barrier>
#include <chrono>
#include <future>
#include <map>
#include <set>
#include <sys/resource.h>
#include <thread>
#include <tuple>
#include <unistd.h>

namespace {

// ---- Announcements

constexpr uint32_t selectors[] = {
    kAudioObjectPropertyClass,
    kAudioObjectPropertyBaseClass,
    kAudioObjectPropertyOwner,
    kAudioObjectPropertyOwnedObjects,
    kAudioObjectPropertyName,
    kAudioObjectPropertyManufacturer,
    kAudioObjectPropertyElementName,
    kAudioDevicePropertyDeviceUID,
    kAudioDevicePropertyModelUID,
    kAudioDevicePropertyTransportType,
    kAudioDevicePropertyRelatedDevices,
    kAudioDevicePropertyClockDomain,
    kAudioDevicePropertyDeviceIsRunning,
    kAudioDevicePropertyDeviceCanBeDefaultDevice,
    kAudioDevicePropertyDeviceCanBeDefaultSystemDevice,
    kAudioDevicePropertyIsHidden,
    kAudioDevicePropertyLatency,
    kAudioDevicePropertySafetyOffset,
    kAudioDevicePropertyStreams,
    kAudioDevicePropertyStreamConfiguration,
    kAudioDevicePropertyNominalSampleRate,
    kAudioDevicePropertyActualSampleRate,
    kAudioDevicePropertyAvailableNominalSampleRates,
    kAudioDevicePropertyBufferFrameSize,
    kAudioDevicePropertyBufferFrameSizeRange,
    kAudioDevicePropertyPreferredChannelsForStereo,
    kAudioDevicePropertyVolumeScalar,
    kAudioDevicePropertyVolumeDecibels,
    kAudioDevicePropertyVolumeRangeDecibels,
    kAudioDevicePropertyMute,
    kAudioDevicePropertyDataSource,
    kAudioDevicePropertyDataSources,
    kAudioAggregateDevicePropertyComposition,
    kAudioAggregateDevicePropertyActiveSubDeviceList,
    kAudioStreamPropertyIsActive,
    kAudioStreamPropertyDirection,
    kAudioStreamPropertyTerminalType,
    kAudioStreamPropertyStartingChannel,
    kAudioStreamPropertyVirtualFormat,
    kAudioStreamPropertyPhysicalFormat,
    kAudioStreamPropertyAvailableVirtualFormats,
    kAudioStreamPropertyAvailablePhysicalFormats,
    kAudioHardwarePropertyDevices,
    kAudioHardwarePropertyDefaultInputDevice,
    kAudioHardwarePropertyDefaultOutputDevice,
    kAudioHardwarePropertyDefaultSystemOutputDevice,
};

/// A value as bytes, an object as its text; nothing where there is none.
std::string valueAt(HALModel& model, AudioObjectID object, const AudioObjectPropertyAddress& address)
{
    constexpr uint32_t objectValued[] = {
        kAudioObjectPropertyName,        kAudioObjectPropertyManufacturer,
        kAudioObjectPropertyElementName, kAudioDevicePropertyDeviceUID,
        kAudioDevicePropertyModelUID,    kAudioAggregateDevicePropertyComposition};
    if (std::ranges::find(objectValued, address.selector) != std::end(objectValued)) {
        const auto pointer = readValue<CXObject*>(model, object, address);
        return pointer ? "=" + CXRefCast<CXValue>(CXRef<CXObject>::adopt(*pointer))->plist().dump() : "";
    }
    uint32_t size = 0;
    if (model.propertySize(object, address, {}, size) != 0)
        return "";
    const auto bytes = readList<char>(model, object, address);
    return "=" + std::string(bytes.begin(), bytes.end());
}

using Place = std::pair<AudioObjectID, AudioObjectPropertyAddress>;

struct Model {
    const CXRef<SimulatedHardware> hal = SimulatedHardware::init(SimulatedClock::Stepped);
    const CXRef<HALModel> model = HALModel::initWithDriver(hal);
};

class HALModelAnnouncements : public testing::Test, protected Model {
protected:
    std::vector<std::pair<Place, std::string>> valuesOf(const std::vector<AudioObjectID>& objects)
    {
        std::vector<std::pair<Place, std::string>> values;
        for (const AudioObjectID object : objects)
            for (const uint32_t selector : selectors)
                for (const uint32_t scope : {kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyScopeInput,
                                             kAudioObjectPropertyScopeOutput})
                    for (uint32_t element = 0; element < 4; ++element) {
                        const AudioObjectPropertyAddress address{selector, scope, element};
                        values.emplace_back(Place{object, address}, valueAt(*model, object, address));
                    }
        return values;
    }
    std::vector<AudioObjectID> objectsOf(AudioObjectID device)
    {
        auto objects = readList<AudioObjectID>(*model, device, at(kAudioDevicePropertyStreams));
        objects.insert(objects.begin(), {kAudioObjectSystemObject, device});
        return objects;
    }
};

TEST_F(HALModelAnnouncements, everyReadableAddressIsAnnouncedWhenItsValueChanges)
{
    hal->plug(aDevice().uid("bystander").inputs(1).outputs(1));
    const AudioObjectID device = hal->plug(aDevice()
                                               .uid("device")
                                               .inputs(2)
                                               .outputs(2)
                                               .volume(HALDirection::Output, 0.25F)
                                               .source(HALDirection::Output, 1, "Speakers")
                                               .mute(HALDirection::Output, false));
    hal->plug(aDevice().uid("part").outputs(2));
    AudioObjectID aggregate = kAudioObjectUnknown;
    model->createAggregateDevice(
        *CXValue::initWithPlist({{"uid", "all"}, {"subdevices", {{{"uid", "device"}}, {{"uid", "part"}}}}}),
        aggregate);
    std::vector<AudioObjectID> objects = objectsOf(device);
    const std::vector<AudioObjectID> parts = objectsOf(aggregate);
    objects.insert(objects.end(), parts.begin() + 1, parts.end());
    const auto reshape = [](SimulatedDeviceBuilder& each) {
        each = aDevice()
                   .inputs(3)
                   .outputs(1)
                   .name("Renamed")
                   .manufacturer("Maker")
                   .modelUID("model")
                   .transport(kAudioDeviceTransportTypeUSB)
                   .hidden()
                   .canBeDefault(false)
                   .clockDomain(7)
                   .sampleRate(96000.0)
                   .sampleRates({96000.0})
                   .bufferFrameSize(64)
                   .bufferFrameSizeRange(32, 64)
                   .channelVolumes(HALDirection::Output, {0.5F})
                   .volume(HALDirection::Input, 0.5F)
                   .mute(HALDirection::Output, true)
                   .source(HALDirection::Output, 2, "Headphones")
                   .stereoChannels(HALDirection::Input, 2, 3)
                   .latency(HALDirection::Input, 3, 4);
    };
    const std::pair<const char*, std::function<void()>> changes[] = {
        {"another shape", [&] { hal->reconfigure("device", reshape); }},
        {"running",
         [&] {
             AudioDeviceIOProcID proc = nullptr;
             model->createIOProc(
                 device, [](auto...) {}, proc);
             model->start(device, proc);
         }},
        {"another default", [&] { hal->setDefault(HALDirection::Output, "part"); }},
        {"a device that goes", [&] { hal->unplug("part"); }},
        {"a device that comes", [&] { hal->plug(aDevice().uid("new").inputs(2)); }},
    };
    std::mutex mutex;
    std::set<std::tuple<AudioObjectID, uint32_t, uint32_t, uint32_t>> announced;
    constexpr AudioObjectPropertyAddress anyAddress{kAudioObjectPropertySelectorWildcard,
                                                    kAudioObjectPropertyScopeWildcard,
                                                    kAudioObjectPropertyElementWildcard};
    std::map<AudioObjectID, HALListener> listeners;
    for (const AudioObjectID object : objects) {
        listeners[object].block = [&, object](uint32_t count, const AudioObjectPropertyAddress* addresses) {
            const std::scoped_lock lock(mutex);
            for (const auto& each : std::span(addresses, count))
                announced.emplace(object, each.selector, each.scope, each.element);
        };
        ASSERT_EQ(model->addListener(object, anyAddress, listeners[object]), 0);
    }
    size_t changed = 0;
    for (const auto& [why, change] : changes) {
        const auto before = valuesOf(objects);
        hal->settle();
        announced.clear();
        change();
        hal->settle();
        hal->settle(); // and what the aggregate follows
        const auto after = valuesOf(objects);
        for (size_t i = 0; i < before.size(); ++i) {
            const auto& [object, address] = before[i].first;
            if (before[i].second == after[i].second)
                continue;
            ++changed;
            EXPECT_TRUE(announced.contains({object, address.selector, address.scope, address.element}))
                << why << ": '" << stringWithFourCharCode(address.selector) << "' in '"
                << stringWithFourCharCode(address.scope) << "' element " << address.element << " of object "
                << object;
        }
    }
    EXPECT_GT(changed, 68U);
    for (const auto& [object, listener] : listeners)
        model->removeListener(object, anyAddress, listener);
}

/// A queue that is never served.
class UnservedQueue final : public dxr::WorkQueue {
public:
    UnservedQueue() : WorkQueue("unserved") {}
    bool isCurrent() const noexcept override { return false; }
    void async(Work work) override
    {
        const std::scoped_lock lock(_mutex);
        _jobs.push_back(std::move(work));
    }
    size_t count() const
    {
        const std::scoped_lock lock(_mutex);
        return _jobs.size();
    }
    void serve()
    {
        for (const Work& job : std::exchange(_jobs, {}))
            job();
    }

private:
    mutable std::mutex _mutex;
    std::vector<Work> _jobs;
};

TEST_F(HALModelAnnouncements, mergesChangesForAQueueThatIsNotServed)
{
    const AudioObjectID device =
        hal->plug(aDevice().uid("device").outputs(2).mute(HALDirection::Output, false));
    const auto mute = at(kAudioDevicePropertyMute, kAudioObjectPropertyScopeOutput);
    const auto queue = CXRef<UnservedQueue>::adopt(new UnservedQueue);
    int calls = 0;
    const HALListener listener{nullptr, nullptr,
                               [&](uint32_t, const AudioObjectPropertyAddress*) { ++calls; }, queue};
    model->addListener(device, mute, listener);
    for (uint32_t i = 0; i < 1000; ++i) {
        writeValue(*model, device, mute, (i + 1) % 2);
        hal->settle();
    }
    EXPECT_EQ(queue->count(), 1U);
    queue->serve();
    EXPECT_EQ(calls, 1);
    writeValue(*model, device, mute, 1U);
    hal->settle();
    queue->serve();
    EXPECT_EQ(calls, 2) << "later changes are announced again";
    model->removeListener(device, mute, listener);
}

// One listener runs on the notification thread, the other on a queue; each removes the other while both run.
TEST_F(HALModelAnnouncements, listenersMayRemoveEachOther)
{
    const AudioObjectID device =
        hal->plug(aDevice().uid("device").outputs(2).mute(HALDirection::Output, false));
    const auto mute = at(kAudioDevicePropertyMute, kAudioObjectPropertyScopeOutput);
    for (uint32_t round = 0; round < 200; ++round) {
        std::barrier both(2);
        std::promise<void> done[2];
        HALListener listeners[2];
        for (int i = 0; i < 2; ++i) {
            listeners[i].block = [&, i](uint32_t, const AudioObjectPropertyAddress*) {
                both.arrive_and_wait();
                model->removeListener(device, mute, listeners[1 - i]);
                done[i].set_value();
            };
        }
        listeners[1].queue = dxr::SerialQueue::initWithLabel("listener");
        for (int i = 1; i >= 0; --i) // the one on the queue is called first
            model->addListener(device, mute, listeners[i]);
        writeValue(*model, device, mute, (round + 1) % 2);
        for (std::promise<void>& each : done)
            each.get_future().wait();
        hal->settle();
        listeners[0].block = listeners[1].block = nullptr;
    }
}

// ---- Drivers

/// Devices that do what the test says.
class ScriptedHardware final : public HALHardwareDriver {
public:
    class Device final : public HALDeviceDriver {
    public:
        std::function<HALStatus(HALDeadline)> whenAsked = [](HALDeadline) { return kAudioHardwareNoError; };

        HALStatus setNominalSampleRate(double, HALDeadline deadline) override { return whenAsked(deadline); }
        HALStatus startIO(const CXRef<HALIOProcTable>&, HALDeadline deadline) override
        {
            return whenAsked(deadline);
        }
        void stopIO() override {}
    };

    void start(HALDriverSink& newSink) override { sink = &newSink; }
    void stop() override {}

    CXRef<Device> plug(const std::string& uid)
    {
        auto device = CXRef<Device>::adopt(new Device);
        sink->deviceAdded(device, stateOf(uid, 2));
        return device;
    }
    static HALDeviceState stateOf(const std::string& uid, uint32_t streams)
    {
        HALDeviceState state;
        state.uid = uid;
        state.sampleRates = {{48000.0, 48000.0}, {96000.0, 96000.0}};
        state[HALDirection::Output].streams.resize(streams);
        return state;
    }

    HALDriverSink* sink = nullptr;
};

class HALModelDrivers : public testing::Test {
protected:
    AudioObjectID aggregateOf(const std::vector<std::string>& uids)
    {
        CXPlist description{{"uid", "aggregate"}, {"subdevices", CXPlist::array()}};
        for (const std::string& uid : uids)
            description["subdevices"].push_back({{"uid", uid}});
        AudioObjectID device = kAudioObjectUnknown;
        EXPECT_EQ(model->createAggregateDevice(*CXValue::initWithPlist(description), device), 0);
        return device;
    }

    const CXRef<ScriptedHardware> hardware = CXRef<ScriptedHardware>::adopt(new ScriptedHardware);
    const CXRef<HALModel> model = HALModel::initWithDriver(hardware);
};

TEST_F(HALModelDrivers, aChangeThatComesAsTheDeviceGoesLeavesNoStreams)
{
    for (int round = 0; round < 500; ++round) {
        const auto device = hardware->plug("device");
        const AudioObjectID deviceID = deviceWithUID(*model, "device");
        std::set<AudioObjectID> streams;
        std::thread changes([&] {
            for (uint32_t i = 0; i < 8; ++i)
                hardware->sink->deviceChanged(*device, ScriptedHardware::stateOf("device", 1 + i % 4));
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

TEST_F(HALModelDrivers, subDevicesShareOneDeadline)
{
    std::vector<HALDeadline> deadlines;
    std::vector<CXRef<ScriptedHardware::Device>> devices;
    for (const char* uid : {"a", "b", "c", "d"}) {
        devices.push_back(hardware->plug(uid));
        devices.back()->whenAsked = [&](HALDeadline deadline) {
            deadlines.push_back(deadline);
            return kAudioHardwareUnspecifiedError;
        };
    }
    const AudioObjectID aggregate = aggregateOf({"a", "b", "c", "d"});
    EXPECT_EQ(writeValue(*model, aggregate, at(kAudioDevicePropertyNominalSampleRate), 96000.0),
              kAudioHardwareUnspecifiedError);
    EXPECT_EQ(deadlines.size(), 4U);
    AudioDeviceIOProcID proc = nullptr;
    model->createIOProc(
        aggregate, [](auto...) {}, proc);
    EXPECT_EQ(std::set(deadlines.begin(), deadlines.end()).size(), 1U);
    deadlines.clear();
    EXPECT_EQ(model->start(aggregate, proc), kAudioHardwareUnspecifiedError);
    EXPECT_GE(deadlines.size(), 4U) << "each is tried";
    EXPECT_EQ(std::set(deadlines.begin(), deadlines.end()).size(), 1U);
}

TEST_F(HALModelDrivers, readsDoNotWaitForADriverThatHangs)
{
    const auto device = hardware->plug("a");
    const AudioObjectID aggregate = aggregateOf({"a"});
    std::promise<void> entered, mayLeave;
    device->whenAsked = [&](HALDeadline) {
        entered.set_value();
        mayLeave.get_future().wait();
        return kAudioHardwareUnspecifiedError;
    };
    AudioDeviceIOProcID proc = nullptr;
    model->createIOProc(
        aggregate, [](auto...) {}, proc);
    std::thread starter([&] { EXPECT_EQ(model->start(aggregate, proc), kAudioHardwareUnspecifiedError); });
    entered.get_future().wait();
    const auto status = readList<AudioAggregateSubDeviceStatus>(
        *model, aggregate, at(kAudioAggregateDevicePropertySubDeviceStatus));
    EXPECT_EQ(status.size(), 1U);
    for (const AudioObjectID each : {aggregate, deviceWithUID(*model, "a")})
        EXPECT_EQ(readValue<double>(*model, each, at(kAudioDevicePropertyNominalSampleRate)), 48000.0);
    mayLeave.set_value();
    starter.join();
}

TEST_F(HALModelDrivers, aSecondDeviceOfOneUIDIsRefused)
{
    const auto first = hardware->plug("one");
    const auto second = CXRef<ScriptedHardware::Device>::adopt(new ScriptedHardware::Device);
    EXPECT_EQ(hardware->sink->deviceAdded(second, ScriptedHardware::stateOf("one", 1)), kAudioObjectUnknown);
    hardware->sink->deviceRemoved(*second);
    EXPECT_EQ(readDevices(*model).size(), 1U);
}

// ---- Without threads

/// In a child process that may have no thread besides its own until maySpawn(): the functions return 'what' and throw
/// nothing, and go on when there is a thread again.
int callsWithoutThreads()
{
    rlimit limit{};
    getrlimit(RLIMIT_NPROC, &limit);
    const rlim_t before = limit.rlim_cur;
    limit.rlim_cur = 1;
    const bool isLimited = setrlimit(RLIMIT_NPROC, &limit) == 0 && setresuid(65534, 65534, 65534) == 0;
    const auto setDriver = [] { return HALSetHardwareDriver(SimulatedHardware::init()); };
    const AudioObjectPropertyAddress devices = at(kAudioHardwarePropertyDevices);
    uint32_t size = 0;
    const bool refused =
        !setDriver() && AudioObjectGetPropertyDataSize(kAudioObjectSystemObject, &devices, 0, nullptr,
                                                       &size) == kAudioHardwareUnspecifiedError;
    limit.rlim_cur = before;
    setrlimit(RLIMIT_NPROC, &limit);
    const CXRef<SimulatedHardware> hardware = SimulatedHardware::init();
    const bool recovers = HALSetHardwareDriver(hardware);
    const AudioObjectID device = hardware->plug(aDevice().uid("one").outputs(2));
    AudioDeviceIOProcID proc = nullptr;
    AudioDeviceCreateIOProcIDWithBlock(&proc, device, nullptr,
                                       [](const AudioTimeStamp*, const AudioBufferList*,
                                          const AudioTimeStamp*, AudioBufferList*, const AudioTimeStamp*) {});
    limit.rlim_cur = 1;
    setrlimit(RLIMIT_NPROC, &limit);
    const bool startFails = AudioDeviceStart(device, proc) == kAudioHardwareUnspecifiedError;
    limit.rlim_cur = before;
    setrlimit(RLIMIT_NPROC, &limit);
    const bool starts = AudioDeviceStart(device, proc) == kAudioHardwareNoError;
    std::fprintf(stderr, "limited %d refused %d recovers %d startFails %d starts %d\n", isLimited, refused,
                 recovers, startFails, starts);
    return isLimited && refused && recovers && startFails && starts ? 0 : 1;
}

TEST(HALFunctionsDeathTest, returnAnErrorWithoutThreads)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(_exit(callsWithoutThreads()), testing::ExitedWithCode(0), "starts 1");
}

} // namespace
