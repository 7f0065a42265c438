#include "DXRDeviceManager.h"
#include "DXRDeviceOverrides.h"
#include "FakeCard.h"
#include "FakeUSBBus.h"
#include "HALIO.h"
#include "PipeWireDriver.h"
#include "PrivateServer.h"

#include <memory>

namespace {

/// Tests the manager with USB sound cards on a simulated bus, added to a server as by a session manager.
class DeviceIdentity : public testing::Test {
protected:
    /// A card on the bus and on the server.
    struct Plugged {
        std::string place;
        std::unique_ptr<FakeCard> card;
    };

    DeviceIdentity() { HALSetHardwareDriver(PipeWireDriver::initWithRemote(server.remote())); }

    /// `arrival` is the suffix that the session manager adds to the name: ".2" for a second card of that
    /// name.
    Plugged plug(const std::string& place, const std::string& arrival = "")
    {
        const uint32_t number = nextCard++;
        bus.plug(place, number, {});
        const FakeCard::Options options{.name = "usb-Maker_Product-00" + arrival,
                                        .microphone = true,
                                        .properties = {{"device.serial", "Maker_Product"},
                                                       {"device.vendor.name", "Maker"},
                                                       {"device.product.name", "Product"},
                                                       {"device.bus-id", "usb-Maker_Product-00"},
                                                       {"device.bus-path", FakeUSBBus::busPath(place)},
                                                       {"device.sysfs.path", bus.cardFolder(place)},
                                                       {"api.alsa.card", std::to_string(number)}}};
        return {place, std::make_unique<FakeCard>(server.remote(), options)};
    }
    void unplug(Plugged& plugged)
    {
        bus.unplug(plugged.place);
        plugged.card.reset();
    }
    /// Waits for the output device with this UID to be connected.
    CXRef<DXRDevice> connected(const std::string& uid)
    {
        CXRef<DXRDevice> found;
        const bool isThere = eventually([&] {
            found = nullptr;
            for (const CXRef<DXRDevice>& device : manager().connectedDevices())
                if (device->deviceUID() == uid && !device->isInput())
                    found = device;
            return bool(found);
        });
        EXPECT_TRUE(isThere) << uid;
        return found;
    }
    static DXRDeviceManager& manager() { return DXRDeviceManager::sharedDeviceManager(); }

    PrivateServer server;
    FakeUSBBus bus;
    uint32_t nextCard = 5;
};

const std::string withoutSerial = "alsa_card.usb-Maker_Product-00:";

TEST_F(DeviceIdentity, keepsAUnitsObjectAndSettingsWhenItMoves)
{
    Plugged unit = plug("3-1.4");
    const CXRef<DXRDevice> device = connected(withoutSerial + "03140000");
    ASSERT_TRUE(device);
    const CXRef<DXRDevice> microphone = manager().counterpartForDevice(device);
    device->setOverride("kept", "name");
    const std::string stored = device->reference()->string();
    EXPECT_EQ(device->reference()->genericUID(), withoutSerial);

    for (const char* place : {"3-2", "1-9.1.3"}) { // another port; another hub of another bus
        unplug(unit);
        ASSERT_TRUE(eventually([&] { return !device->isConnected() && !microphone->isConnected(); }));
        EXPECT_EQ(manager().deviceWithReference(stored), device) << "known while it is away";
        unit = plug(place);
        const bool isBack = eventually([&] { return device->isConnected() && microphone->isConnected(); });
        ASSERT_TRUE(isBack) << place;
        EXPECT_NE(device->reference()->string(), stored);
        EXPECT_EQ(manager().deviceWithReference(stored), device);
        EXPECT_EQ(device->overrideForKey("name"), CXPlist("kept"));
        EXPECT_EQ(DXRDeviceOverrides::initWithDeviceReference(device->reference())->objectForKey("name"),
                  CXPlist("kept"))
            << "for a program that starts now, too";
    }
    EXPECT_EQ(connected(withoutSerial + "01913000"), device);
}

TEST_F(DeviceIdentity, distinguishesTwoUnitsWithoutSerialNumbers)
{
    Plugged first = plug("3-1.4");
    const Plugged second = plug("3-1.2", ".2");
    const CXRef<DXRDevice> one = connected(withoutSerial + "03140000");
    const CXRef<DXRDevice> other = connected(withoutSerial + "03120000");
    ASSERT_TRUE(one && other);
    EXPECT_NE(one, other);
    one->setOverride(1, "unit");
    other->setOverride(2, "unit");
    unplug(first); // only the second in port order is left
    ASSERT_TRUE(eventually([&] { return !one->isConnected(); }));
    EXPECT_TRUE(other->isConnected());
    first = plug("3-1.4");
    EXPECT_EQ(connected(withoutSerial + "03140000"), one);
    EXPECT_EQ(one->overrideForKey("unit"), CXPlist(1));
    EXPECT_EQ(other->overrideForKey("unit"), CXPlist(2));

    // A reference of a third port matches neither device exactly, so it is ambiguous.
    std::string elsewhere = one->reference()->string();
    elsewhere.replace(elsewhere.rfind("03140000"), 8, "03990000");
    EXPECT_EQ(manager().devicesWithReference(elsewhere).size(), 2U);
    EXPECT_EQ(manager().devicesWithReference(other->reference()->string()).size(), 1U);
}

} // namespace
