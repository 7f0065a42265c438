// Tests parts of the driver without a card.
#include "AlsaFormat.h"
#include "AlsaIdentity.h"
#include "AlsaReservation.h"
#include "AlsaTimeline.h"
#include "Eventually.h"
#include "PrivateBus.h"
#include "SoundServerSearch.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <filesystem>
#include <fstream>

namespace {

namespace fs = std::filesystem;

/// A private temporary folder, removed with its contents by the destructor.
class Folder {
public:
    ~Folder() { fs::remove_all(path); }
    void write(const fs::path& file, const std::string& text) const
    {
        fs::create_directories((path / file).parent_path());
        std::ofstream(path / file) << text << "\n";
    }
    const fs::path path = fs::temp_directory_path() / ("alsa-parts-" + std::to_string(getpid()));
};

TEST(AlsaIdentity, isTheUnitsAndNotTheNumbers)
{
    const Folder folder;
    for (const std::string unit : {"devices/usb3/3-1.4/", "devices/usb3/3-2/"}) {
        folder.write(unit + "idVendor", "1235");
        folder.write(unit + "idProduct", "8211");
    }
    folder.write("devices/usb3/3-1.4/serial", "S\xFF.1");
    const AlsaCardInfo info{"id", "driver", "name", "long name at irq 17", ""};
    const char* const rows[][3] = {
        // device, key, place
        {"usb3/3-1.4/3-1.4:1.0", "usb:1235:8211:S\xEF\xBF\xBD.1", "03140000"},
        {"usb3/3-2/3-2:1.0", "usb:1235:8211:03200000", "03200000"}, // no serial number: known by its place
        {"pci0000:00/0000:00:1f.3", "0000:00:1f.3", "0000:00:1f.3"},
    };
    const AlsaIdentity absent = alsaIdentity(0, info, folder.path); // from the device tree
    EXPECT_EQ(absent.key, info.longName);
    EXPECT_EQ(absent.place, info.longName);
    const fs::path link = folder.path / "class/sound/card0/device";
    fs::create_directories(link.parent_path());
    for (const auto& [device, key, place] : rows) {
        fs::create_directories(folder.path / "devices" / device);
        fs::remove(link);
        fs::create_directory_symlink(folder.path / "devices" / device, link);
        const AlsaIdentity identity = alsaIdentity(0, info, folder.path);
        EXPECT_EQ(identity.key, key);
        EXPECT_EQ(identity.place, place);
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

// How the driver derives sample times from a card's time stamps.
TEST(AlsaTimeline, keepsItsClockThroughAnInterruption)
{
    AlsaTimeline timeline;
    timeline.begin(48000.0);
    AlsaTimeline::Step step{};
    const auto timeOf = [](uint64_t frame) { return 1'000'000'000'000 + frame * 1'000'000'000 / 48000; };
    for (uint64_t frame = 512; frame <= 51200; frame += 512)
        step = timeline.advance(timeOf(frame), frame, frame, 512);
    EXPECT_EQ(step.sampleTime, 51200U);
    timeline.interrupt();
    step = timeline.advance(timeOf(100'000), 512, 512, 512);
    EXPECT_NEAR(static_cast<double>(step.sampleTime), 100'000.0, 2.0) << "the frames that were lost count";
    timeline.interrupt();
    for (uint64_t frame = 512; frame <= 51200; frame += 512) {
        const uint64_t stamp = timeOf(frame + uint64_t{600} * 48000); // ten minutes later
        step = timeline.advance(stamp, frame, frame, 512);
        ASSERT_NEAR(step.nanoseconds, static_cast<double>(stamp), 2e6) << frame;
    }
    EXPECT_NEAR(static_cast<double>(step.sampleTime), 600 * 48000.0 + 51200.0, 2.0);
    EXPECT_NEAR(step.rateRatio, 1.0, 1e-6);
}

const AlsaFormat& formatOf(snd_pcm_format_t number)
{
    return *std::ranges::find(AlsaFormat::all, number, &AlsaFormat::number);
}

TEST(AlsaFormat, roundsClipsAndKeepsWhatFits)
{
    struct {
        const char* why;
        float in;
        int32_t s16, s24, s32;
    } const rows[] = {
        {"full scale up", 1.0F, 32767, 8388607, 2147483520},
        {"full scale down", -1.0F, -32768, -8388608, INT32_MIN},
        {"beyond clips", 7.0F, 32767, 8388607, 2147483520},
        {"half a step rounds", -0.5F / 32768.0F, 0, -128, -32768},
        {"nothing", std::nanf(""), 0, 0, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        const auto encoded = [&](snd_pcm_format_t number, int bits) {
            int32_t value = 0;
            formatOf(number).encode(&row.in, 1, reinterpret_cast<std::byte*>(&value), 1, 1);
            return value << (32 - bits) >> (32 - bits); // with its sign
        };
        EXPECT_EQ(encoded(SND_PCM_FORMAT_S16, 16), row.s16);
        EXPECT_EQ(encoded(SND_PCM_FORMAT_S32, 32), row.s32);
        EXPECT_EQ(encoded(SND_PCM_FORMAT_S24, 32), row.s24);
        EXPECT_EQ(encoded(SND_PCM_FORMAT_S24_3LE, 24), row.s24);
    }
    // More channels than the ring has, and fewer.
    const float wide[]{0.1F, 0.5F, 0.2F, -0.5F};
    int16_t narrow[3]{9, 9, 9};
    const AlsaFormat& shorts = formatOf(SND_PCM_FORMAT_S16);
    shorts.encode(wide, 2, reinterpret_cast<std::byte*>(narrow), 1, 2);
    EXPECT_EQ(narrow[1], 6554);
    EXPECT_EQ(narrow[2], 9);
    float back[4]{9, 9, 9, 9};
    shorts.decode(reinterpret_cast<std::byte*>(narrow), 1, back, 2, 2);
    EXPECT_EQ(back[1], 0.0F);
    EXPECT_NEAR(back[2], 0.2F, 1e-4F);
}

} // namespace
