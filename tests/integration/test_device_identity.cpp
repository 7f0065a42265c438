#include "DXRDeviceManager.h"
#include "DXRDeviceOverrides.h"
#include "FakeCard.h"
#include "FakeUSBBus.h"
#include "HALIO.h"
#include "PipeWireDriver.h"
#include "PrivateServer.h"

namespace {

// A USB sound card without a serial number on a simulated bus, added to a server as by a session manager.
TEST(DeviceIdentity, keepsAUnitsObjectAndSettingsWhenItMoves)
{
    const PrivateServer server;
    FakeUSBBus bus;
    HALSetHardwareDriver(PipeWireDriver::initWithRemote(server.remote()));
    DXRDeviceManager& manager = DXRDeviceManager::sharedDeviceManager();
    CXRef<DXRDevice> device, microphone;
    std::string stored; // the first reference
    uint32_t number = 5;
    const std::pair<std::string, std::string> places[] = {
        {"3-1.4", "03140000"}, {"3-2", "03200000"}, {"1-9.1.3", "01913000"}}; // a port, another, another bus
    for (const auto& [place, location] : places) {
        const std::string withoutSerial = "alsa_card.usb-Maker_Product-00:", uid = withoutSerial + location;
        bus.plug(place, number, {});
        const FakeCard::Options options{.name = "usb-Maker_Product-00",
                                        .microphone = true,
                                        .properties = {{"device.serial", "Maker_Product"},
                                                       {"device.vendor.name", "Maker"},
                                                       {"device.product.name", "Product"},
                                                       {"device.bus-id", "usb-Maker_Product-00"},
                                                       {"device.bus-path", FakeUSBBus::busPath(place)},
                                                       {"device.sysfs.path", bus.cardFolder(place)},
                                                       {"api.alsa.card", std::to_string(number++)}}};
        auto card = std::make_unique<FakeCard>(server.remote(), options);
        CXRef<DXRDevice> found;
        ASSERT_TRUE(eventually([&] {
            found = manager.deviceWithDeviceUID(uid, false);
            return found && found->isConnected() && found->deviceUID() == uid;
        })) << uid;
        if (!device) {
            device = found;
            microphone = manager.counterpartForDevice(device);
            stored = device->reference()->string();
            device->setOverride("kept", "name");
            EXPECT_EQ(device->reference()->genericUID(), withoutSerial);
        }
        EXPECT_EQ(found, device);
        EXPECT_EQ(manager.deviceWithReference(stored), device);
        EXPECT_EQ(device->overrideForKey("name"), CXPlist("kept"));
        EXPECT_EQ(DXRDeviceOverrides::initWithDeviceReference(device->reference())->objectForKey("name"),
                  CXPlist("kept"))
            << "for a program that starts now, too";
        ASSERT_TRUE(eventually([&] { return microphone->isConnected(); }));
        bus.unplug(place);
        card.reset();
        ASSERT_TRUE(eventually([&] { return !device->isConnected() && !microphone->isConnected(); }));
        EXPECT_EQ(manager.deviceWithReference(stored), device) << "known while it is away";
    }
}

} // namespace
