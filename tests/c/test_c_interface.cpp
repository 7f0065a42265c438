#include "CXRealtime.h"
#include "Eventually.h"

#include <dxr/DXRDeviceManager.h>
#include <dxr/LogSink.h>
#include <dxr/c.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <pthread.h>
#include <set>
#include <span>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

/// The list of all devices. The test frees it, or leaves it to the end of the process.
struct DeviceList {
    dxr_device* const* devices = nullptr;
    size_t count = 0;
    const dxr_status status = dxr_devices(&devices, &count);
};

/// A simulated computer with one loopback device: its outputs are its inputs.
class CInterface : public testing::Test {
protected:
    void simulate(dxr_clock clock = DXR_CLOCK_STEPPED)
    {
        cable.uid = "cable";
        cable.inputs = cable.outputs = 2;
        cable.loops_back = 1;
        cable.has_volume = 1;
        cable.volume = 1.0;
        ASSERT_EQ(dxr_simulated_new(clock, &computer), DXR_OK);
        ASSERT_EQ(dxr_simulated_plug(computer, &cable), DXR_OK);
        ASSERT_EQ(dxr_device_with_uid("cable", DXR_OUTPUT, &output), DXR_OK);
        ASSERT_EQ(dxr_device_with_uid("cable", DXR_INPUT, &input), DXR_OK);
        ASSERT_EQ(dxr_runner_new(&runner), DXR_OK);
    }
    static int keepSilent(const dxr_cycle*, void*) { return 0; }
    /// Adds a node for `device`, or for the default output if null.
    dxr_status add(dxr_device* device, dxr_io io, void* user = nullptr, dxr_sound* sound = nullptr)
    {
        dxr_node node = DXR_INIT(dxr_node);
        node.device = device;
        node.default_of = device ? 0 : DXR_OUTPUT;
        node.io = io;
        node.user = user;
        node.sound = sound;
        return dxr_runner_add(runner, &node);
    }
    void replug()
    {
        ASSERT_EQ(dxr_simulated_unplug(computer, "cable"), DXR_OK);
        ASSERT_EQ(dxr_simulated_settle(computer), DXR_OK);
        ASSERT_EQ(dxr_simulated_plug(computer, &cable), DXR_OK);
        ASSERT_EQ(dxr_simulated_settle(computer), DXR_OK);
    }
    void advance(uint64_t milliseconds) { dxr_simulated_advance(computer, milliseconds * 1'000'000); }

    dxr_simulated_device cable = DXR_INIT(dxr_simulated_device);
    dxr_computer* computer = nullptr;
    dxr_device *input = nullptr, *output = nullptr;
    dxr_runner* runner = nullptr;
};

TEST_F(CInterface, refusesInvalidCallsWithAMessage)
{
    simulate();
    dxr_sound* sound = nullptr;
    ASSERT_EQ(dxr_sound_new(64, 1, 48000.0, 0, &sound), DXR_OK);
    const void* const stale = sound;
    dxr_device* device = nullptr;
    const dxr_device_info* info = nullptr;
    ASSERT_EQ(dxr_device_get_info(output, &info), DXR_OK);
    const auto node = [&](const std::function<void(dxr_node&)>& change) {
        dxr_node made = DXR_INIT(dxr_node);
        made.device = output;
        made.io = keepSilent;
        change(made);
        return dxr_runner_add(runner, &made);
    };
    const auto nodeOfNewerClient = [&](uint64_t field) {
        struct {
            dxr_node node{};
            uint64_t newField = 0;
        } made;
        made.node.size = sizeof made;
        made.node.device = output;
        made.node.io = keepSilent;
        made.newField = field;
        return dxr_runner_add(runner, &made.node);
    };
    dxr_simulated_device shrill = cable;
    shrill.tone = -1.0;
    const uint32_t zero = 0;
    const std::string tooLong = '"' + std::string(600'000, 'x') + '"';
    const std::string tooLongToRead = '"' + std::string(1'200'000, 'x') + '"';
    const std::vector<std::tuple<const char*, dxr_status, dxr_status>> rows = {
        {"handle is null", dxr_device_get_info(nullptr, &info), DXR_ERROR_ARGUMENT},
        {"never was one", dxr_retain(&rows), DXR_ERROR_HANDLE},
        {"node is null", dxr_runner_add(runner, nullptr), DXR_ERROR_ARGUMENT},
        {"json is null", dxr_device_get_setting(output, "key", nullptr), DXR_ERROR_ARGUMENT},
        {"uid is not UTF-8", dxr_device_with_uid("\xC3\x28", DXR_INPUT, &device), DXR_ERROR_TEXT},
        {"not an archived device", dxr_device_from_archive("junk", 4, &device), DXR_ERROR_NOT_FOUND},
        {"volume is not from 0 to 1", dxr_device_set_volume(output, std::nan("")), DXR_ERROR_ARGUMENT},
        {"not JSON", dxr_device_set_setting(output, "key", "{"), DXR_ERROR_TEXT},
        {"too long", dxr_device_set_setting(output, "key", tooLong.c_str()), DXR_ERROR_ARGUMENT},
        {"too long to read", dxr_device_set_setting(output, "key", tooLongToRead.c_str()),
         DXR_ERROR_ARGUMENT},
        {"not a reference", dxr_device_with_reference("{junk}", &device), DXR_ERROR_TEXT},
        {"no device of that", dxr_simulated_set_default(computer, DXR_OUTPUT, "?"), DXR_ERROR_NOT_FOUND},
        {"292 years", dxr_simulated_advance(computer, UINT64_MAX), DXR_ERROR_ARGUMENT},
        {"does not run", dxr_simulated_lose_cycles(computer, "cable", 1), DXR_ERROR_STATE},
        {"", add(nullptr, keepSilent), DXR_OK},
        {"only as the default", dxr_runner_remove(runner, output), DXR_ERROR_NOT_FOUND},
        {"", dxr_runner_remove_default(runner, DXR_OUTPUT), DXR_OK},
        {"size is not the size", node([](dxr_node& n) { n.size = 0; }), DXR_ERROR_ARGUMENT},
        {"channel 0", node([&](dxr_node& n) { n.channels = &zero, n.channel_count = 1; }),
         DXR_ERROR_ARGUMENT},
        {"1 of 2 channels", node([&](dxr_node& n) { n.io = nullptr, n.sound = sound; }), DXR_ERROR_ARGUMENT},
        {"more than 2^31", dxr_sound_new(UINT64_MAX, 1, 48000.0, 0, &sound), DXR_ERROR_ARGUMENT},
        {"more than 4096 channels", dxr_sound_new(1, 4097, 48000.0, 0, &sound), DXR_ERROR_ARGUMENT},
        {"not a frequency", dxr_simulated_plug(computer, &shrill), DXR_ERROR_ARGUMENT},
        {"does not know", nodeOfNewerClient(1), DXR_ERROR_ARGUMENT},
        {"other hardware already", dxr_simulated_new(DXR_CLOCK_STEPPED, &computer), DXR_ERROR_STATE},
        {"", nodeOfNewerClient(0), DXR_OK},
        {"has this device", node([](dxr_node&) {}), DXR_ERROR_STATE},
        {"", dxr_free(info), DXR_OK},
        {"memory was freed", dxr_free(info), DXR_ERROR_HANDLE},
        {"", dxr_release(stale), DXR_OK},
        {"", dxr_runner_start(runner), DXR_OK},
        {"runner runs", dxr_runner_set_format(runner, 64, 0.0), DXR_ERROR_STATE},
    };
    for (const auto& [why, status, wanted] : rows)
        EXPECT_EQ(status, wanted) << why;
    EXPECT_EQ(dxr_release(stale), DXR_ERROR_HANDLE);
    EXPECT_STREQ(dxr_error_text(), "dxr_release: the handle was released, or never was one");
    EXPECT_EQ(dxr_runner_start(reinterpret_cast<dxr_runner*>(output)), DXR_ERROR_HANDLE);
    EXPECT_STREQ(dxr_error_text(), "dxr_runner_start: the handle is of a device, not of a runner");
    std::thread([] { EXPECT_STREQ(dxr_error_text(), "") << "each thread has its own"; }).join();
}

TEST_F(CInterface, logsInUtf8ToACallbackThatCannotCallBack)
{
    std::string logged;
    const auto note = [](const char* line, void* user) {
        *static_cast<std::string*>(user) = line;
        EXPECT_EQ(dxr_set_application("com.example.logger"), DXR_ERROR_THREAD) << "locks may be held";
    };
    ASSERT_EQ(dxr_set_log(note, &logged), DXR_OK);
    dxr::LogSink::log("cannot open '/tmp/\xFF'");
    EXPECT_EQ(dxr_set_log(nullptr, nullptr), DXR_OK);
    EXPECT_EQ(logged, "cannot open '/tmp/\uFFFD'");
    EXPECT_EQ(dxr_set_application("com.example.logger"), DXR_OK);
}

TEST_F(CInterface, describesADeviceAndKeepsItsSettings)
{
    cable.sample_rate = 96000.0;
    simulate();
    const dxr_device_info* info = nullptr;
    ASSERT_EQ(dxr_device_set_volume(output, 0.75), DXR_OK);
    ASSERT_EQ(dxr_device_get_info(output, &info), DXR_OK);
    EXPECT_EQ(std::string(info->uid) + " " + info->transport, "cable virt");
    EXPECT_TRUE(info->is_connected && info->is_default && info->has_volume && info->channels == 2);
    EXPECT_EQ(info->volume, 0.75);
    EXPECT_EQ(info->sample_rate, 96000.0);
    EXPECT_EQ(info->stereo_channels[1], 2U);
    ASSERT_GE(info->sample_rate_count, 2U);
    EXPECT_LT(info->sample_rates[0], info->sample_rates[1]);
    dxr_device* found[3] = {};
    const void* archive = nullptr;
    size_t size = 0;
    EXPECT_EQ(dxr_device_with_reference(info->reference, &found[0]), DXR_OK);
    ASSERT_EQ(dxr_device_archive(output, &archive, &size), DXR_OK);
    EXPECT_EQ(dxr_device_from_archive(archive, size, &found[1]), DXR_OK);
    EXPECT_EQ(dxr_device_counterpart(input, &found[2]), DXR_OK);
    for (const dxr_device* each : found)
        EXPECT_EQ(each, output);

    const char* json = nullptr;
    EXPECT_EQ(dxr_device_set_setting(output, "gain", "[1,2]"), DXR_OK);
    EXPECT_EQ(dxr_device_get_setting(output, "gain", &json), DXR_OK);
    EXPECT_STREQ(json, "[1,2]");
    EXPECT_EQ(dxr_device_setting_keys(output, &json), DXR_OK);
    EXPECT_STREQ(json, "[\"gain\"]");
    EXPECT_EQ(dxr_device_set_setting(output, "gain", "null"), DXR_OK);

    const DeviceList all;
    ASSERT_EQ(all.status, DXR_OK);
    EXPECT_EQ(std::vector(all.devices, all.devices + all.count), (std::vector{output, input}));
    ASSERT_EQ(dxr_simulated_unplug(computer, "cable"), DXR_OK);
    ASSERT_EQ(dxr_simulated_settle(computer), DXR_OK);
    EXPECT_EQ(dxr_device_set_volume(output, 0.5), DXR_ERROR_STATE) << "absent";
}

TEST_F(CInterface, playsAndRecordsSoundsFrameByFrame)
{
    simulate();
    dxr_sound *played = nullptr, *recorded = nullptr;
    float *from = nullptr, *to = nullptr;
    ASSERT_EQ(dxr_sound_new(5000, 2, 48000.0, 0, &played), DXR_OK);
    ASSERT_EQ(dxr_sound_new(9000, 2, 48000.0, 0, &recorded), DXR_OK);
    ASSERT_EQ(dxr_sound_samples(played, &from), DXR_OK);
    ASSERT_EQ(dxr_sound_samples(recorded, &to), DXR_OK);
    for (uint32_t i = 0; i < 10000; ++i)
        from[i] = static_cast<float>(i + 1) / 16384.0F;
    ASSERT_EQ(add(output, nullptr, nullptr, played), DXR_OK);
    ASSERT_EQ(add(input, nullptr, nullptr, recorded), DXR_OK);
    ASSERT_EQ(dxr_runner_start(runner), DXR_OK);
    advance(500);
    uint64_t done = 0;
    EXPECT_EQ(dxr_sound_position(played, &done), DXR_OK);
    EXPECT_EQ(done, 5000U);
    const float* const begin = std::find(to, to + 18000, from[0]);
    ASSERT_LE(begin, to + 8000);
    EXPECT_TRUE(std::equal(from, from + 10000, begin)) << "every frame once, in order";
    EXPECT_TRUE(std::all_of(begin + 10000, static_cast<const float*>(to + 18000),
                            [](float sample) { return sample == 0.0F; }));
}

struct Playing {
    dxr_runner* runner;
    int result;
    int calls = 0;
    bool wasSilent = true, wasRefused = true;
    dxr_status released = DXR_ERROR_INTERNAL;

    static int callback(const dxr_cycle* cycle, void* user)
    {
        Playing& it = *static_cast<Playing*>(user);
        const std::span samples(cycle->samples, cycle->frames * cycle->channels);
        it.wasSilent &= std::ranges::count(samples, 0.0F) == std::ssize(samples);
        std::ranges::fill(samples, 1.0F);
        it.wasRefused &=
            DeviceList().status == DXR_ERROR_THREAD && dxr_runner_stop(it.runner) == DXR_ERROR_THREAD;
        if (++it.calls < 3)
            return 0;
        const CXRealtimeExemption exemption("a lock: the way out for languages that collect garbage");
        it.released = it.result == 0 ? dxr_release(it.runner) : DXR_OK;
        return it.result;
    }
};

TEST_F(CInterface, givesAnAudioCallbackSilenceAndLetsItReleaseTheRunner)
{
    simulate();
    for (const int result : {1, 0}) {
        Playing seen{runner, result};
        ASSERT_EQ(add(nullptr, Playing::callback, &seen), DXR_OK);
        const auto keepBusy = [](void*) { sleepForMilliseconds(20); }; // the thread that would stop it
        ASSERT_EQ(dxr_runner_follow(runner, keepBusy, nullptr), DXR_OK);
        ASSERT_EQ(dxr_runner_start(runner), DXR_OK);
        advance(100);
        EXPECT_EQ(seen.calls, 3) << "none after the one that released it or returned " << result;
        EXPECT_TRUE(seen.wasSilent) << "also when the last cycle was not";
        EXPECT_TRUE(seen.wasRefused) << "what may block";
        EXPECT_EQ(seen.released, DXR_OK);
        EXPECT_EQ(dxr_release(runner), result == 0 ? DXR_ERROR_HANDLE : DXR_OK);
        ASSERT_EQ(dxr_runner_new(&runner), DXR_OK);
    }
}

struct Following {
    dxr_follower* follower = nullptr;
    std::multiset<std::pair<dxr_change, dxr_device*>> changes;
    char thread[16] = "";
    dxr_status released = DXR_ERROR_INTERNAL;

    static void callback(dxr_device* device, dxr_change change, void* user)
    {
        Following& it = *static_cast<Following*>(user);
        pthread_getname_np(pthread_self(), it.thread, sizeof it.thread);
        if (change == DXR_DISCONNECTED || change == DXR_CONNECTED)
            it.changes.insert({change, device});
        if (it.changes.size() == 4) // released in its own callback
            it.released = dxr_release(it.follower);
    }
};

TEST_F(CInterface, reportsChangesOnItsOwnThreadUntilReleased)
{
    simulate();
    Following seen;
    ASSERT_EQ(dxr_follow(Following::callback, &seen, &seen.follower), DXR_OK);
    replug();
    replug();
    EXPECT_STREQ(seen.thread, "dxr.events");
    EXPECT_EQ(seen.released, DXR_OK);
    EXPECT_EQ(seen.changes, (std::multiset<std::pair<dxr_change, dxr_device*>>{{DXR_DISCONNECTED, input},
                                                                               {DXR_DISCONNECTED, output},
                                                                               {DXR_CONNECTED, input},
                                                                               {DXR_CONNECTED, output}}));
    EXPECT_EQ(dxr_release(seen.follower), DXR_ERROR_HANDLE);
    dxr_follower* other = nullptr;
    dxr_change last = DXR_UPDATED;
    const auto keep = [](dxr_device*, dxr_change change, void* user) {
        if (change != DXR_UPDATED)
            *static_cast<dxr_change*>(user) = change;
    };
    ASSERT_EQ(dxr_follow(keep, &last, &other), DXR_OK);
    DXRDeviceManager::queue().sync([&] { // for one update of both changes
        dxr_simulated_unplug(computer, "cable");
        dxr_simulated_plug(computer, &cable);
    });
    ASSERT_EQ(dxr_simulated_settle(computer), DXR_OK);
    EXPECT_EQ(last, DXR_CONNECTED);
    dxr_device* again = nullptr;
    ASSERT_EQ(dxr_device_with_uid("cable", DXR_OUTPUT, &again), DXR_OK);
    EXPECT_EQ(again, output) << "one handle for a device, gone and returned";
    for (const dxr_status released : {DXR_OK, DXR_OK, DXR_ERROR_HANDLE})
        EXPECT_EQ(dxr_release(output), released) << "as often as it was given";
    ASSERT_EQ(dxr_release(other), DXR_OK);

    std::pair<dxr_follower*, int> third{nullptr, 0}; // and the number of its calls
    const auto releaseTooMuch = [](dxr_device* device, dxr_change change, void* user) {
        auto& [follower, calls] = *static_cast<decltype(third)*>(user);
        calls += change == DXR_UPDATED ? 0 : 1;
        dxr_release(device);
        if (calls == 3)
            dxr_release(follower);
    };
    ASSERT_EQ(dxr_follow(releaseTooMuch, &third, &third.first), DXR_OK);
    replug();
    EXPECT_EQ(third.second, 3) << "not for the other direction, which has connected too";
    const DeviceList all;
    dxr_device* const listed[] = {all.devices[0], all.devices[1]};
    EXPECT_EQ(dxr_release(listed[0]), DXR_OK);
    EXPECT_EQ(dxr_free(all.devices), DXR_ERROR_HANDLE);
    EXPECT_EQ(dxr_release(listed[1]), DXR_ERROR_HANDLE) << "released nevertheless";
}

TEST_F(CInterface, aReleaseInAnAudioCallbackEndsPendingCalls)
{
    simulate();
    static std::atomic<int> held, calls; // held: 1 while dxr.events is busy, then 2
    static std::atomic<bool> isReleased;
    held = calls = 0;
    isReleased = false;
    const auto hold = [](dxr_device*, dxr_change, void*) {
        int free = 0;
        held.compare_exchange_strong(free, 1);
        while (held == 1)
            sleepForMilliseconds(1);
    };
    std::pair<dxr_runner*, dxr_follower*> released{runner, nullptr};
    dxr_follower* holder = nullptr;
    ASSERT_EQ(dxr_follow(hold, nullptr, &holder), DXR_OK);
    ASSERT_EQ(dxr_follow([](auto...) { ++calls; }, nullptr, &released.second), DXR_OK);
    ASSERT_EQ(dxr_simulated_unplug(computer, "cable"), DXR_OK);
    ASSERT_EQ(dxr_simulated_plug(computer, &cable), DXR_OK);
    ASSERT_TRUE(eventually([] { return held == 1; }));
    DXRDeviceManager::queue().sync([] {});
    ASSERT_EQ(dxr_runner_follow(
                  runner, [](void*) { ++calls; }, nullptr),
              DXR_OK);
    const auto release = [](const dxr_cycle*, void* user) {
        const auto& [its, follower] = *static_cast<decltype(released)*>(user);
        const CXRealtimeExemption exemption("a lock: the way out for languages that collect garbage");
        const dxr_status status = static_cast<dxr_status>(dxr_release(its) | dxr_release(follower));
        isReleased = true;
        return static_cast<int>(status);
    };
    ASSERT_EQ(add(output, release, &released), DXR_OK);
    ASSERT_EQ(dxr_runner_start(runner), DXR_OK);
    EXPECT_TRUE(eventually([&] { // the runner may have to wait for the new device
        advance(20);
        return isReleased.load();
    }));
    EXPECT_EQ(dxr_release(released.second), DXR_ERROR_HANDLE) << "released by the callback";
    held = 2;
    EXPECT_EQ(dxr_release(holder), DXR_OK);
    EXPECT_EQ(dxr_simulated_settle(computer), DXR_OK);
    EXPECT_EQ(calls, 0);
    ASSERT_EQ(dxr_runner_new(&runner), DXR_OK);
}

TEST_F(CInterface, aRunnerReportsItsStateAndRefusedStarts)
{
    simulate();
    std::atomic<int> notices{0};
    const auto count = [](void* user) { ++*static_cast<std::atomic<int>*>(user); };
    ASSERT_EQ(dxr_runner_follow(runner, count, &notices), DXR_OK);
    ASSERT_EQ(add(output, keepSilent), DXR_OK);
    ASSERT_EQ(dxr_simulated_fail(computer, 1, 0), DXR_OK);
    ASSERT_EQ(dxr_runner_start(runner), DXR_OK);
    dxr_runner_state state = DXR_INIT(dxr_runner_state);
    ASSERT_EQ(dxr_runner_get_state(runner, &state), DXR_OK);
    EXPECT_TRUE(state.is_running);
    EXPECT_STRNE(state.error, "");
    ASSERT_EQ(dxr_simulated_fail(computer, 0, 0), DXR_OK);
    ASSERT_EQ(dxr_runner_stop(runner), DXR_OK);
    ASSERT_EQ(dxr_runner_start(runner), DXR_OK);
    advance(100);
    ASSERT_EQ(dxr_runner_get_state(runner, &state), DXR_OK);
    EXPECT_STREQ(state.error, "");
    EXPECT_EQ(state.frames, 512U);
    EXPECT_EQ(state.sample_rate, 48000.0);
    EXPECT_GE(state.cycles, 8U);
    EXPECT_EQ(state.late_cycles, 0U) << "on a stepped clock";
    dxr_latency latency = DXR_INIT(dxr_latency);
    ASSERT_EQ(dxr_runner_get_latency(runner, output, &latency), DXR_OK);
    EXPECT_EQ(latency.block_frames, 512.0) << "a block is played one block later";
    EXPECT_GE(latency.frames, latency.block_frames + latency.cycle_frames);
    EXPECT_NEAR(latency.seconds, latency.frames / 48000.0, 1e-9);
    EXPECT_EQ(dxr_runner_get_latency(runner, input, &latency), DXR_ERROR_STATE);
    EXPECT_TRUE(eventually([&] { return notices > 0; })) << "on a thread of its own";
    ASSERT_EQ(dxr_runner_follow(runner, nullptr, nullptr), DXR_OK);

    double converting[2] = {};
    for (const dxr_quality quality : {DXR_QUALITY_STANDARD, DXR_QUALITY_HIGH}) {
        ASSERT_EQ(dxr_runner_stop(runner), DXR_OK);
        ASSERT_EQ(dxr_runner_set_format(runner, 256, 22050.0), DXR_OK); // the device does not have this rate
        ASSERT_EQ(dxr_runner_set_quality(runner, quality), DXR_OK);
        ASSERT_EQ(dxr_runner_start(runner), DXR_OK);
        advance(100);
        ASSERT_EQ(dxr_runner_get_state(runner, &state), DXR_OK);
        EXPECT_TRUE(state.frames == 256 && state.sample_rate == 22050.0);
        ASSERT_EQ(dxr_runner_get_latency(runner, output, &latency), DXR_OK);
        converting[quality] = latency.converter_frames;
    }
    EXPECT_GT(converting[DXR_QUALITY_HIGH], converting[DXR_QUALITY_STANDARD] + 16.0);
}

TEST_F(CInterface, isRefusedInTheChildOfAFork)
{
    simulate(DXR_CLOCK_REAL_TIME);
    ASSERT_EQ(add(output, keepSilent), DXR_OK);
    ASSERT_EQ(dxr_runner_start(runner), DXR_OK);
    const pid_t child = fork();
    if (child == 0) {
        const bool isRefused = DeviceList().status == DXR_ERROR_FORKED &&
                               std::strstr(dxr_error_text(), "fork()") &&
                               dxr_release(runner) == DXR_ERROR_FORKED && dxr_version();
#ifdef DXR_SANITIZED // the leak check at exit reports memory of the parent's other threads
        _exit(isRefused ? 0 : 1);
#else
        std::exit(isRefused ? 0 : 1); // runs the exit handlers, as in a program
#endif
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(dxr_runner_stop(runner), DXR_OK) << "the parent goes on";
}

TEST_F(CInterface, takesManyThreadsAtOnce)
{
    simulate(DXR_CLOCK_REAL_TIME);
    ASSERT_EQ(add(output, keepSilent), DXR_OK);
    std::atomic<int> stray{0}; // calls of released followers
    const auto followAndList = [&](const std::stop_token& isOver) {
        while (!isOver.stop_requested()) {
            std::pair<std::atomic<bool>, std::atomic<int>*> watch{false, &stray}; // whether it is released
            dxr_follower* follower = nullptr;
            const auto note = [](dxr_device*, dxr_change, void* user) {
                const auto& [isReleased, calls] = *static_cast<decltype(watch)*>(user);
                *calls += isReleased ? 1 : 0;
            };
            EXPECT_EQ(dxr_follow(note, &watch, &follower), DXR_OK);
            const DeviceList all;
            EXPECT_EQ(all.status, DXR_OK);
            EXPECT_EQ(dxr_free(all.devices), DXR_OK);
            EXPECT_EQ(dxr_release(follower), DXR_OK);
            watch.first = true;
        }
    };
    std::vector<std::jthread> threads;
    for (int i = 0; i < 3; ++i)
        threads.emplace_back(followAndList);
    for (int round = 0; round < 40; ++round) {
        EXPECT_EQ(dxr_runner_start(runner), DXR_OK);
        EXPECT_EQ(dxr_simulated_unplug(computer, "cable"), DXR_OK);
        EXPECT_EQ(dxr_simulated_plug(computer, &cable), DXR_OK);
        EXPECT_EQ(dxr_runner_stop(runner), DXR_OK);
    }
    threads.clear();
    EXPECT_EQ(stray, 0);
}

TEST_F(CInterface, aRunnerMayBeReleasedWhileOtherThreadsUseIt)
{
    cable.frames = 64;
    simulate(DXR_CLOCK_REAL_TIME);
    std::pair<std::atomic<bool>, std::atomic<int>> stray{false, 0}; // whether released, calls since
    const auto note = [](const dxr_cycle*, void* user) {
        auto& [isReleased, calls] = *static_cast<decltype(stray)*>(user);
        calls += isReleased ? 1 : 0;
        return 0;
    };
    const auto read = [&] {
        dxr_runner_state state = DXR_INIT(dxr_runner_state);
        while (dxr_runner_get_state(runner, &state) == DXR_OK)
            dxr_runner_set_quality(runner, DXR_QUALITY_HIGH);
    };
    for (int round = 0; round < 50; ++round) {
        stray.first = false;
        ASSERT_EQ(dxr_runner_new(&runner), DXR_OK);
        ASSERT_EQ(add(output, note, &stray), DXR_OK);
        ASSERT_EQ(dxr_runner_start(runner), DXR_OK);
        std::thread threads[] = {std::thread(read), std::thread(read)};
        sleepForMilliseconds(2);
        EXPECT_EQ(dxr_release(runner), DXR_OK);
        stray.first = true;
        for (std::thread& thread : threads)
            thread.join();
    }
    EXPECT_EQ(stray.second, 0);
}

} // namespace
