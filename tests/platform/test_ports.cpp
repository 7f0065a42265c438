#include "Eventually.h"
#include "HostClock.h"
#include "InChild.h"
#include "PortSet.h"

#include <algorithm>
#include <ctime>
#include <sys/eventfd.h>
#include <sys/resource.h>

namespace dxr {
namespace {

using enum Port::SendResult;
using enum PortSet::Event;
constexpr uint64_t passed = 1; // a deadline in the past: waitForEvent() does not wait

Port::SendResult send(Port& port, std::string_view text)
{
    return port.send(std::as_bytes(std::span(text)));
}

/// Takes all messages of the set; each is preceded by the index of its port in `ports`.
std::string takenFrom(PortSet& set, const std::vector<CXRef<Port>>& ports)
{
    std::string all;
    while (const auto received = set.takeMessage()) {
        const auto port = std::ranges::find(ports, received->port) - ports.begin();
        all += std::to_string(port) + ':';
        all.append(reinterpret_cast<const char*>(received->message.data()), received->message.size());
        all += ' ';
    }
    return all;
}

TEST(PortSet, servesItsPortsAndItsSignalInTurns)
{
    const CXRef<PortSet> set = PortSet::init();
    const std::vector<CXRef<Port>> ports = {Port::init(2), Port::init(), Port::init(0)};
    EXPECT_EQ(send(*ports[0], "early"), Sent);
    for (const CXRef<Port>& port : ports)
        set->add(*port);
    EXPECT_EQ(send(*ports[0], "b"), Sent);
    for (size_t i = 0; i < Port::defaultQueueLimit; ++i)
        EXPECT_EQ(send(*ports[1], std::string(i, 'x')), Sent);
    EXPECT_EQ(send(*ports[2], "a port holds one at least"), Sent);
    for (const CXRef<Port>& port : ports)
        EXPECT_EQ(send(*port, "too many"), Full);
    EXPECT_TRUE(set->signal());
    EXPECT_TRUE(set->signal());
    for (const PortSet::Event event : {Signal, Message, Message}) // the signal is reported once
        EXPECT_EQ(set->waitForEvent(passed), event);
    EXPECT_TRUE(set->signal());
    EXPECT_EQ(set->waitForEvent(), Signal) << "though messages wait";
    EXPECT_EQ(takenFrom(*set, ports), "0:early 1: 2:a port holds one at least 0:b 1:x 1:xx 1:xxx 1:xxxx ");
    EXPECT_EQ(set->waitForEvent(passed), Timeout);
}

TEST(PortSet, keepsNoMessageOfAPortThatLeavesAndNoneWhenClosed)
{
    const CXRef<PortSet> first = PortSet::init(), second = PortSet::init();
    const std::vector<CXRef<Port>> ports = {Port::init(), Port::init()};
    second->add(*ports[0]);
    first->remove(*ports[0]); // no effect: the port is in the second set
    EXPECT_EQ(send(*ports[0], "a"), Sent);
    EXPECT_EQ(takenFrom(*second, ports), "0:a ");
    second->remove(*ports[0]);
    EXPECT_EQ(send(*ports[0], "b"), Sent);
    EXPECT_EQ(takenFrom(*second, ports), "");

    first->add(*ports[1]);
    EXPECT_EQ(send(*ports[1], "dropped"), Sent);
    EXPECT_FALSE(first->close());
    EXPECT_EQ(takenFrom(*first, ports), "");
    EXPECT_FALSE(first->signal());
    EXPECT_TRUE(second->signal());
    EXPECT_TRUE(second->close()) << "a signal was pending";
}

TEST(PortSet, sleepsUntilItsDeadlineASignalOrAMessage)
{
    const CXRef<PortSet> set = PortSet::init();
    const CXRef<Port> port = Port::init();
    set->add(*port);
    const uint64_t deadline = HostClock::nowTicks() + 5'000'000;
    EXPECT_EQ(set->waitForEvent(deadline), Timeout);
    EXPECT_GE(HostClock::nowTicks(), deadline);
    for (int round = 0; round < 2000; ++round) {
        const std::jthread sender([&] { round % 2 == 0 ? (void)set->signal() : (void)send(*port, "x"); });
        EXPECT_EQ(set->waitForEvent(), round % 2 == 0 ? Signal : Message);
        EXPECT_EQ(set->takeMessage().has_value(), round % 2 != 0);
    }
    EXPECT_EQ(send(*port, "does not end it"), Sent);
    const std::jthread sender([&] { set->signal(); });
    set->waitForSignal();
    EXPECT_TRUE(set->takeMessage());
}

TEST(PortSet, watchesDescriptorsOnceThereAreEnoughAgain)
{
    inChild([] {
        const int descriptor = eventfd(1, EFD_CLOEXEC);
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        const rlimit none{0, limit.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
        EXPECT_EQ(Port::initWithDescriptor(descriptor), nullptr);
        setrlimit(RLIMIT_NOFILE, &limit);
        const std::clock_t before = std::clock();
        sleepForMilliseconds(200);
        EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 20) << "of the process, which waits";
        const CXRef<PortSet> set = PortSet::init();
        const CXRef<Port> port = Port::initWithDescriptor(descriptor);
        ASSERT_TRUE(port);
        set->add(*port);
        EXPECT_EQ(set->waitForEvent(HostClock::nowTicks() + 10'000'000'000), Message);
    });
}

} // namespace
} // namespace dxr
