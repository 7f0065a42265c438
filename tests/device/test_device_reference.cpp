#include "CXValue.h"
#include "DXRDeviceReference.h"
#include "HALReads.h"
#include "JRCoreGenericUID.h"
#include "USBRegistry.h"
#include "simulated.h"

#include <gtest/gtest.h>

namespace {

using dxr::USBAudioEngine, dxr::USBDevice, dxr::USBRegistry, dxr::USBRegistryContents;

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
    EXPECT_TRUE(parsed("{}")) << "no attributes";
    for (const std::string& text : {std::string("x{}"), std::string("{} "),
                                    R"({"a":)" + std::string(512, '[') + std::string(512, ']') + "}"})
        EXPECT_FALSE(parsed(text)) << text;
    const CXRef<DXRDeviceReference> kept = parsed(R"({ "n":"Caf\u00e9", "i":true, "uid":"b", "uid":"c" })");
    EXPECT_EQ(kept->string(), R"({ "n":"Caf\u00e9", "i":true, "uid":"b", "uid":"c" })") << "kept as given";
    EXPECT_EQ(kept->deviceUID(), "c") << "the last of equal keys counts";
    EXPECT_EQ(kept->isInput(), true);
    const CXRef<DXRDeviceReference> odd = parsed(R"({"uid":7,"gid":null,"i":"x"})");
    EXPECT_FALSE(odd->deviceUID() || odd->isInput() || odd->isGeneric());
}

TEST(DeviceReference, comparesAttributes)
{
    enum { Neither = 0, Equal = 1, Generic = 2 };
    const auto unit = [](const char* rest) { return R"({"gid":"m:","t":"usb ",)" + std::string(rest) + "}"; };
    const auto engine = [](const std::string& transport, const char* interface) {
        return R"({"uid":"e","t":")" + transport + R"(","gid":"AppleUSBAudioEngine:M:P::)" + interface +
               "\"}";
    };
    const std::string first = unit(R"("uid":"m:1","ic":2,"n":"A")");
    struct {
        const char* why;
        std::string a, b;
        int equality;
    } const rows[] = {
        {"nothing", "{}", "{}", Neither},
        {"text does not matter", R"({"uid":"a","i":true})", R"({ "i" : 1, "uid":"\u0061" })", Equal},
        {"a direction and none", R"({"uid":"a"})", R"({"uid":"a","i":false})", Neither},
        {"two directions", R"({"uid":"a","i":true})", R"({"uid":"a","i":false})", Neither},
        {"no unique ID", R"({"i":true})", R"({"i":true})", Neither},
        {"other attributes, not generic", R"({"uid":"a","n":"x"})", R"({"uid":"a","n":"y"})", Equal},
        {"another port", first, unit(R"("uid":"m:2","ic":2,"n":"A")"), Generic},
        {"one is not generic", first, R"({"uid":"m:1","n":"B"})", Equal},
        {"other channels", first, unit(R"("uid":"m:1","ic":4,"n":"A")"), Neither},
        {"a number is its value", first, unit(R"("uid":"m:1","ic":2.0,"n":"A")"), Equal | Generic},
        {"minus zero is zero", R"({"uid":-0})", R"({"uid":0})", Equal},
        {"another model", unit(R"("uid":"a","md":"1")"), unit(R"("uid":"b","md":"2")"), Neither},
        {"no transport", R"({"uid":"a","gid":"g"})", R"({"uid":"a","gid":"g"})", Neither},
        {"-1 is not the largest", R"({"uid":-1})", R"({"uid":18446744073709551615})", Neither},
        {"an old engine's interface is cut", engine("usb ", "1"), engine("usb ", ""), Equal | Generic},
        {"but not another's", engine("dprt", "1"), engine("dprt", ""), Neither},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        const CXRef<DXRDeviceReference> a = parsed(row.a), b = parsed(row.b);
        const bool isEqual = (row.equality & Equal) != 0, isGeneric = (row.equality & Generic) != 0;
        for (const auto& [x, y] : {std::pair(a, b), std::pair(b, a)}) {
            EXPECT_EQ(x->isEqual(y.get()), isEqual);
            EXPECT_EQ(x->isGenericallyEqual(y.get()), isGeneric);
            EXPECT_TRUE(!isEqual || x->exactHash() == y->exactHash());
            EXPECT_TRUE(!isGeneric || x->genericHash() == y->genericHash());
        }
        EXPECT_EQ(a->isEqual(row.b), isEqual);
        EXPECT_EQ(a->isEqual(CXValue::initWithPlist(row.b).get()), isEqual);
        EXPECT_TRUE(a->isEqual(a.get()) && a->isGenericallyEqual(a.get()));
        EXPECT_FALSE(a->isEqual(nullptr) || a->isEqual("text"));
    }
}

TEST(GenericUID, blanksThePartsThatDependOnThePlace)
{
    const auto engine = [](const char* rest) { return std::string("AppleUSBAudioEngine:") + rest; };
    const auto display = [](const char* rest) { return std::string("AppleGFXHDAEngineOutputDP:") + rest; };
    const Bus bus({{0x14100000}, {0}, {0x03140000}, {0xABCDEF12}},
                  {{engine("M:P:SERIAL1:1"), "SERIAL1", 0x14100000, {}, {}},
                   {engine("M:P:14100000:2,1"), {}, 0x14100000, {}, {}},
                   {engine("M:Other:S:1"), "T", 0x14100000, {}, {}},
                   {engine("Short:1"), "Short", 0x14100000, {}, {}}});
    const std::optional<std::string> none;
    struct {
        const char* why;
        uint32_t transport;
        std::string uid;
        std::optional<std::string> generic;
    } const rows[] = {
        {"its own serial number stays", usb, engine("M:P:SERIAL1:1"), engine("M:P:SERIAL1:")},
        {"no serial number", usb, engine("M:P:14100000:2,1"), engine("M:P::")},
        {"another's serial number", usb, engine("M:Other:S:1"), engine("M:Other::")},
        {"an engine that is not there", usb, engine("M:P:SERIAL2:1"), none},
        {"too few parts", usb, engine("Short:1"), none},
        {"a location", usb, "model:14100000.out", "model:"},
        {"in either case", usb, "model-abcdef12", "model-"},
        {"bus below 16 with its zero", usb, "model:03140000", "model:"},
        {"and with a space", usb, "model  3140000", "model "},
        {"a space for no zero", usb, "model: 4100000", none},
        {"a location without a device", usb, "model:15100000", none},
        {"behind a hexadecimal digit", usb, "modelA14100000", none},
        {"only its first place counts", usb, "modelA14100000:14100000", none},
        {"too near the start, in characters", usb, "é14100000", none},
        {"the device listed first decides", usb, "m:03140000:14100000", "m:03140000:"},
        {"0 is no location", usb, "model:00000000", none},
        {"a display", displayPort, display("a:b:c:{d}"), display(":::{d}")},
        {"a display with too few parts", displayPort, display("a:{d}"), none},
        {"no display", usb, display("a:b:c:{d}"), none},
        {"another bus", kAudioDeviceTransportTypePCI, "model:14100000", none},
    };
    for (const auto& row : rows)
        EXPECT_EQ(JRCoreCreateGenericUID(row.transport, row.uid), row.generic) << row.why;
}

TEST(DeviceReference, describesAPresentDevice)
{
    const auto hal = installed(SimulatedHardware::init(SimulatedClock::Stepped));
    const Bus bus(std::vector<USBDevice>{{0x03140000}});
    SimulatedDeviceBuilder box = aDevice().uid("unit:03140000").transport(usb).name("Interface \xFF");
    const auto unit = hal->plug(box.manufacturer("Maker").modelUID("model:03140000").inputs(2).outputs(4));
    const CXRef<DXRDeviceReference> output = DXRDeviceReference::initWithDeviceID(unit, false);
    EXPECT_EQ(output->string(), R"({"gid":"unit:","i":false,"ic":2,"m":"Maker","md":"model:",)"
                                "\"n\":\"Interface \xEF\xBF\xBD\"," // bytes that are not UTF-8 are replaced
                                R"("oc":4,"t":"usb ","uid":"unit:03140000"})");
    EXPECT_TRUE(output->isEqual(output->string()));
    const CXRef<DXRDeviceReference> byUID = DXRDeviceReference::initWithDeviceUID("unit:03140000", true);
    EXPECT_TRUE(byUID->isEqual(output->deviceReferenceWithInput(std::nullopt).get())) << "as a whole";

    const auto refer = [&](const char* uid, std::optional<bool> isInput) {
        return DXRDeviceReference::initWithDeviceID(hal->plug(aDevice().uid(uid).transport(0).outputs(2)),
                                                    isInput);
    };
    EXPECT_EQ(refer("speaker", std::nullopt)->deviceUID(), "speaker");
    EXPECT_FALSE(refer("other", true)) << "no such direction";
    EXPECT_FALSE(refer("DXR:1F:x", std::nullopt)) << "the library's own";
    EXPECT_FALSE(DXRDeviceReference::initWithDeviceID(0x00FFFFFF, std::nullopt));
    EXPECT_FALSE(DXRDeviceReference::initWithDeviceUID(std::nullopt, true));
    EXPECT_FALSE(DXRDeviceReference::initWithDeviceUID(std::string(1U << 20, 'x'), true)) << "not readable";
    EXPECT_EQ(DXRDeviceReference::initWithDeviceUID("gone", true)->string(), R"({"i":true,"uid":"gone"})");
}

} // namespace
