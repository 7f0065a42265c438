#include "DXRKVOHelper.h"
#include "MainQueue.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

/// An object with observable values; the published color starts as nil.
class Lamp final : public CXObject {
public:
    static CXRef<Lamp> init() { return CXRef<Lamp>::adopt(new Lamp); }
    std::string color() const { return kvo->isUpdateInProgress() ? _kvo_color.value_or("nil") : liveColor; }
    int level() const { return kvo->isUpdateInProgress() ? _kvo_level : liveLevel.load(); }
    CXRef<CXObject> bulb() const { return kvo->isUpdateInProgress() ? _kvo_bulb : liveBulb; }

    const CXRef<DXRKVOHelper> kvo;
    std::string liveColor = "white";
    std::atomic<int> liveLevel{0};
    CXRef<CXObject> liveBulb;

private:
    Lamp() : kvo(DXRKVOHelper::initWithObject(*this, _table())) {}
    static std::span<const DXRKVOProperty> _table()
    {
        static constexpr std::array table{
            DXRKVOProperty::of<&Lamp::color, &Lamp::_kvo_color>("color"),
            DXRKVOProperty::of<&Lamp::level, &Lamp::_kvo_level>("level"),
            DXRKVOProperty::of<&Lamp::bulb, &Lamp::_kvo_bulb>("bulb"),
        };
        return table;
    }
    std::optional<std::string> _kvo_color;
    int _kvo_level = 0;
    CXRef<CXObject> _kvo_bulb;
};

class ObservableValues : public testing::Test {
protected:
    using Texts = std::vector<std::string>;

    ObservableValues()
    {
        observations =
            lamp->kvo->observe(lamp->kvo->observableKeys(), [this](const std::string& key, auto change) {
                const std::string level = std::to_string(lamp->level());
                const std::string value = key == "color" ? lamp->color() : key == "level" ? level : "?";
                heard.push_back(key + (change == DXRKVOChange::Will ? "<" : ">") + value);
            });
    }
    Texts heardSinceLast() { return std::exchange(heard, {}); }

    const CXRef<Lamp> lamp = Lamp::init();
    std::vector<CXRef<DXRKVOObservation>> observations;
    Texts heard;
};

TEST_F(ObservableValues, areAnnouncedAroundTheChange)
{
    EXPECT_EQ(lamp->kvo->observableKeys(), (DXRKVOHelper::Keys{"color", "level", "bulb"}));
    lamp->kvo->updateAllValues(); // nil copies are announced, equal values are not
    EXPECT_EQ(heardSinceLast(), (Texts{"color<nil", "color>white", "bulb<?", "bulb>?"}));
    lamp->kvo->updateAllValues(); // a value that is nil is announced every time
    EXPECT_EQ(heardSinceLast(), (Texts{"bulb<?", "bulb>?"}));
    lamp->liveBulb = lamp;
    lamp->liveColor = "red";
    lamp->liveLevel = 3;
    lamp->kvo->updateValueForKey("bulb");
    heardSinceLast();
    lamp->kvo->updateValuesForKeys({"level", "nothing", "color", "bulb"});
    EXPECT_EQ(heardSinceLast(), (Texts{"level<0", "level>3", "color<white", "color>red"}));
    lamp->liveBulb = nullptr; // breaks the reference cycle
    lamp->kvo->updateValueForKey("bulb");
    EXPECT_EQ(lamp->kvo->observe("nothing", [](auto&, auto) {}), nullptr);
}

TEST_F(ObservableValues, ignoreUpdatesThatAnObserverRequestsDuringOne)
{
    const auto busy = lamp->kvo->observe("level", [&](const std::string&, DXRKVOChange) {
        lamp->liveColor = "blue";
        lamp->kvo->updateValueForKey("color");
    });
    lamp->liveLevel = 1;
    lamp->kvo->updateValueForKey("level");
    EXPECT_EQ(heardSinceLast(), (Texts{"level<0", "level>1"}));
}

TEST_F(ObservableValues, fromOtherThreadsComeLaterAndOnce)
{
    std::thread([&] {
        for (int i = 1; i <= 1000; ++i) {
            lamp->liveLevel = i;
            lamp->kvo->updateValueForKey("level");
        }
    }).join();
    EXPECT_TRUE(heardSinceLast().empty());
    EXPECT_EQ(dxr::MainQueue::shared().drain(), 1U); // at most one item while the main queue is not drained
    EXPECT_EQ(heardSinceLast(), (Texts{"level<0", "level>1000"}));
    std::thread([&] { lamp->kvo->updateValueForKey("level"); }).join();
    EXPECT_EQ(dxr::MainQueue::shared().drain(), 1U); // the first request has run, so this is a new one
}

TEST_F(ObservableValues, areAnnouncedUntilTheObservationEnds)
{
    int calls = 0;
    CXRef<DXRKVOObservation> second;
    const auto first = lamp->kvo->observe("level", [&](auto&, auto) { second = nullptr; });
    second = lamp->kvo->observe("level", [&](auto&, auto) { ++calls; });
    const CXRef<DXRKVOObservation> third = lamp->kvo->observe("level", [&](auto&, auto) { ++calls; });
    third->end();
    lamp->liveLevel = 1;
    lamp->kvo->updateValueForKey("level");
    EXPECT_EQ(calls, 0) << "the first ended the second before its turn";

    // An observer may also end its observation within its own call, while other threads add observers.
    std::jthread adder([&](const std::stop_token& isOver) {
        while (!isOver.stop_requested())
            (void)lamp->kvo->observe("level", [](auto&, auto) {});
    });
    for (int round = 0; round < 10'000; ++round) {
        CXRef<DXRKVOObservation> own;
        calls = 0;
        own = lamp->kvo->observe("level", [&](auto&, auto) {
            own = nullptr;
            ++calls;
        });
        ++lamp->liveLevel;
        lamp->kvo->updateValueForKey("level");
        EXPECT_EQ(calls, 1) << round;
    }
}

TEST(ObservableObject, mayEndWhileItsUpdateWaits)
{
    CXRef<Lamp> lamp = Lamp::init();
    const CXRef<DXRKVOHelper> kvo = lamp->kvo;
    std::thread([&] { kvo->updateAllValues(); }).join();
    lamp = nullptr;
    dxr::MainQueue::shared().drain();
    EXPECT_TRUE(kvo->observableKeys().empty());
}

} // namespace
