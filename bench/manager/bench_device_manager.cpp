// How does the cost of maintaining the device list grow with the number of connected devices and of archived
// ones? Users notice the first listing when a program starts, and events as the delay between plugging a
// device in and seeing it in a menu.
//
// Each row also shows the cost of the queries alone that any observer of the list must send to the hardware
// each time (UID, channels, bus), without creating objects, names or references.

#include "Comparison.h"
#include "DXRDeviceManager.h"
#include "QDL.h"
#include "simulated.h"

#include <cstdlib>
#include <filesystem>
#include <semaphore>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int rounds = 21;

SimulatedDeviceBuilder deviceNumber(const std::string& kind, int number)
{
    SimulatedDeviceBuilder device = aDevice();
    device.uid(kind + "-" + std::to_string(number))
        .name("USB Audio " + std::to_string(number % 16)) // some names are shared
        .manufacturer("Maker")
        .modelUID("1234:5678")
        .transport(kAudioDeviceTransportTypePCI)
        .outputs(2)
        .volume(HALDirection::Output, 0.5F)
        .mute(HALDirection::Output, false);
    if (number % 2 == 0)
        device.inputs(2);
    return device;
}

template <class Act> double milliseconds(const Act& act)
{
    const uint64_t start = nowNanoseconds();
    act();
    return static_cast<double>(nowNanoseconds() - start) / 1e6;
}

template <class Act> double medianMilliseconds(const Act& act)
{
    std::vector<double> all;
    for (int round = 0; round < rounds; ++round)
        all.push_back(milliseconds([&] { act(round); }));
    std::ranges::sort(all);
    return percentile(all, 0.5);
}

void askEveryDevice()
{
    uint32_t count = 0;
    AudioObjectID* const list = QDLAudioDeviceIDList(&count);
    size_t values = 0;
    for (uint32_t i = 0; i < count; ++i) {
        values += QDLAudioDeviceUIDFromDeviceID(list[i]).has_value() ? 1 : 0;
        values += QDLAudioDeviceChannelCount(list[i], true) + QDLAudioDeviceChannelCount(list[i], false);
        values += QDLAudioDeviceTransportTypeFromDeviceID(list[i]);
    }
    std::free(list);
    [[maybe_unused]] static volatile size_t kept = 0;
    kept = values;
}

/// Archives `count` devices that are not connected.
void archiveDevices(DXRDeviceManager& manager, int count)
{
    for (int i = 0; i < count; ++i) {
        const std::string text = R"(DXRDevice:{"vn":1,"c":2,"n":"Gone","ref":"{\"uid\":\"gone-)" +
                                 std::to_string(i) + R"(\",\"i\":false}"})";
        manager.deviceFromArchive(std::as_bytes(std::span(text)));
    }
}

/// Measures one row of the table. Runs in a child process, because a process has only one hardware driver and
/// one manager.
void measure(int count, int archivedCount)
{
    const CXRef<SimulatedHardware> hal = SimulatedHardware::init(SimulatedClock::Stepped);
    HALSetHardwareDriver(hal);
    for (int i = 0; i < count; ++i)
        hal->plug(deviceNumber("device", i));
    hal->settle();
    const double firstListing = milliseconds([] { DXRDeviceManager::sharedDeviceManager(); });
    DXRDeviceManager& manager = DXRDeviceManager::sharedDeviceManager();
    archiveDevices(manager, archivedCount);
    DXRDeviceManager::queue().sync([] {});

    std::counting_semaphore<> notified(0);
    manager.addDeviceNotifier(nullptr, [&](const auto& connected, const auto& disconnected, const auto&) {
        if (!connected.empty() || !disconnected.empty())
            notified.release();
    });
    const double update = medianMilliseconds([&](int) {
        manager.setNeedsDevicesUpdate(true);
        DXRDeviceManager::queue().sync([] {});
    });
    const double plugNew = medianMilliseconds([&](int round) {
        hal->plug(deviceNumber("new", round));
        notified.acquire();
    });
    const double unplug = medianMilliseconds([&](int round) {
        hal->unplug("new-" + std::to_string(round));
        notified.acquire();
    });
    const double replug = medianMilliseconds([&](int round) {
        hal->plug(deviceNumber("new", round));
        notified.acquire();
    });
    const double questions = medianMilliseconds([](int) { askEveryDevice(); });
    std::printf("%8d %9d %14.2f %10.3f %10.3f %10.3f %10.3f %16.3f\n", count, archivedCount, firstListing,
                update, plugNew, unplug, replug, questions);
}

} // namespace

int main(int argumentCount, char** arguments) // arguments: device counts that replace the default ones
{
    std::vector<int> counts{10, 100, 1000, 5000};
    if (argumentCount > 1)
        counts.clear();
    for (int i = 1; i < argumentCount; ++i)
        counts.push_back(std::max(1, std::atoi(arguments[i])));
    const std::filesystem::path data =
        std::filesystem::temp_directory_path() / ("dxr-bench-data-" + std::to_string(getpid()));
    setenv("XDG_DATA_HOME", data.c_str(), 1);
    std::printf("Milliseconds; medians of %d but for the first listing.\n"
                "%8s %9s %14s %10s %10s %10s %10s %16s\n",
                rounds, "devices", "archived", "first listing", "update", "plug", "unplug", "replug",
                "bare questions");
    int failures = 0;
    for (const int count : counts) {
        for (const int archivedCount : {0, count}) {
            std::fflush(stdout);
            const pid_t child = fork();
            if (child == 0) {
                measure(count, archivedCount);
                std::fflush(stdout);
                std::_Exit(0);
            }
            int status = 0;
            waitpid(child, &status, 0);
            failures += status == 0 ? 0 : 1;
        }
    }
    std::error_code ignored;
    std::filesystem::remove_all(data, ignored);
    return failures;
}
