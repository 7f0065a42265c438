#include "CXValue.h"
#include "DXRDeviceReference.h"
#include "DXRDeviceReferenceIndex.h"
#include "JRCoreGenericUID.h"
#include "USBRegistry.h"
#include "simulated.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

using dxr::USBAudioEngine;
using dxr::USBDevice;
using dxr::USBRegistry;
using dxr::USBRegistryContents;

constexpr uint32_t usb = kAudioDeviceTransportTypeUSB;
constexpr uint32_t displayPort = kAudioDeviceTransportTypeDisplayPort;

CXRef<DXRDeviceReference> parsed(std::string_view text)
{
    return DXRDeviceReference::initWithString(text);
}

/// While it exists, the USB registry contains these devices.
struct Bus {
    explicit Bus(std::vector<USBDevice> devices, std::vector<USBAudioEngine> engines = {})
    {
        USBRegistry::setReader([=] { return USBRegistryContents::initWithDevices(devices, engines); });
    }
    ~Bus() { USBRegistry::setReader({}); }
};

TEST(DeviceReference, readsTextsOfOneDictionary)
{
    struct {
        const char* why;
        std::string text;
        bool isReference;
    } const rows[] = {
        {"no attributes", "{}", true},
        {"something before it", "x{}", false},
        {"space behind it", "{} ", false},
        {"the last of equal keys counts", R"({"uid":"a","uid":"b"})", true},
        {"deeper", R"({"a":)" + std::string(512, '[') + std::string(512, ']') + "}", false},
    };
    for (const auto& row : rows)
        EXPECT_EQ(bool(parsed(row.text)), row.isReference) << row.why;

    const CXRef<DXRDeviceReference> kept = parsed(R"({ "n":"Caf\u00e9", "i":true, "uid":"b", "uid":"c" })");
    EXPECT_EQ(kept->string(), R"({ "n":"Caf\u00e9", "i":true, "uid":"b", "uid":"c" })") << "kept as given";
    EXPECT_EQ(kept->deviceUID(), "c");
    EXPECT_EQ(kept->isInput(), true);
    EXPECT_EQ(kept->characterAtIndex(2), '"');
    EXPECT_ANY_THROW(static_cast<void>(kept->characterAtIndex(kept->length())));
    const CXRef<DXRDeviceReference> odd = parsed(R"({"uid":7,"gid":null,"i":"x"})");
    EXPECT_EQ(odd->deviceUID(), std::nullopt);
    EXPECT_EQ(odd->isInput(), std::nullopt);
    EXPECT_FALSE(odd->isGeneric());
}

TEST(DeviceReference, comparesAttributes)
{
    enum { Neither = 0, Equal = 1, Generic = 2 };
    const std::string first = R"({"uid":"m:1","gid":"m:","t":"usb ","ic":2,"n":"A"})";
    struct {
        const char* why;
        std::string a, b;
        int equality;
    } const rows[] = {
        {"text does not matter", R"({"uid":"a","i":true})", R"({ "i" : 1, "uid":"\u0061" })", Equal},
        {"a direction and none", R"({"uid":"a"})", R"({"uid":"a","i":false})", Neither},
        {"two directions", R"({"uid":"a","i":true})", R"({"uid":"a","i":false})", Neither},
        {"no unique ID", R"({"i":true})", R"({"i":true})", Neither},
        {"other attributes, not generic", R"({"uid":"a","n":"x"})", R"({"uid":"a","n":"y"})", Equal},
        {"another port", first, R"({"uid":"m:2","gid":"m:","t":"usb ","ic":2,"n":"A"})", Generic},
        {"one is not generic", first, R"({"uid":"m:1","n":"B"})", Equal},
        {"other channels", first, R"({"uid":"m:1","gid":"m:","t":"usb ","ic":4,"n":"A"})", Neither},
        {"a number is its value", first, R"({"uid":"m:1","gid":"m:","t":"usb ","ic":2.0,"n":"A"})",
         Equal | Generic},
        {"minus zero is zero", R"({"uid":-0})", R"({"uid":0})", Equal},
        {"another model", R"({"uid":"a","gid":"g","t":"usb ","md":"1"})",
         R"({"uid":"b","gid":"g","t":"usb ","md":"2"})", Neither},
        {"no transport", R"({"uid":"a","gid":"g"})", R"({"uid":"a","gid":"g"})", Neither},
        {"-1 is not the largest", R"({"uid":-1})", R"({"uid":18446744073709551615})", Neither},
        {"an old engine's interface is cut", R"({"uid":"e","t":"usb ","gid":"AppleUSBAudioEngine:M:P::1"})",
         R"({"uid":"e","t":"usb ","gid":"AppleUSBAudioEngine:M:P::"})", Equal | Generic},
        {"but not another's", R"({"uid":"e","t":"dprt","gid":"AppleUSBAudioEngine:M:P::1"})",
         R"({"uid":"e","t":"dprt","gid":"AppleUSBAudioEngine:M:P::"})", Neither},
    };
    for (const auto& row : rows) {
        const CXRef<DXRDeviceReference> a = parsed(row.a);
        const CXRef<DXRDeviceReference> b = parsed(row.b);
        for (const auto& [x, y] : {std::pair(a, b), std::pair(b, a)}) {
            EXPECT_EQ(x->isEqual(y.get()), (row.equality & Equal) != 0) << row.why;
            EXPECT_EQ(x->isGenericallyEqual(y.get()), (row.equality & Generic) != 0) << row.why;
            EXPECT_TRUE(!x->isEqual(y.get()) || x->exactHash() == y->exactHash()) << row.why;
            EXPECT_TRUE(!x->isGenericallyEqual(y.get()) || x->genericHash() == y->genericHash()) << row.why;
        }
        EXPECT_EQ(a->isEqual(row.b), (row.equality & Equal) != 0) << row.why;
        EXPECT_EQ(a->isEqual(CXValue::initWithPlist(row.b).get()), (row.equality & Equal) != 0) << row.why;
        EXPECT_TRUE(a->isEqual(a.get()) && a->isGenericallyEqual(a.get())) << row.why;
    }
    const CXRef<DXRDeviceReference> empty = parsed("{}");
    EXPECT_FALSE(empty->isEqual(parsed("{}").get()));
    EXPECT_FALSE(empty->isEqual(nullptr));
    EXPECT_FALSE(empty->isEqual("text"));
    EXPECT_FALSE(empty->isGenericallyEqual(CXValue::initWithPlist(5).get()));
}

TEST(DeviceReference, changesDirection)
{
    const CXRef<DXRDeviceReference> input = parsed(R"({"n":"x", "i":true, "uid":"a"})");
    const CXRef<DXRDeviceReference> whole = input->deviceReferenceWithInput(std::nullopt);
    EXPECT_EQ(whole->string(), R"({"n":"x","uid":"a"})");
    EXPECT_EQ(whole->isInput(), std::nullopt);
    EXPECT_TRUE(whole->deviceReferenceWithInput(true)->isEqual(input.get()));
    EXPECT_EQ(whole->hash() ^ whole->deviceReferenceWithInput(true)->hash(), 1U);
    EXPECT_EQ(whole->hash() ^ whole->deviceReferenceWithInput(false)->hash(), 2U);
}

TEST(GenericUID, blanksThePartsThatDependOnThePlace)
{
    const Bus bus({{0x14100000}, {0}, {0x03140000}, {0xABCDEF12}},
                  {{"AppleUSBAudioEngine:Maker:Product:SERIAL1:1", "SERIAL1", 0x14100000, {}, {}},
                   {"AppleUSBAudioEngine:Maker:Product:14100000:2,1", {}, 0x14100000, {}, {}},
                   {"AppleUSBAudioEngine:Maker:Other:S:1", "T", 0x14100000, {}, {}},
                   {"AppleUSBAudioEngine:Short:1", "Short", 0x14100000, {}, {}}});
    const std::optional<std::string> none;
    struct {
        const char* why;
        uint32_t transport;
        std::string uid;
        std::optional<std::string> generic;
    } const rows[] = {
        {"the engine's own serial number stays", usb, "AppleUSBAudioEngine:Maker:Product:SERIAL1:1",
         "AppleUSBAudioEngine:Maker:Product:SERIAL1:"},
        {"no serial number", usb, "AppleUSBAudioEngine:Maker:Product:14100000:2,1",
         "AppleUSBAudioEngine:Maker:Product::"},
        {"another's serial number", usb, "AppleUSBAudioEngine:Maker:Other:S:1",
         "AppleUSBAudioEngine:Maker:Other::"},
        {"an engine that is not there", usb, "AppleUSBAudioEngine:Maker:Product:SERIAL2:1", none},
        {"too few parts", usb, "AppleUSBAudioEngine:Short:1", none},
        {"a location", usb, "model:14100000.out", "model:"},
        {"in either case", usb, "model-abcdef12", "model-"},
        {"bus below 16 with its zero", usb, "model:03140000", "model:"},
        {"and with a space", usb, "model  3140000", "model "},
        {"a space for no zero", usb, "model: 4100000", none},
        {"a location without a device", usb, "model:15100000", none},
        {"behind a hexadecimal digit", usb, "modelA14100000", none},
        {"only its first place counts", usb, "modelA14100000:14100000", none},
        {"too near the start", usb, ":14100000", none},
        {"near the start is not tried with a space", usb, "03140000:  3140000", none},
        {"the device listed first decides", usb, "m:03140000:14100000", "m:03140000:"},
        {"0 is no location", usb, "model:00000000", none},
        {"a display", displayPort, "AppleGFXHDAEngineOutputDP:a:b:c:{d}", "AppleGFXHDAEngineOutputDP::::{d}"},
        {"a display with too few parts", displayPort, "AppleGFXHDAEngineOutputDP:a:{d}", none},
        {"a display without its end", displayPort, "AppleGFXHDAEngineOutputDP:a:b:c:d", none},
        {"no display", usb, "AppleGFXHDAEngineOutputDP:a:b:c:{d}", none},
        {"another bus", kAudioDeviceTransportTypePCI, "model:14100000", none},
    };
    for (const auto& row : rows)
        EXPECT_EQ(JRCoreCreateGenericUID(row.transport, row.uid), row.generic) << row.why;
    EXPECT_EQ(JRCoreCreateGenericUID(usb, none), none);
    EXPECT_TRUE(JRCoreTransportCouldBeGeneric(displayPort));
    EXPECT_FALSE(JRCoreTransportCouldBeGeneric(kAudioDeviceTransportTypeBluetooth));
}

TEST(GenericUID, findsADeviceThatWasJustPluggedIn)
{
    std::vector<USBDevice> devices;
    USBRegistry::setReader([&] { return USBRegistryContents::initWithDevices(devices, {}); });
    EXPECT_EQ(JRCoreCreateGenericUID(usb, "model:03140000"), std::nullopt);
    devices.push_back({0x03140000});
    std::this_thread::sleep_for(std::chrono::milliseconds(40)); // an immediate request would not read again
    EXPECT_EQ(JRCoreCreateGenericUID(usb, "model:03140000"), "model:");
    USBRegistry::setReader({});
}

TEST(DeviceReference, describesAPresentDevice)
{
    const CXRef<SimulatedHardware> hal = SimulatedHardware::init(SimulatedClock::Stepped);
    HALSetHardwareDriver(hal);
    const Bus bus(std::vector<USBDevice>{{0x03140000}});
    SimulatedDeviceBuilder unitBuilder = aDevice().uid("unit:03140000").transport(usb);
    unitBuilder.name("Interface \xFF").manufacturer("Maker").modelUID("model:03140000").inputs(2);
    unitBuilder.outputs(4);
    const AudioObjectID unit = hal->plug(unitBuilder);
    const CXRef<DXRDeviceReference> output = DXRDeviceReference::initWithDeviceID(unit, false);
    EXPECT_EQ(output->string(), R"({"gid":"unit:","i":false,"ic":2,"m":"Maker","md":"model:",)"
                                "\"n\":\"Interface \xEF\xBF\xBD\"," // bytes that are not UTF-8 are replaced
                                R"("oc":4,"t":"usb ","uid":"unit:03140000"})");
    EXPECT_TRUE(output->isEqual(output->string()));
    const CXRef<DXRDeviceReference> byUID = DXRDeviceReference::initWithDeviceUID("unit:03140000", true);
    EXPECT_EQ(byUID->isInput(), std::nullopt) << "a present device is referred to as a whole";
    EXPECT_TRUE(byUID->isEqual(output->deviceReferenceWithInput(std::nullopt).get()));

    const AudioObjectID speaker = hal->plug(SimulatedDeviceBuilder().uid("speaker").outputs(2));
    EXPECT_EQ(DXRDeviceReference::initWithDeviceID(speaker, std::nullopt)->string(), R"({"uid":"speaker"})");
    EXPECT_FALSE(DXRDeviceReference::initWithDeviceID(speaker, true)) << "no such direction";
    const AudioObjectID own = hal->plug(SimulatedDeviceBuilder().uid("DXR:1F:x").outputs(2));
    EXPECT_FALSE(DXRDeviceReference::initWithDeviceID(own, std::nullopt)) << "the library's own";
    EXPECT_FALSE(DXRDeviceReference::initWithDeviceID(0x00FFFFFF, std::nullopt));
    EXPECT_FALSE(DXRDeviceReference::initWithDeviceUID(std::nullopt, true));
    EXPECT_FALSE(DXRDeviceReference::initWithDeviceUID(std::string(1U << 20, 'x'), true)) << "not readable";
    EXPECT_EQ(DXRDeviceReference::initWithDeviceUID("gone", true)->string(), R"({"i":true,"uid":"gone"})");
}

TEST(DeviceReferenceIndex, findsTheFirstThatWasAdded)
{
    const auto unit = [](int port) {
        return parsed(R"({"t":"usb ","gid":"m:","uid":"m:)" + std::to_string(port) + R"("})");
    };
    const CXRef<DXRDeviceReference> first = unit(1);
    const CXRef<DXRDeviceReference> second = unit(2);
    DXRDeviceReferenceIndex<int> index;
    index.add(first, 10);
    index.add(second, 20);
    index.add(second, 21);
    EXPECT_EQ(*index.firstEqual(*unit(2)), 20);
    EXPECT_EQ(*index.firstGenericallyEqual(*unit(3)), 10);
    EXPECT_EQ(index.firstEqual(*unit(3)), nullptr);
    index.remove(first, 10);
    index.remove(second, 20);
    index.remove(second, 99);
    EXPECT_EQ(*index.firstGenericallyEqual(*unit(3)), 21);
    EXPECT_EQ(*index.firstEqual(*parsed(R"({"uid":"m:2"})")), 21) << "equal, though it is not generic";
    EXPECT_EQ(index.firstEqual(*first), nullptr);
}

} // namespace
