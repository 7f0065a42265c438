#include "FakeUSBBus.h"
#include "USBRegistry.h"

#include <gtest/gtest.h>

namespace {

using dxr::USBAudioEngine, dxr::usbLocationID, dxr::USBRegistry, dxr::USBRegistryContents;

TEST(USBLocationID, isTheBusAndADigitForEachPort)
{
    EXPECT_EQ(usbLocationID("3-1.4"), 0x03140000U);
    EXPECT_EQ(usbLocationID("12-11"), 0x0CB00000U);
    EXPECT_EQ(usbLocationID("1-1.2.3.4.5.6.7"), 0x01123456U) << "deeper than hubs can be";
    for (const char* none : {"usb3", "3-1.4:1.0", "3-", "-1", "3-1..4", "3-99999999999", ""})
        EXPECT_EQ(usbLocationID(none), std::nullopt) << none;
}

std::optional<USBAudioEngine> engineOf(uint32_t card)
{
    std::optional<USBAudioEngine> found;
    USBRegistry::ask([&](const USBRegistryContents& contents) {
        for (const USBAudioEngine& engine : contents.engines())
            if (engine.cardNumber == card)
                found = engine;
        return found.has_value();
    });
    return found;
}

bool isLocated(uint32_t location)
{
    return USBRegistry::ask(
        [=](const USBRegistryContents& contents) { return contents.deviceAtLocation(location) != nullptr; });
}

TEST(USBRegistry, distinguishesUnitsOfOneModel)
{
    FakeUSBBus bus;
    bus.plug("3-1.4", 5, {.serial = " SERIAL1 "});
    bus.plug("3-1.2", 6, {});
    bus.plug("1-9", 7, {.manufacturer = "", .product = "", .serial = ""});
    EXPECT_EQ(engineOf(5)->globalUniqueID, "AppleUSBAudioEngine:Maker:Product:SERIAL1:0");
    EXPECT_EQ(engineOf(5)->serialNumber, "SERIAL1");
    EXPECT_EQ(engineOf(5)->busPath, "pci-0000:00:14.0-usb-0:1.4:1.0");
    EXPECT_EQ(engineOf(6)->globalUniqueID, "AppleUSBAudioEngine:Maker:Product:3120000:0");
    EXPECT_EQ(engineOf(6)->serialNumber, std::nullopt);
    EXPECT_EQ(engineOf(6)->locationID, 0x03120000U);
    EXPECT_EQ(engineOf(7)->globalUniqueID, "AppleUSBAudioEngine:1235:8211:1900000:0") << "nameless";
    EXPECT_TRUE(isLocated(0x03100000)) << "the hub is a device, too";
    EXPECT_FALSE(isLocated(0x03000000)) << "the root is none";

    bus.unplug("3-1.2");
    EXPECT_FALSE(isLocated(0x03120000));
    bus.plug("4-2.1.3", 6, {});
    EXPECT_TRUE(isLocated(0x04213000));
}

TEST(USBRegistry, findsDevicesAndIsEmptyWithoutUdev)
{
    const auto contents = USBRegistryContents::initWithDevices({{1}, {0}, {2}}, {});
    EXPECT_EQ(contents->deviceAtLocation(1), &contents->devices()[0]);
    EXPECT_EQ(contents->deviceAtLocation(0), nullptr) << "0 is no location";

    const FakeUSBBus empty;
    EXPECT_FALSE(isLocated(0x03140000));
    EXPECT_EQ(engineOf(0), std::nullopt);
    USBRegistry::setReader([] { return CXRef<USBRegistryContents>(); });
    EXPECT_FALSE(isLocated(0x03140000));
    USBRegistry::setReader({});
}

} // namespace
