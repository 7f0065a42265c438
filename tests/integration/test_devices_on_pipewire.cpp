#include "DXRDeviceManager.h"
#include "DxrOnPipeWire.h"
#include "FakeCard.h"
#include "MainQueue.h"

#include <csignal>
#include <functional>
#include <thread>

namespace {

using DevicesOnPipeWire = DxrOnPipeWire;

bool eventually(const std::function<bool()>& condition)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
        dxr::MainQueue::shared().drain();
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

/// What `dxr watch --identity` printed in brackets in the last line that has `words`.
std::string identityAfter(const std::string& output, const std::string& words)
{
    const size_t line = output.rfind(words);
    const size_t begin = line == std::string::npos ? line : output.find('[', line);
    const size_t end = begin == std::string::npos ? begin : output.find("]\n", begin);
    return end == std::string::npos ? "" : output.substr(begin, end - begin);
}

TEST_F(DevicesOnPipeWire, keepsItsObjectsWhileAllKindsOfThingsHappen)
{
    auto card = std::make_unique<FakeCard>(server.remote(), FakeCard::Options{.name = "card"});
    ToolProcess watch({"watch", "--identity"});
    ASSERT_TRUE(watch.waitFor("present") && watch.waitFor("]\n")) << watch.output();
    const std::string identity = identityAfter(watch.output(), "present");
    ASSERT_TRUE(identity.starts_with("[output 0x")) << watch.output();
    card.reset();
    ASSERT_TRUE(watch.waitFor("disconnected")) << watch.output();
    card = std::make_unique<FakeCard>(server.remote(), FakeCard::Options{.name = "card"});
    ASSERT_TRUE(watch.waitFor(" connected ") && watch.waitFor("]\n")) << watch.output();
    EXPECT_EQ(identityAfter(watch.output(), " connected "), identity);

    card->setHeadphonesPlugged(true);
    card->setRoute(FakeCard::Headphones);
    EXPECT_TRUE(watch.waitFor("output source ")) << watch.output();

    VirtualDevices devices(server.remote());
    for (const char* name : {"one", "two"}) {
        devices.plug({.name = name, .properties = {{"node.description", "USB Audio"}}});
        EXPECT_TRUE(watch.waitFor(std::string("48 kHz  ") + name)) << watch.output();
    }
    EXPECT_TRUE(watch.waitFor("output display name USB Audio -> USB Audio 1")) << watch.output();
    devices.view("one").setVolumes({0.125F, 0.125F}); // by another client, in amplitude
    EXPECT_TRUE(watch.waitFor("output volume 100% -> 50%")) << watch.output();
    EXPECT_EQ(runTool({"set", "USB Audio 2", "--default"}).status, 0);
    EXPECT_TRUE(watch.waitFor("output: USB Audio 2")) << watch.output();
    const ToolResult ambiguous = runTool({"info", "usb audio"});
    EXPECT_EQ(ambiguous.status, 1);
    EXPECT_NE(ambiguous.errors.find("USB Audio 2"), std::string::npos) << ambiguous.errors;
    devices.unplug("two");
    EXPECT_TRUE(watch.waitFor("output display name USB Audio 1 -> USB Audio")) << watch.output();
    watch.signal(SIGINT);
    EXPECT_EQ(watch.finish(), 0) << watch.errors();
}

TEST_F(DevicesOnPipeWire, doesNotJumpBackWhileASliderMoves)
{
    VirtualDevices devices(server.remote());
    devices.plug({.name = "sink"});
    DXRDeviceManager& manager = DXRDeviceManager::sharedDeviceManager();
    CXRef<DXRDevice> sink;
    ASSERT_TRUE(
        eventually([&] { return (sink = manager.deviceWithDeviceUID("sink", false)) && sink->hasVolume(); }));
    std::vector<double> seen;
    const auto observation = sink->kvo()->observe("volume", [&](const std::string&, DXRKVOChange change) {
        if (change == DXRKVOChange::Did)
            seen.push_back(sink->volume());
    });
    for (int i = 1; i <= 100; ++i) {
        EXPECT_TRUE(sink->setVolume(i / 200.0));
        dxr::MainQueue::shared().drain();
        EXPECT_EQ(sink->volume(), i / 200.0);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    const size_t count = seen.size();
    EXPECT_EQ(count, 100U);
    EXPECT_TRUE(std::ranges::is_sorted(seen));
    // It stays where it is when the settling is over, but for what a float makes of it.
    const auto over = std::chrono::steady_clock::now() + std::chrono::milliseconds(600);
    eventually([&] { return std::chrono::steady_clock::now() > over; });
    EXPECT_NEAR(sink->volume(), 0.5, 1e-4);
    for (size_t i = count; i < seen.size(); ++i)
        EXPECT_NEAR(seen[i], 0.5, 1e-4);
    // Another client's change comes in as soon as it is made.
    devices.view("sink").setVolumes({0.015625F, 0.015625F});
    EXPECT_TRUE(eventually([&] { return std::fabs(sink->volume() - 0.25) < 1e-4; }));
}

} // namespace
