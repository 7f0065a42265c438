#include "CXException.h"
#include "CXMainBundle.h"
#include "DXRDeviceOverrides.h"
#include "DefaultsSuite.h"
#include "Eventually.h"

#include <gtest/gtest.h>

#include <cmath>
#include <future>

namespace {

using dxr::DefaultsChanges, dxr::DefaultsSnapshot, dxr::DefaultsSuite;

const std::string unitAtPort1 = R"({"gid":"m:","i":false,"t":"usb ","uid":"m:1"})";
const std::string unitAtPort2 = R"({"gid":"m:","i":false,"t":"usb ","uid":"m:2"})";

CXRef<DXRDeviceOverrides> overridesFor(const std::string& reference)
{
    return DXRDeviceOverrides::initWithDeviceReference(DXRDeviceReference::initWithString(reference));
}

CXRef<DefaultsSuite> suite()
{
    return DefaultsSuite::suiteNamed("com.veltorrin.device-overrides");
}

void write(const std::string& key, const std::optional<std::string>& value)
{
    EXPECT_TRUE(suite()->update([=](const DefaultsSnapshot&) { return DefaultsChanges{{key, value}}; }));
}

std::map<std::string, CXPlist> stored()
{
    std::map<std::string, CXPlist> rows;
    const CXRef<DefaultsSnapshot> snapshot = suite()->snapshot();
    for (const auto& [key, row] : snapshot->rows())
        rows.emplace(key, CXPlist::parse(row->value(), nullptr, false));
    return rows;
}

class DeviceOverrides : public testing::Test {
protected:
    ~DeviceOverrides() override
    {
        CXSetMainBundleIdentifier(std::nullopt);
        for (const auto& [key, value] : stored())
            write(key, std::nullopt);
    }
};

TEST_F(DeviceOverrides, areReadByType)
{
    const CXRef<DXRDeviceOverrides> overrides = overridesFor(R"({"uid":"a","i":true})");
    const std::pair<const char*, CXPlist> values[] = {{"on", true}, {"half", 0.5}, {"list", {1, 2}}};
    for (const auto& [key, value] : values)
        overrides->setObject(value, key);
    overrides->setObject(1, std::nullopt);
    EXPECT_EQ(overrides->boolForKey("half"), CXPlist(0.5));
    EXPECT_EQ(overrides->doubleForKey("on"), CXPlist(true)) << "a boolean is a number";
    EXPECT_EQ(overrides->objectForKey("list"), (CXPlist{1, 2}));
    EXPECT_EQ(overrides->objectForKey(std::nullopt), CXPlist());
    EXPECT_EQ(overrides->numberArrayForKey("list"), CXPlist());
    EXPECT_EQ(overrides->numberArrayForKey("half"), CXPlist(0.5));
    EXPECT_EQ(overrides->numberArrayForKey("list", 2), CXPlist());
    EXPECT_THROW(static_cast<void>(overrides->numberArrayForKey("half", 1)), CXException);
}

TEST_F(DeviceOverrides, recordTheirOwnerAndRemoveEmptyEntries)
{
    const std::string key = R"({"uid":"a","i":true})";
    const CXRef<DXRDeviceOverrides> overrides = overridesFor(key);
    using Stored = std::map<std::string, CXPlist>;
    const auto storedAfter = [&](const CXPlist& value, const char* name) {
        overrides->setObject(value, name);
        return stored();
    };
    EXPECT_EQ(storedAfter(1, "k"), (Stored{{key, {{"k", 1}}}})) << "no owner where there is no identifier";
    CXSetMainBundleIdentifier("com.example.one");
    EXPECT_EQ(storedAfter(2, "k"), (Stored{{key, {{"k", 2}, {"k[owner]", "com.example.one"}}}}));
    EXPECT_TRUE(storedAfter(nullptr, "k").empty());
    EXPECT_TRUE(storedAfter(nullptr, "k").empty());

    const auto nested = [](size_t depth) {
        return CXPlist::parse(std::string(depth, '[') + '1' + std::string(depth, ']'));
    };
    const Stored before = storedAfter(nested(511), "as deep as is read");
    EXPECT_EQ(before.at(key).size(), 2U);
    const CXPlist unreadable[] = {nested(512), std::string(2000000, 'x'),
                                  CXPlist(CXPlist::value_t::discarded), NAN, CXPlist::array({1, INFINITY})};
    for (const CXPlist& value : unreadable)
        EXPECT_EQ(storedAfter(value, "k"), before) << "a value that could not be read again is not written";
    overrides->setObject(nullptr, "as deep as is read");
    overrides->setObject("caf\xE9", "\xFF");
    EXPECT_EQ(overrides->objectForKey("\xEF\xBF\xBD"), CXPlist("caf\xEF\xBF\xBD"));
    EXPECT_EQ(overrides->objectForKey("\xFF"), CXPlist("caf\xEF\xBF\xBD"));
    EXPECT_TRUE(storedAfter(nullptr, "\xFF").empty());
}

TEST_F(DeviceOverrides, areFoundByEqualAndThenByGenericallyEqualReferences)
{
    write("not a reference", R"({"k":0})");
    write(R"({"uid":"no dictionary"})", "[1]");
    write(R"({"uid":"no JSON"})", "{");
    write(unitAtPort1, R"({"k":1})");
    EXPECT_EQ(overridesFor(R"({ "uid":"m:1", "i":false })")->objectForKey("k"), CXPlist(1)) << "exactly";
    const CXRef<DXRDeviceOverrides> moved = overridesFor(unitAtPort2);
    EXPECT_EQ(moved->objectForKey("k"), CXPlist(1)) << "generically";
    moved->setObject(2, "k");
    EXPECT_EQ(stored().at(unitAtPort1), (CXPlist{{"k", 2}})) << "under the key that exists";
    EXPECT_FALSE(stored().contains(unitAtPort2));
    write(unitAtPort2, R"({"k":3,"text":"x"})");
    const CXRef<DXRDeviceOverrides> own = overridesFor(unitAtPort2);
    EXPECT_EQ(own->doubleForKey("k"), CXPlist(3)) << "equal comes first";
    EXPECT_EQ(own->stringForKey("text"), "x");
    EXPECT_TRUE(own->boolForKey("text").is_null() && !own->stringForKey("k")) << "another type";
    EXPECT_EQ(overridesFor(R"({"uid":"no dictionary"})")->objectForKey("k"), CXPlist());
    EXPECT_FALSE(DXRDeviceOverrides::initWithDeviceReference(nullptr));
}

TEST_F(DeviceOverrides, followOutsideChanges)
{
    const std::string key = R"({"uid":"a"})";
    const CXRef<DXRDeviceOverrides> overrides = overridesFor(key);
    auto writer = std::async(std::launch::async, [&] {
        for (int i = 1; i <= 50; ++i)
            overridesFor(key)->setObject(i, "k");
    });
    int last = 0;
    while (writer.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
        const CXPlist value = overridesFor(key)->objectForKey("k"); // released while others write
        const int seen = value.is_number() ? value.get<int>() : 0;
        EXPECT_GE(seen, last) << "a reader never goes back";
        last = seen;
    }
    EXPECT_TRUE(eventually([&] { return overrides->objectForKey("k") == CXPlist(50); }));
    write(key, "[]");
    EXPECT_TRUE(eventually([&] { return overrides->objectForKey("k").is_null(); })) << "no dictionary";
    write(key, R"({"k":2,"l":3})");
    overrides->setObject(4, "m"); // it keeps changes it has not been notified of
    EXPECT_EQ(stored().at(key), (CXPlist{{"k", 2}, {"l", 3}, {"m", 4}}));
    EXPECT_EQ(overrides->objectForKey("l"), CXPlist(3));
}

TEST_F(DeviceOverrides, resetRemovesWhatThisApplicationSet)
{
    const std::string mixed = R"({"uid":"mixed"})";
    write(mixed, R"({"a":1,"a[owner]":"me","b":2,"b[owner]":"other","c":3,)"
                 R"("d[owner]":1,"d[owner][owner]":"me"})");
    write(R"({"uid":"mine"})", R"({"a":1,"a[owner]":"me"})");
    write("not a reference", R"({"a":1,"a[owner]":"me"})");
    auto expected = stored();
    DXRDeviceOverrides::performFactoryReset();
    EXPECT_EQ(stored(), expected) << "an application without identifier has set nothing";
    CXSetMainBundleIdentifier("caf\xE9"); // not valid UTF-8: stored differently
    overridesFor(R"({"uid":"a"})")->setObject(1, "k");
    DXRDeviceOverrides::performFactoryReset();
    EXPECT_EQ(stored(), expected);
    CXSetMainBundleIdentifier("me");
    const CXRef<DXRDeviceOverrides> live = overridesFor(mixed);
    overridesFor(mixed)->setObject(2, "a");
    EXPECT_EQ(live->objectForKey("a"), CXPlist(2)) << "without waiting for the watcher";
    DXRDeviceOverrides::performFactoryReset();
    EXPECT_EQ(live->keys(), (std::vector<std::string>{"b", "c"}));
    expected.erase(R"({"uid":"mine"})");
    for (const char* key : {"a", "a[owner]"})
        expected[mixed].erase(key);
    EXPECT_EQ(stored(), expected);
}

TEST_F(DeviceOverrides, areReadWhileTheStoreIsBusy)
{
    const CXRef<DXRDeviceOverrides> overrides = overridesFor(R"({"uid":"a"})");
    overrides->setObject(1, "k");
    std::promise<void> hasBegun, mayEnd;
    const auto busy = std::async(std::launch::async, [&] { // as if another process held the file lock
        return suite()->update([&](const DefaultsSnapshot&) {
            hasBegun.set_value();
            mayEnd.get_future().wait();
            return DefaultsChanges{};
        });
    });
    hasBegun.get_future().wait();
    const auto writer = std::async(std::launch::async, [&] { overrides->setObject(2, "k"); });
    const auto reader = std::async(std::launch::async, [&] {
        for (int i = 0; i < 100; ++i) { // while the writer starts to wait
            EXPECT_EQ(overrides->objectForKey("k"), CXPlist(1));
            EXPECT_EQ(overridesFor(R"({"uid":"a"})")->objectForKey("k"), CXPlist(1));
            sleepForMilliseconds(1);
        }
    });
    EXPECT_EQ(reader.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    mayEnd.set_value();
    writer.wait();
    EXPECT_EQ(overrides->objectForKey("k"), CXPlist(2));
}

} // namespace
