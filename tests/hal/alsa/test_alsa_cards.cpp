#include "AlsaTest.h"

#include "AlsaReservation.h"
#include "PrivateBus.h"
#include "SoundServerSearch.h"

#include <cstdlib>

namespace {

// Numbers of the faked card's controls.
constexpr unsigned playbackVolume = 1, playbackSwitch = 2, captureVolume = 3, captureSource = 5,
                   headphoneJack = 6;

TEST_F(AlsaTest, makesADeviceOfEachPcmAndFollowsTheCard)
{
    FakedCardOptions card = aCard();
    card.pcmCount = 3;
    card.components = "USB1235:8211 others";
    const int number = FakedCards::plug(card);
    for (unsigned pcm = 0; pcm < 3; ++pcm) {
        const AudioObjectID id = device(uidOf("unit", pcm));
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
        ASSERT_EQ(FakedCards::plug(aCard(name)), number);
        device(uidOf(name));
        EXPECT_EQ(readDevices(*hal).size(), 1U);
        FakedCards::unplug(number);
    }
}

TEST_F(AlsaTest, setsVolumesByDecibelsAndHearsOfOthersChanges)
{
    const int card = FakedCards::plug(aCard());
    const AudioObjectID id = device(uidOf("unit"));
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
    EXPECT_TRUE(
        eventually([&] { return std::abs(readValue<float>(*hal, id, volume).value_or(9) - 0.1F) < 1e-4F; }));
    FakedCards::setControl(card, playbackSwitch, 0, 0);
    EXPECT_TRUE(becomes(1U, id, kAudioDevicePropertyMute, output));
    EXPECT_EQ(writeValue(*hal, id, at(kAudioDevicePropertyMute, output), 0U), kAudioHardwareNoError);
    EXPECT_EQ(FakedCards::control(card, playbackSwitch, 1), 1);
    FakedCards::setControl(card, captureVolume, 30, 30);
    EXPECT_TRUE(becomes(1.0F, id, kAudioDevicePropertyVolumeScalar, input));
}

TEST_F(AlsaTest, offersInputsAndJacksAsSources)
{
    const int card = FakedCards::plug(aCard());
    const AudioObjectID id = device(uidOf("unit"));
    const auto source = at(kAudioDevicePropertyDataSource, input);
    const auto before = readValue<uint32_t>(*hal, id, source);
    EXPECT_EQ(readList<uint32_t>(*hal, id, at(kAudioDevicePropertyDataSources, input)).size(), 2U);
    EXPECT_EQ(writeValue(*hal, id, source, *before + 1), kAudioHardwareNoError);
    EXPECT_EQ(FakedCards::control(card, captureSource), 1);
    EXPECT_EQ(readValue<uint32_t>(*hal, id, source), *before + 1);

    const auto jack = at(kAudioDevicePropertyDataSource, output);
    const auto speaker = readValue<uint32_t>(*hal, id, jack);
    FakedCards::setControl(card, headphoneJack, 1, 1);
    EXPECT_TRUE(eventually([&] { return readValue<uint32_t>(*hal, id, jack) != speaker; }));
    EXPECT_EQ(writeValue(*hal, id, jack, *speaker), kAudioHardwareIllegalOperationError) << "a plug chooses";
}

TEST_F(AlsaTest, waitsForRightsAndForOtherPrograms)
{
    FakedCardOptions options = aCard("busy");
    options.isBusy = true;
    const int busy = FakedCards::plug(options);
    const int late = FakedCards::plug(aCard("late")); // as if udev granted access a little later
    FakedCards::set(late, FakedFault::NoRights);
    FakedCards::set(late, FakedFault::NoRights, false);
    device(uidOf("late"));
    EXPECT_EQ(deviceWithUID(*hal, uidOf("busy")), kAudioObjectUnknown) << "its abilities are not known";

    // A device in use is described by what it does.
    for (const char* direction : {"p", "c"})
        root.write("proc/asound/card" + std::to_string(busy) + "/pcm0" + direction + "/sub0/hw_params",
                   "access: MMAP_INTERLEAVED\nchannels: 2\nrate: 96000 (96000/1)\nbuffer_size: 4096");
    FakedCards::set(busy, FakedFault::Busy);
    const AudioObjectID id = device(uidOf("busy"));
    const auto rateCount = [&] {
        return readList<AudioValueRange>(*hal, id, at(kAudioDevicePropertyAvailableNominalSampleRates))
            .size();
    };
    EXPECT_EQ(rateCount(), 1U);
    EXPECT_EQ(read<double>(id, kAudioDevicePropertyNominalSampleRate), 96000.0);
    EXPECT_EQ(read<uint32_t>(id, kAudioDevicePropertyDeviceIsRunning), 1U);
    for (const bool isBusy : {false, true, false}) {
        FakedCards::set(busy, FakedFault::Busy, isBusy);
        EXPECT_TRUE(becomes(isBusy ? 1U : 0U, id, kAudioDevicePropertyDeviceIsRunning));
        EXPECT_EQ(rateCount(), 3U);
    }
}

// Unterminated and meaningless texts, counts of billions, endless lists, reversed ranges.
TEST_F(AlsaTest, survivesACardThatSaysNonsense)
{
    FakedCardOptions card = aCard();
    card.isHostile = true;
    const int number = FakedCards::plug(card);
    EXPECT_TRUE(eventually([&] { return !readDevices(*hal).empty(); }));
    const AudioObjectID id = readDevices(*hal).front();
    const auto name = readText(*hal, id, at(kAudioObjectPropertyName));
    ASSERT_TRUE(name);
    EXPECT_EQ(name->find('\xFE'), std::string::npos) << "not UTF-8";
    EXPECT_FALSE(read<float>(id, kAudioDevicePropertyVolumeScalar, output));
    Ramp ramp(*hal, id);
    EXPECT_EQ(ramp.start(), kAudioHardwareNoError);
    EXPECT_TRUE(ramp.waitForMore(3));
    ramp.stop();
    FakedCards::unplug(number);
    EXPECT_TRUE(eventually([&] { return readDevices(*hal).empty(); }));
}

TEST_F(AlsaTest, leavesOutWhatCannotRun)
{
    struct {
        const char* why;
        void (*change)(FakedCardOptions&);
    } const rows[] = {
        {"no rate that is used", [](FakedCardOptions& card) { card.rates = {12345}; }},
        {"no format that is used", [](FakedCardOptions& card) { card.formats = {}; }},
        {"no PCM", [](FakedCardOptions& card) { card.pcmCount = 0; }},
        {"no channels", [](FakedCardOptions& card) { card.playback = card.capture = 0; }},
        {"periods that are too long", [](FakedCardOptions& card) { card.minPeriod = 16384; }},
        {"a ring that is too short", [](FakedCardOptions& card) { card.minPeriod = 4, card.maxBuffer = 16; }},
    };
    for (const auto& row : rows) {
        FakedCardOptions card = aCard(row.why);
        row.change(card);
        FakedCards::plug(card);
    }
    FakedCards::plug(aCard("last"));
    device(uidOf("last"));
    EXPECT_EQ(readDevices(*hal).size(), 1U);
}

TEST_F(AlsaTest, keepsDefaultDevicesOfTheProcess)
{
    const auto isDefault = [&](AudioObjectID id) {
        return becomes(id, kAudioObjectSystemObject, kAudioHardwarePropertyDefaultOutputDevice);
    };
    FakedCards::plug(aCard("first"));
    const AudioObjectID first = device(uidOf("first"));
    const int card = FakedCards::plug(aCard("second"));
    const AudioObjectID second = device(uidOf("second"));
    EXPECT_TRUE(isDefault(first)) << "one that comes takes nothing over";
    writeValue(*hal, kAudioObjectSystemObject, at(kAudioHardwarePropertyDefaultOutputDevice), second);
    EXPECT_TRUE(isDefault(second));
    FakedCards::unplug(card);
    EXPECT_TRUE(isDefault(first));
    FakedCards::plug(aCard("second"));
    EXPECT_TRUE(isDefault(device(uidOf("second")))) << "the chosen one is back";
}

TEST_F(AlsaTest, findsTheVolumeByItsName)
{
    const struct {
        const char* control;
        bool isOutputs, isInputs;
    } rows[] = {
        {"Master Volume", true, false}, // of both directions; few drivers use this name
        {"PCM Playback Volume", true, false},  {"Line Volume", false, true},
        {"Mic Playback Volume", false, false}, // plays the microphone on the output
        {"Bass Volume", false, false},
    };
    for (const auto& row : rows) {
        FakedCardOptions card = aCard(row.control);
        card.volumeNames = {row.control, "Other Volume"};
        FakedCards::plug(card);
        const AudioObjectID id = device(uidOf(row.control));
        EXPECT_EQ(read<float>(id, kAudioDevicePropertyVolumeScalar, output).has_value(), row.isOutputs)
            << row.control;
        EXPECT_EQ(read<float>(id, kAudioDevicePropertyVolumeScalar, input).has_value(), row.isInputs)
            << row.control;
    }
}

// ---- Parts of the driver

TEST(AlsaIdentity, isTheUnitsAndNotTheNumbers)
{
    const Folder folder;
    const auto connect = [&](int card, const std::string& device) {
        const fs::path link = folder.path / "class/sound" / ("card" + std::to_string(card)) / "device";
        fs::create_directories(folder.path / "devices" / device);
        fs::create_directories(link.parent_path());
        fs::create_directory_symlink(folder.path / "devices" / device, link);
    };
    for (const std::string unit : {"devices/usb3/3-1.4/", "devices/usb3/3-2/"}) {
        folder.write(unit + "idVendor", "1235");
        folder.write(unit + "idProduct", "8211");
    }
    folder.write("devices/usb3/3-1.4/serial", "S\xFF.1");
    connect(0, "usb3/3-1.4/3-1.4:1.0");
    connect(1, "usb3/3-2/3-2:1.0");
    connect(2, "pci0000:00/0000:00:1f.3");
    const AlsaCardInfo info{"id", "driver", "name", "long name at irq 17", ""};
    struct {
        int card;
        const char *key, *place;
    } const rows[] = {
        {0, "usb:1235:8211:S\xEF\xBF\xBD.1", "03140000"},
        {1, "usb:1235:8211:03200000", "03200000"}, // no serial number: identified by its place
        {2, "0000:00:1f.3", "0000:00:1f.3"},
        {3, "long name at irq 17", "long name at irq 17"}, // absent from the device tree
    };
    for (const auto& row : rows) {
        const AlsaIdentity identity = alsaIdentity(row.card, info, folder.path);
        EXPECT_EQ(identity.key, row.key);
        EXPECT_EQ(identity.place, row.place);
    }
}

TEST(SoundServerSearch, findsAServerThatRunsOrIsAboutTo)
{
    unsetenv("PIPEWIRE_REMOTE");
    unsetenv("PULSE_SERVER");
    unsetenv("XDG_RUNTIME_DIR");
    struct {
        const char *why, *file, *text;
        bool isExpected;
    } const rows[] = {
        {"nothing", "run/other", "", false},
        {"another program", "processes/12/comm", "pipewire-thing", false},
        {"a server", "processes/12/comm", "pulseaudio", true},
        {"its session manager alone", "processes/7/comm", "wireplumber", true},
        {"the system's socket", "run/pipewire/pipewire-0", "", true},
    };
    for (const auto& row : rows) {
        const Folder folder;
        folder.write(row.file, row.text);
        folder.write("cards/controlC0", "");
        const SoundServerSearch search(folder.path / "processes", folder.path / "run", folder.path / "cards");
        EXPECT_EQ(search.isServerExpected(), row.isExpected) << row.why;
        EXPECT_TRUE(search.hasCards());
    }
    const SoundServerSearch nowhere("/nowhere", "/nowhere", "/nowhere");
    EXPECT_FALSE(nowhere.hasCards());
    setenv("PIPEWIRE_REMOTE", "elsewhere", 1);
    EXPECT_TRUE(nowhere.isServerExpected());
}

/// A program that keeps its card.
struct Program final : AlsaReservation::Holder {
    explicit Program(int card) : reservation(card) {}
    int acquire() { return reservation.acquire(*this); }
    void yield() override { ADD_FAILURE() << "given up for an equal"; }
    AlsaReservation reservation;
};

TEST(AlsaReservation, goesToOneProgramAtATimeAndComesBack)
{
    const PrivateBus bus("DBUS_SESSION_BUS_ADDRESS");
    Program ours(3), theirs(3), other(4);
    EXPECT_EQ(ours.acquire(), 0);
    EXPECT_EQ(other.acquire(), 0) << "another card";
    std::atomic<int> result{1};
    std::thread asks([&] { result = theirs.acquire(); }); // equal priority: refused
    while (result == 1) {
        ours.reservation.process();
        sleepForMilliseconds(1);
    }
    asks.join();
    EXPECT_EQ(result, -EBUSY);
    ours.reservation.release(ours);
    EXPECT_EQ(theirs.acquire(), 0);
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
    unsetenv("XDG_RUNTIME_DIR");
    Program alone(3);
    EXPECT_EQ(alone.acquire(), 0) << "no bus, no one to ask";
    EXPECT_EQ(alone.reservation.descriptor(), -1);
}

} // namespace
