#include "AudioHardware.h"
#include "HALVolume.h"
#include "PipeWireNaming.h"
#include "PipeWirePods.h"
#include "PipeWireTimeline.h"
#include "USBRegistry.h"

#include <gtest/gtest.h>

#include <cmath>
#include <spa/param/audio/format.h>
#include <spa/param/param.h>
#include <spa/pod/pod.h>

namespace {

std::string uidOf(const PipeWireProperties& node, const PipeWireProperties* card = nullptr,
                  bool isWholeCard = false)
{
    return pipeWireUID({node, card}, isWholeCard);
}

TEST(PipeWirePods, aChoiceThatIsTooShortCountsAsMissing)
{
    const struct {
        spa_pod_object object{{sizeof(spa_pod_object_body) + 24, SPA_TYPE_Object},
                              {SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat}};
        uint32_t key = SPA_FORMAT_AUDIO_rate, flags = 0;
        spa_pod choice{8, SPA_TYPE_Choice};
        uint32_t type = SPA_CHOICE_Enum, choiceFlags = 0;
    } format{};
    EXPECT_TRUE(pipeWireParseRates(&format.object.pod).empty());
}

TEST(PipeWireNaming, makesUIDsThatOutliveTheOrderOfArrival)
{
    const PipeWireProperties pci{{"device.name", "alsa_card.pci-0000_00_1f.3"}, {"device.api", "alsa"}};
    const PipeWireProperties secondUSB{{"device.name", "alsa_card.usb-Maker_Product_S1-00.2"},
                                       {"device.bus-id", "usb-Maker_Product_S1-00"},
                                       {"device.api", "alsa"},
                                       {"device.bus", "usb"},
                                       {"device.serial", "Maker_Product_S1"},
                                       {"device.vendor.name", "Maker"},
                                       {"device.product.name", "Product"}};
    const std::string output = "alsa_output.", pciName = "pci-0000_00_1f.3",
                      usbName = "usb-Maker_Product_S1-00";
    struct {
        const char* why;
        const PipeWireProperties* card;
        bool isWholeCard;
        std::string node, uid;
    } const rows[] = {
        {"a user's own name stays", nullptr, false, "mix.2", "mix.2"},
        {"tenth of its name", nullptr, false, output + "x.stereo.10", output + "x.stereo"},
        {"a sub-device", nullptr, false, output + "x.playback.0.2", output + "x.playback.0.2"},
        {"the function of a PCI device", &pci, true, "", "alsa_card." + pciName},
        {"and in a node's name", &pci, false, output + pciName + ".stereo", output + pciName + ".stereo"},
        {"the card's number", &secondUSB, true, "", "alsa_card." + usbName},
        {"in its node's name", &secondUSB, false, output + usbName + ".2.stereo",
         output + usbName + ".stereo"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(uidOf({{"node.name", row.node}}, row.card, row.isWholeCard), row.uid) << row.why;

    EXPECT_FALSE(uidOf({}).empty());
    EXPECT_EQ(uidOf({{"node.name", "caf\xE9"}}), "caf\xEF\xBF\xBD");
}

TEST(PipeWireNaming, distinguishesUSBDevicesWithoutASerialNumberByTheirPlace)
{
    PipeWireProperties card{{"device.name", "alsa_card.usb-Maker_Product-00"},
                            {"device.bus", "usb"},
                            {"device.vendor.name", "Maker"},
                            {"device.product.name", "Product"},
                            {"device.serial", "Maker_Product"},
                            {"device.sysfs.path", "/devices/pci0000:00/0000:00:14.0/usb3/3-1/3-1.4/3-1.4.2/"
                                                  "3-1.4.2:1.0/sound/card5"}};
    EXPECT_EQ(uidOf({}, &card, true), "alsa_card.usb-Maker_Product-00:03142000");
    card.set("device.sysfs.path", "");
    card.set("device.bus-path", "pci-0000:00:14.0-usb-0:1.4.2:1.0");
    EXPECT_EQ(uidOf({}, &card, true), "alsa_card.usb-Maker_Product-00:00142000");
    card.set("device.serial", "Maker_Product_0815");
    EXPECT_EQ(uidOf({}, &card, true), "alsa_card.usb-Maker_Product-00");

    // The operating system's information about the bus takes precedence.
    using dxr::USBRegistry;
    const auto put = [](uint32_t location, std::optional<std::string> serial, std::string busPath) {
        USBRegistry::setReader([=] {
            return dxr::USBRegistryContents::initWithDevices({{location, serial}},
                                                             {{"", serial, location, 5, busPath}});
        });
    };
    put(0x07142000, {}, "pci-0000:00:14.0-usb-0:1.4.2:1.0");
    EXPECT_EQ(uidOf({}, &card, true), "alsa_card.usb-Maker_Product-00:07142000") << "by its bus path";
    put(0x07142000, "0815", "pci-0000:00:14.0-usb-0:1.4.2:1.0");
    EXPECT_EQ(uidOf({}, &card, true), "alsa_card.usb-Maker_Product-00") << "it has a serial number";
    card.set("device.serial", "Maker_Product");
    card.set("api.alsa.card", "5");
    put(0x07142000, {}, "");
    EXPECT_EQ(uidOf({}, &card, true), "alsa_card.usb-Maker_Product-00:07142000") << "by its number";
    put(0x07143000, {}, "");
    EXPECT_EQ(uidOf({}, &card, true), "alsa_card.usb-Maker_Product-00:00142000") << "another computer's";
    USBRegistry::setReader({});

    EXPECT_EQ(pipeWireUSBLocation("/devices/usb12/12-11.1/12-11.1:1.0"), 0x0CB10000U);
    EXPECT_EQ(pipeWireUSBLocation("/devices/pci0000:00/0000:00:1f.3/sound/card0"), std::nullopt);
    EXPECT_EQ(pipeWireUSBLocation("usb-:"), std::nullopt);
    EXPECT_EQ(pipeWireUSBLocation(std::string(100000, '/')), std::nullopt);
}

TEST(PipeWireNaming, mapsTheTransport)
{
    const std::pair<PipeWireProperties, uint32_t> rows[] = {
        {{{"device.bus", "usb"}, {"device.api", "alsa"}}, kAudioDeviceTransportTypeUSB},
        {{{"device.bus", "pci"}, {"device.api", "alsa"}}, kAudioDeviceTransportTypePCI},
        {{{"device.bus", "pci"}, {"device.profile.name", "hdmi-stereo-extra2"}},
         kAudioDeviceTransportTypeHDMI},
        {{{"device.api", "bluez5"}}, kAudioDeviceTransportTypeBluetooth},
        {{{"node.name", "raop_sink.livingroom"}}, kAudioDeviceTransportTypeAirPlay},
        {{{"node.name", "raop-sink-12-1"}, {"node.virtual", "true"}}, kAudioDeviceTransportTypeAirPlay},
        {{{"node.network", "true"}}, kAudioDeviceTransportTypeNetwork},
        {{{"device.api", "alsa"}}, kAudioDeviceTransportTypeBuiltIn},
        {{{"node.virtual", "true"}}, kAudioDeviceTransportTypeVirtual},
        {{}, kAudioDeviceTransportTypeVirtual},
    };
    for (const auto& [node, transport] : rows)
        EXPECT_EQ(pipeWireTransportType({node, nullptr}), transport) << node["device.bus"];
}

TEST(PipeWireNaming, findsTheLatencyOfANetworkNode)
{
    const struct {
        const char* why;
        std::string isNetwork, mediaClass, latency, milliseconds;
        double seconds;
    } rows[] = {
        {"a receiver asks for cycles of half its buffer", "true", "Audio/Source", "1200/48000", "", 0.05},
        {"a sender for those of a packet", "true", "Audio/Sink", "480/48000", "", 0.01},
        {"as its properties have it", "true", "", "1/2", "30", 0.03},
        {"of another device it is only a request", "false", "", "1200/48000", "", 0.0},
        {"nonsense", "true", "Audio/Sink", "1200/0", "", 0.0},
    };
    for (const auto& row : rows) {
        const PipeWireProperties node{{"node.network", row.isNetwork},
                                      {"rtp.session", "A"},
                                      {"media.class", row.mediaClass},
                                      {"node.latency", row.latency},
                                      {"sess.latency.msec", row.milliseconds}};
        EXPECT_DOUBLE_EQ(pipeWireNetworkSeconds({node, nullptr}), row.seconds) << row.why;
    }
}

TEST(HALVolume, showsCubeRootsAndMovesAllChannelsInBalance)
{
    HALVolume volume;
    EXPECT_EQ(volume.mainScalar(), std::nullopt);
    volume.setAmplitudes({0.125F, 0.001F, 8.0F});
    EXPECT_EQ(volume.mainScalar(), 1.0F) << "louder than full reads as full";
    volume.setAmplitudes({0.125F, 0.001F});
    EXPECT_FLOAT_EQ(*volume.mainScalar(), 0.5F);
    EXPECT_FLOAT_EQ(*volume.channelScalars()[1], 0.1F);
    EXPECT_FLOAT_EQ(volume.amplitudesAfter(0, 1.0F)[1], 0.008F);
    EXPECT_FLOAT_EQ(volume.amplitudesAfter(2, 0.5F)[1], 0.125F);
    volume.setAmplitudes(volume.amplitudesAfter(0, 0.0F));
    EXPECT_EQ(volume.mainScalar(), 0.0F);
    volume.setAmplitudes(volume.amplitudesAfter(0, 0.5F));
    EXPECT_FLOAT_EQ(*volume.channelScalars()[1], 0.1F) << "the balance survives silence";
    for (const float strange : {INFINITY, NAN}) {
        volume.setAmplitudes({0.5F, strange});
        volume.setAmplitudes({strange, strange});
        EXPECT_FLOAT_EQ(volume.amplitudesAfter(0, 1.0F)[1], 0.008F) << "and " << strange;
    }
    for (int i = 0; i <= 1000; ++i) {
        volume.setAmplitudes(volume.amplitudesAfter(0, static_cast<float>(i) / 1000.0F));
        ASSERT_EQ(volume.mainScalar(), static_cast<float>(i) / 1000.0F) << "what is written is read";
    }
}

TEST(PipeWireTimeline, neverGoesBackAndReportsLosses)
{
    PipeWireTimeline timeline;
    const auto at = [&](uint32_t clock, uint64_t position, uint64_t milliseconds, uint32_t frames = 480) {
        const PipeWireTimeline::Step step =
            timeline.advance({clock, position, milliseconds * 1'000'000, frames, 48000});
        return std::pair(step.sampleTime, step.lostFrames);
    };
    using Step = std::pair<uint64_t, bool>;
    EXPECT_EQ(at(1, 7000, 1000), Step(0, false));
    EXPECT_EQ(at(1, 7480, 1010), Step(480, false));
    EXPECT_EQ(at(1, 8440, 1030), Step(1440, true)) << "one cycle missing";
    EXPECT_EQ(at(1, 8920, 1040), Step(1920, false));
    const PipeWireTimeline::Clock again{1, 8920, 1'040'000'000, 480, 48000};
    EXPECT_TRUE(timeline.advance(again).wasCounted) << "the missing one comes after all, with a later clock";
    EXPECT_EQ(at(1, 9400, 1050, 240), Step(2400, false))
        << "a shorter cycle begins where the longer one ended";
    EXPECT_EQ(at(2, 0, 1055), Step(2640, false)) << "another clock, without a gap in time";
    EXPECT_EQ(at(2, 480, 1065), Step(3120, false));
    EXPECT_EQ(at(3, 99, 1115), Step(5520, true)) << "another clock, 50 ms after the last";
    EXPECT_EQ(at(3, 10, 1116), Step(6000, false)) << "a clock that was set back";
    EXPECT_EQ(at(3, UINT64_MAX - 5, 1117), Step(6480, false)) << "or far ahead";
    timeline.pause();
    EXPECT_EQ(at(3, 0, 9000), Step(6960, false)) << "a stop is no loss";
    EXPECT_EQ(at(3, 0, 9000), Step(7440, false)) << "a clock that stands still";
}

} // namespace
