// Tests the driver over faked cards, whose clocks wait for a late test.
#include "AlsaDriver.h"
#include "AlsaQuiet.h"
#include "CapturedLog.h"
#include "FakedCards.h"
#include "HALIO.h"
#include "HALNotifier.h"
#include "NoNewThreads.h"

#include <cmath>
#include <filesystem>
#include <fstream>
#include <sys/resource.h>
#include <unistd.h>

// alsa-lib keeps the list of controls if it cannot load one of them.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() // NOLINT(bugprone-reserved-identifier): its name
{
    return "leak:snd_ctl_elem_list_alloc_space\n";
}

namespace {

namespace fs = std::filesystem;

class AlsaTest : public testing::Test, protected ModelReads {
protected:
    AlsaTest() { hal = HALModel::initWithDriver(AlsaDriver::init(3, root)); }
    ~AlsaTest() override
    {
        FakedCards::unplugAll();
        fs::remove_all(root);
    }

    /// Waits for a card's device.
    AudioObjectID device(const std::string& longName = "unit", unsigned pcm = 0)
    {
        const AudioObjectID found = waitForDevice(*hal, "alsa:" + longName + ":" + std::to_string(pcm));
        EXPECT_NE(found, kAudioObjectUnknown) << longName;
        return found;
    }

    const fs::path root = fs::temp_directory_path() / ("alsa-test-" + std::to_string(getpid())); // of /proc
};

/// Plays a ramp that shows each sample's time, and compares it with the time of the input.
struct Ramp : CycleWitness {
    AudioDeviceIOBlock block() { return eachCycle(std::bind_front(&Ramp::_run, this)); }

    std::atomic<uint64_t> heard{0};             ///< samples that are not silent
    std::atomic<uint64_t> jumps{0};             ///< changes of the latency
    std::atomic<double> latencyFrames{-1.0};    ///< from a sample's output time to its input time
    std::atomic<float> step{1.0F / 1048576.0F}; ///< frame k is k * step, modulo 1

private:
    void _run(const IOCycle& cycle) noexcept
    {
        const double length = 1.0 / static_cast<double>(step.load());
        for (size_t i = 0; cycle.input && i < cycle.frames(); ++i) {
            const float sample = cycle.in()[i * bufferOf(cycle.input, 0).numberChannels];
            const double time = cycle.inputTime->sampleTime + static_cast<double>(i);
            const double latency = std::fmod(time + length - static_cast<double>(sample / step), length);
            if (sample == 0.0F)
                continue;
            jumps += heard > 0 && latency != latencyFrames;
            latencyFrames = latency;
            ++heard;
        }
        for (size_t i = 0; cycle.output && i < cycle.out().size(); ++i) {
            const size_t frame = i / bufferOf(cycle.output, 0).numberChannels;
            const double time = cycle.outputTime->sampleTime + static_cast<double>(frame);
            cycle.out()[i] = static_cast<float>(std::fmod(time, length)) * step;
        }
        see(cycle);
    }
};

// Numbers of the faked card's controls.
constexpr unsigned playbackVolume = 1, playbackSwitch = 2, captureVolume = 3, captureSource = 5,
                   headphoneJack = 6;

TEST_F(AlsaTest, makesADeviceOfEachPcmAndFollowsTheCard)
{
    const int number =
        FakedCards::plug({.name = "Unit\xFF", .components = "USB1235:8211 others", .pcmCount = 3});
    for (unsigned pcm = 0; pcm < 3; ++pcm) {
        const AudioObjectID id = device("unit", pcm);
        EXPECT_EQ(readText(*hal, id, at(kAudioObjectPropertyName)),
                  "Unit\xEF\xBF\xBD Faked PCM " + std::to_string(pcm));
        EXPECT_EQ(read<uint32_t>(id, kAudioDevicePropertyClockDomain), static_cast<uint32_t>(number) + 1);
        EXPECT_EQ(read<uint32_t>(id, kAudioDevicePropertyTransportType), kAudioDeviceTransportTypeUSB);
        EXPECT_EQ(readText(*hal, id, at(kAudioDevicePropertyModelUID)), "1235:8211");
        EXPECT_EQ(read<float>(id, kAudioDevicePropertyVolumeScalar, output).has_value(), pcm == 0)
            << "the card's controls are its first PCM's";
    }
    FakedCards::unplug(number);
    EXPECT_TRUE(eventually([&] { return readDevices(*hal).empty(); }));
    // Another card gets the same number, often before the driver has noticed the removal.
    for (const char* name : {"a", "b", "c", "d"}) {
        ASSERT_EQ(FakedCards::plug({.longName = name}), number);
        device(name);
        EXPECT_EQ(readDevices(*hal).size(), 1U);
        FakedCards::unplug(number);
    }
}

TEST_F(AlsaTest, survivesAnUnplugAtEachStepOfItsUse)
{
    CycleWitness witness;
    unsigned step = 0;
    while (witness.cycles < 3) {
        const int number = FakedCards::plug({.ioctlsUntilUnplug = ++step});
        const auto isGone = [number] { return !FakedCards::isPlugged(number); };
        ASSERT_TRUE(eventually([&] { return isGone() || !readDevices(*hal).empty(); })) << step;
        const std::vector<AudioObjectID> devices = readDevices(*hal);
        AudioDeviceIOProcID proc = nullptr;
        if (!devices.empty() && hal->createIOProc(devices[0], witnessing(witness), proc) == 0) {
            const bool hasStarted = hal->start(devices[0], proc) == 0;
            EXPECT_TRUE(!hasStarted || eventually([&] { return isGone() || witness.cycles > 2; })) << step;
            hal->destroyIOProc(devices[0], proc);
        }
        FakedCards::unplug(number);
        ASSERT_TRUE(eventually([&] { return readDevices(*hal).empty(); })) << step;
    }
    EXPECT_GT(step, 100U);
}

TEST_F(AlsaTest, setsControlsAndHearsOfOthersChanges)
{
    const int card = FakedCards::plug({});
    const AudioObjectID id = device();
    const auto volume = at(kAudioDevicePropertyVolumeScalar, output);
    const auto left = at(kAudioDevicePropertyVolumeScalar, output, 1);
    // The steps are 1 dB, and half of the slider is -18.06 dB. A read returns the value that was written.
    EXPECT_EQ(writeValue(*hal, id, volume, 0.5F), kAudioHardwareNoError);
    EXPECT_EQ(FakedCards::control(card, playbackVolume), 64 - 18);
    EXPECT_EQ(readValue<float>(*hal, id, volume), 0.5F);
    // The main volume keeps the balance and equals the louder channel's.
    EXPECT_EQ(writeValue(*hal, id, left, 0.25F), kAudioHardwareNoError);
    EXPECT_EQ(readValue<float>(*hal, id, volume), 0.5F);
    EXPECT_EQ(writeValue(*hal, id, volume, 1.0F), kAudioHardwareNoError);
    EXPECT_FLOAT_EQ(readValue<float>(*hal, id, left).value_or(0), 0.5F);
    EXPECT_EQ(FakedCards::control(card, playbackVolume, 1), 64);
    EXPECT_EQ(writeValue(*hal, id, volume, 0.0F), kAudioHardwareNoError);
    EXPECT_EQ(FakedCards::control(card, playbackVolume, 1), 0);

    FakedCards::setControl(card, playbackVolume, 4, 4); // -60 dB
    EXPECT_TRUE(eventually([&] { return std::abs(*readValue<float>(*hal, id, volume) - 0.1F) < 1e-4F; }));
    FakedCards::setControl(card, playbackSwitch, 0, 0);
    EXPECT_TRUE(becomes(id, kAudioDevicePropertyMute, 1U, output));
    EXPECT_EQ(writeValue(*hal, id, at(kAudioDevicePropertyMute, output), 0U), kAudioHardwareNoError);
    EXPECT_EQ(FakedCards::control(card, playbackSwitch, 1), 1);
    FakedCards::setControl(card, captureVolume, 30, 30);
    EXPECT_TRUE(becomes(id, kAudioDevicePropertyVolumeScalar, 1.0F, input));

    const auto source = at(kAudioDevicePropertyDataSource, input);
    const uint32_t before = readValue<uint32_t>(*hal, id, source).value_or(0);
    EXPECT_EQ(readList<uint32_t>(*hal, id, at(kAudioDevicePropertyDataSources, input)).size(), 2U);
    EXPECT_EQ(writeValue(*hal, id, source, before + 1), kAudioHardwareNoError);
    EXPECT_EQ(FakedCards::control(card, captureSource), 1);
    EXPECT_EQ(readValue<uint32_t>(*hal, id, source), before + 1);

    const auto jack = at(kAudioDevicePropertyDataSource, output);
    const auto speaker = readValue<uint32_t>(*hal, id, jack);
    FakedCards::setControl(card, headphoneJack, 1, 1);
    EXPECT_TRUE(eventually([&] { return readValue<uint32_t>(*hal, id, jack) != speaker; }));
    EXPECT_EQ(writeValue(*hal, id, jack, *speaker), kAudioHardwareIllegalOperationError) << "a plug chooses";

    // Events of a control that was removed before alsa-lib knew it.
    for (const uint32_t muted : {1U, 0U}) {
        FakedCards::announce(card, 99, muted ? SND_CTL_EVENT_MASK_VALUE : SND_CTL_EVENT_MASK_REMOVE);
        FakedCards::setControl(card, playbackSwitch, !muted, !muted);
        EXPECT_TRUE(becomes(id, kAudioDevicePropertyMute, muted, output));
    }

    FakedCards::set(card, FakedFault::NoMemory);
    FakedCards::setControl(card, playbackSwitch, 0, 0);
    sleepForMilliseconds(50); // for the driver to meet the fault
    FakedCards::set(card, FakedFault::NoMemory, false);
    FakedCards::setControl(card, playbackSwitch, 0, 1);
    FakedCards::setControl(card, playbackSwitch, 0, 0);
    EXPECT_TRUE(becomes(id, kAudioDevicePropertyMute, 1U, output)) << "the card is still there";
}

TEST_F(AlsaTest, waitsForRightsAndForOtherPrograms)
{
    const int busy = FakedCards::plug({.longName = "busy", .isBusy = true});
    const int late = FakedCards::plug({.longName = "late"}); // as if udev granted access a little later
    FakedCards::set(late, FakedFault::NoRights);
    FakedCards::set(late, FakedFault::NoRights, false);
    device("late");
    EXPECT_EQ(deviceWithUID(*hal, "alsa:busy:0"), kAudioObjectUnknown) << "its abilities are not known";
    const size_t opens = FakedCards::controlOpens(busy);
    sleepForMilliseconds(100);
    EXPECT_LT(FakedCards::controlOpens(busy), opens + 20) << "the driver wakes itself";

    // A device in use is described by what it does.
    for (const char* direction : {"pcm0p", "pcm0c"}) {
        const fs::path folder = root / "proc/asound" / ("card" + std::to_string(busy)) / direction / "sub0";
        fs::create_directories(folder);
        std::ofstream(folder / "hw_params")
            << "access: MMAP_INTERLEAVED\nchannels: 2\nrate: 96000 (96000/1)\nbuffer_size: 4096\n";
    }
    FakedCards::set(busy, FakedFault::Busy);
    const AudioObjectID id = device("busy");
    const auto rates = at(kAudioDevicePropertyAvailableNominalSampleRates);
    const auto rateCount = [&] { return readList<AudioValueRange>(*hal, id, rates).size(); };
    EXPECT_EQ(rateCount(), 1U);
    EXPECT_EQ(read<double>(id, kAudioDevicePropertyNominalSampleRate), 96000.0);
    EXPECT_EQ(read<uint32_t>(id, kAudioDevicePropertyDeviceIsRunning), 1U);
    for (const bool isBusy : {false, true, false}) {
        FakedCards::set(busy, FakedFault::Busy, isBusy);
        EXPECT_TRUE(becomes(id, kAudioDevicePropertyDeviceIsRunning, isBusy ? 1U : 0U));
        EXPECT_EQ(rateCount(), 3U);
    }
}

TEST_F(AlsaTest, looksAgainAfterItWasOutOfDescriptors)
{
    FakedCards::plug({.longName = "no card", .failedOpens = {2, 0}});
    FakedCards::plug({.longName = "no PCM", .failedOpens = {0, 2}});
    for (const char* name : {"no card", "no PCM"}) {
        const AudioObjectID id = device(name);
        EXPECT_EQ(channelsOf(*hal, id, input) + channelsOf(*hal, id, output), 4U) << name;
    }
}

TEST_F(AlsaTest, doesWithoutADirectionThatCannotBeOpened)
{
    // As in a container that was given the playback file alone; as some drivers answer; as without
    // descriptors; as without memory.
    const int errors[] = {ENOENT, ENODEV, EMFILE, ENOMEM};
    int last = 0;
    FakedCards::hurry(100); // the driver looks again for 0.6 s
    for (const int error : errors)
        last = FakedCards::plug({.longName = std::to_string(error), .captureError = error});
    for (const int error : {ENOENT, ENODEV}) {
        const AudioObjectID id = device(std::to_string(error));
        EXPECT_EQ(channelsOf(*hal, id, input), 0U);
        EXPECT_EQ(channelsOf(*hal, id, output), 2U);
    }
    EXPECT_TRUE(eventually([&] {
        const size_t opens = FakedCards::controlOpens(last);
        sleepForMilliseconds(100);
        return FakedCards::controlOpens(last) == opens;
    })) << "it looks without end";
    FakedCards::hurry(1);
    // The file is provided later, while the device runs.
    const AudioObjectID late = device(std::to_string(ENOENT));
    {
        CycleWitness witness;
        const RunningProc proc(*hal, late, witnessing(witness));
        FakedCards::provideCapture(0);
        EXPECT_TRUE(witness.waitForMore());
        EXPECT_EQ(channelsOf(*hal, late, input), 0U) << "the run has none";
    }
    EXPECT_TRUE(eventually([&] { return channelsOf(*hal, late, input) == 2; }));
}

TEST_F(AlsaTest, givesEachCardItsMinuteWhileTheFolderCannotBeWatched)
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none{0, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    const CXRef<AlsaDriver> blind = AlsaDriver::init(3, root);
    setrlimit(RLIMIT_NOFILE, &limit);
    FakedCards::hurry(100);
    FakedCards::plug({.longName = "first", .captureError = ENODEV});
    hal = HALModel::initWithDriver(blind);
    device("first"); // after a minute
    FakedCards::hurry(10);
    const int number = FakedCards::plug({.longName = "second", .captureError = ENODEV});
    sleepForMilliseconds(200); // four looks
    FakedCards::provideCapture(number);
    EXPECT_EQ(channelsOf(*hal, device("second"), input), 2U);
    FakedCards::hurry(1);
}

TEST_F(AlsaTest, survivesACardThatReportsNonsense)
{
    const int number = FakedCards::plug({.isHostile = true});
    const AudioObjectID id = device();
    EXPECT_FALSE(read<float>(id, kAudioDevicePropertyVolumeScalar, output)) << "a range of no step";
    EXPECT_FALSE(read<uint32_t>(id, kAudioDevicePropertyDataSource, input)) << "an item outside the list";
    const auto sources = at(kAudioDevicePropertyDataSources, input);
    EXPECT_EQ(readList<uint32_t>(*hal, id, sources).size(), 64U) << "all it reads";
    FakedCards::unplug(number);
    EXPECT_TRUE(eventually([&] { return readDevices(*hal).empty(); }));
}

TEST_F(AlsaTest, leavesOutWhatCannotRun)
{
    const FakedCardOptions rows[] = {
        {.longName = "no rate that is used", .rates = {12345}},
        {.longName = "no format that is used", .formats = {}},
        {.longName = "no PCM", .pcmCount = 0},
        {.longName = "no channels", .playback = 0, .capture = 0},
        {.longName = "periods that are too long", .minPeriod = 16384},
        {.longName = "a ring that is too short", .minPeriod = 4, .maxBuffer = 16},
        {.longName = "last"},
    };
    for (const FakedCardOptions& card : rows)
        FakedCards::plug(card);
    device("last");
    EXPECT_EQ(readDevices(*hal).size(), 1U);
}

TEST_F(AlsaTest, keepsDefaultDevicesOfTheProcess)
{
    const auto isDefault = [&](AudioObjectID id) {
        return becomes(kAudioObjectSystemObject, kAudioHardwarePropertyDefaultOutputDevice, id);
    };
    FakedCards::plug({.longName = "first"});
    const AudioObjectID first = device("first");
    const int card = FakedCards::plug({.longName = "second"});
    const AudioObjectID second = device("second");
    EXPECT_TRUE(isDefault(first)) << "one that comes takes nothing over";
    writeValue(*hal, kAudioObjectSystemObject, at(kAudioHardwarePropertyDefaultOutputDevice), second);
    EXPECT_TRUE(isDefault(second));
    FakedCards::unplug(card);
    EXPECT_TRUE(isDefault(first));
    FakedCards::plug({.longName = "second"});
    EXPECT_TRUE(isDefault(device("second"))) << "the chosen one is back";
}

TEST_F(AlsaTest, findsTheVolumeByItsName)
{
    const std::tuple<const char*, bool, bool> rows[] = {
        // control, whether of outputs and inputs
        {"Master Volume", true, false}, // of both directions; few drivers use this name
        {"PCM Playback Volume", true, false},  {"Line Volume", false, true},
        {"Mic Playback Volume", false, false}, // plays the microphone on the output
        {"Bass Volume", false, false},
    };
    for (const auto& [control, isOutputs, isInputs] : rows) {
        SCOPED_TRACE(control);
        FakedCards::plug({.longName = control, .volumeNames = {control, "Other Volume"}});
        const AudioObjectID id = device(control);
        EXPECT_EQ(read<float>(id, kAudioDevicePropertyVolumeScalar, output).has_value(), isOutputs);
        EXPECT_EQ(read<float>(id, kAudioDevicePropertyVolumeScalar, input).has_value(), isInputs);
    }
}

// The input returns what is played at the same sample time: times, latency and samples are exact. A card that
// disappears while it runs is closed without log lines, and its device disappears at once.
TEST_F(AlsaTest, playsAndRecordsExactlyOnEveryKindOfCard)
{
    const FakedCardOptions rows[] = {
        {.longName = "as most are"},
        {.longName = "its directions cannot be linked", .canLink = false},
        {.longName = "no time stamps", .hasStamps = false},
        {.longName = "read and write alone", .mapsSamples = false},
        {.longName = "16 bits", .formats = {SND_PCM_FORMAT_S16}},
        {.longName = "24 bits", .formats = {SND_PCM_FORMAT_S24}},
        {.longName = "24 bits in three bytes", .formats = {SND_PCM_FORMAT_S24_3LE}},
        {.longName = "float", .formats = {SND_PCM_FORMAT_FLOAT}},
        {.longName = "its position moves by a millisecond", .granularity = 48},
        {.longName = "a clock that is fast", .partsPerMillion = 300.0},
        {.longName = "one rate", .rates = {44100}},
    };
    for (const FakedCardOptions& card : rows) {
        SCOPED_TRACE(card.longName);
        const CapturedLog log;
        const int number = FakedCards::plug(card);
        Ramp ramp;
        ramp.step = card.longName == "16 bits" ? 1.0F / 32768.0F : 1.0F / 1048576.0F;
        const RunningProc proc(*hal, device(card.longName), ramp.block());
        EXPECT_TRUE(eventually([&] { return ramp.heard > 20'000; }));
        // Without linked starts, the two directions start at different times, so the latency is not 0.
        EXPECT_TRUE(!card.canLink || ramp.latencyFrames == 0.0) << ramp.latencyFrames;
        EXPECT_EQ(ramp.jumps + ramp.backwards + ramp.lostFrames, 0U);
        FakedCards::unplug(number);
        EXPECT_TRUE(
            eventually([&] { return readDevices(*hal).empty() && FakedCards::openFiles(number) == 0; }));
        EXPECT_EQ(log.lines(), std::vector<std::string>{});
    }
}

TEST_F(AlsaTest, reportsTheCyclesInTheRingAsItsSafetyOffset)
{
    FakedCards::plug({.maxBuffer = 2000});
    const AudioObjectID id = device();
    std::atomic<double> ahead{-1.0}; // how long after the next cycle an output is played
    const RunningProc proc(*hal, id, eachCycle([&](const IOCycle& cycle) {
        ahead = cycle.outputTime->sampleTime - cycle.now.sampleTime - cycle.frames();
    }));
    const std::pair<uint32_t, uint32_t> rows[] = {{512, 512}, {1000, 0}, {256, 256}}; // 3, 2 and 3 cycles
    for (const auto& [frames, offset] : rows) {
        if (frames != 512) { // as at first
            EXPECT_EQ(writeValue(*hal, id, at(kAudioDevicePropertyBufferFrameSize), frames), 0);
        }
        EXPECT_EQ(read<uint32_t>(id, kAudioDevicePropertySafetyOffset, output), offset) << frames;
        EXPECT_TRUE(eventually([&] { return ahead == offset; })) << frames;
    }
    EXPECT_EQ(read<uint32_t>(id, kAudioDevicePropertySafetyOffset, input), 0U);
}

TEST_F(AlsaTest, goesOnAndMeasuresTheClockAfterWhatStopsACard)
{
    const struct {
        FakedCardOptions card;
        FakedFault fault = FakedFault::Overload;
    } rows[] = {
        {{.longName = "an overload", .partsPerMillion = 200.0}},
        {{.longName = "an overload of an input alone", .playback = 0}},
        {{.longName = "an overload of an output alone", .capture = 0}},
        {{.longName = "a suspend"}, FakedFault::Suspend},
        {{.longName = "a card that is stuck for a while"}, FakedFault::Stuck},
    };
    for (const auto& [card, fault] : rows) {
        SCOPED_TRACE(card.longName);
        const bool isStuck = fault == FakedFault::Stuck;
        const int number = FakedCards::plug(card);
        const AudioObjectID id = device(card.longName);
        const RecordingListener overloads(*hal, id, at(kAudioDeviceProcessorOverload));
        Ramp ramp;
        const RunningProc proc(*hal, id, ramp.block());
        const bool hears = card.playback && card.capture;
        for (int round = 0; round < (isStuck ? 1 : 3); ++round) {
            EXPECT_TRUE(ramp.waitForMore(5));
            FakedCards::set(number, fault);
            EXPECT_TRUE(!isStuck || becomes(id, kAudioDevicePropertyDeviceIsRunning, 0U));
            FakedCards::set(number, fault, false);
            const uint64_t heard = ramp.heard;
            EXPECT_TRUE(ramp.waitForMore(20));
            EXPECT_TRUE(!hears || eventually([&] { return ramp.heard > heard + 2000; }));
        }
        EXPECT_TRUE(becomes(id, kAudioDevicePropertyDeviceIsRunning, 1U));
        const double rateScalar = 1.0 / (1.0 + card.partsPerMillion * 1e-6);
        EXPECT_TRUE(eventually([&] { return std::abs(ramp.rateScalar - rateScalar) < 10e-6; }));
        EXPECT_TRUE(isStuck || eventually([&] { return overloads.count() > 0; }));
        EXPECT_EQ(ramp.backwards + ramp.jumps, 0U);
    }
}

TEST_F(AlsaTest, logsNothingOfACardThatWasUnplugged)
{
    const int number = FakedCards::plug({});
    int error = 0;
    const CXRef<AlsaCard> card = AlsaCard::open(number, root, error);
    ASSERT_TRUE(card);
    FakedCards::unplug(number);
    const AlsaQuiet quiet;
    const CapturedLog log;
    HALNotifier notifier;
    AlsaRunState state{.changed = [] {}};
    {
        AlsaRun run(
            {.pcmName = "hw:0,0", .deviceName = {}, .channels = {2, 2}, .rate = 48000, .frameCount = 512},
            card, HALIOProcTable::initWithDevice(1, notifier), state);
        run.start(std::chrono::steady_clock::now() + std::chrono::seconds(20), AlsaRun::WhenRefused::Retry);
        EXPECT_TRUE(eventually([&] { return state.isStalled.load(); })) << "it tries again";
    }
    EXPECT_EQ(log.lines(), std::vector<std::string>{});
}

TEST_F(AlsaTest, reportsARunThatCannotGoOnAndFollowsCardsAfterAFailedStart)
{
    FakedCards::plug({});
    const AudioObjectID id = device();
    CycleWitness witness;
    const RunningProc proc(*hal, id, witnessing(witness));
    {
        const NoNewThreads limit;
        EXPECT_NE(writeValue(*hal, id, at(kAudioDevicePropertyNominalSampleRate), 96000.0), 0);
    }
    EXPECT_TRUE(becomes(id, kAudioDevicePropertyDeviceIsRunning, 0U));

    const CXRef<AlsaDriver> driver = AlsaDriver::init(3, root);
    for (const char* name : {"first", "second"}) { // the driver's start, and another after its stop
        const CXRef<HALModel> model = HALModel::initWithDriver(driver);
        FakedCards::plug({.longName = name});
        EXPECT_NE(waitForDevice(*model, "alsa:" + std::string(name) + ":0"), kAudioObjectUnknown);
    }
}

TEST_F(AlsaTest, failsAStartThatCanDeliverNothing)
{
    for (const FakedFault fault : {FakedFault::Busy, FakedFault::Stuck, FakedFault::NoRights}) {
        const std::string name = "fault " + std::to_string(static_cast<int>(fault));
        SCOPED_TRACE(name);
        const int number = FakedCards::plug({.longName = name});
        const AudioObjectID id = device(name);
        CycleWitness witness;
        const CapturedLog log;
        FakedCards::set(number, fault);
        RunningProc(*hal, id, witnessing(witness), kAudioHardwareUnspecifiedError);
        EXPECT_EQ(log.lines().size(), 1U) << "the reason";
        EXPECT_EQ(witness.cycles, 0U);
        EXPECT_EQ(FakedCards::openFiles(number), 1U) << "its control device alone";
        FakedCards::set(number, fault, false);
        RunningProc(*hal, id, witnessing(witness));
    }
}

} // namespace
