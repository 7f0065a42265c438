// What does the queue cost per item, per round trip, per wake-up and per bypass, and how late are its timers,
// compared with other ways to pass work to a thread?

#include "CXDispatchQueue.h"
#include "CXDispatchTimer.h"
#include "Comparison.h"
#include "Futex.h"

#include <asio.hpp>
#include <atomic>
#include <blockingconcurrentqueue.h>
#include <condition_variable>
#include <deque>
#include <glib.h>
#include <memory>
#include <mutex>
#include <optional>
#include <semaphore>
#include <uv.h>

namespace {

using Work = CXBlock<void()>;

/// A queue served by its own thread.
class Server {
public:
    virtual ~Server() = default;
    virtual void post(const Work& work) = 0;
    virtual void call(const Work& work)
    {
        std::binary_semaphore done(0);
        const Work block = [&] {
            work();
            done.release();
        };
        post(block);
        done.acquire();
    }
};

class OurQueue final : public Server {
public:
    ~OurQueue() override { queue->cancel(); }
    void post(const Work& work) override { queue->dispatchAsync(work); }
    void call(const Work& work) override { queue->dispatchSync(work); }
    const CXRef<CXDispatchQueue> queue = CXDispatchQueue::init();
};

class MutexQueue final : public Server {
public:
    MutexQueue() : _thread([this] { _serve(); }) {}
    ~MutexQueue() override
    {
        post(nullptr);
        _thread.join();
    }
    void post(const Work& work) override
    {
        const std::scoped_lock lock(_mutex);
        _items.push_back(work);
        _changed.notify_one();
    }

private:
    void _serve()
    {
        for (;;) {
            std::unique_lock lock(_mutex);
            _changed.wait(lock, [this] { return !_items.empty(); });
            const Work work = std::move(_items.front());
            _items.pop_front();
            lock.unlock();
            if (!work)
                return;
            work();
        }
    }
    std::mutex _mutex;
    std::condition_variable _changed;
    std::deque<Work> _items;
    std::thread _thread;
};

class MoodycamelQueue final : public Server {
public:
    MoodycamelQueue()
        : _thread([this] {
              for (Work work;;) {
                  _items.wait_dequeue(work);
                  if (!work)
                      return;
                  work();
              }
          })
    {}
    ~MoodycamelQueue() override
    {
        post(nullptr);
        _thread.join();
    }
    void post(const Work& work) override { _items.enqueue(work); }

private:
    moodycamel::BlockingConcurrentQueue<Work> _items;
    std::thread _thread;
};

class AsioQueue final : public Server {
public:
    explicit AsioQueue(bool usesStrand) : _thread([this] { _context.run(); })
    {
        if (usesStrand)
            _strand.emplace(_context.get_executor());
    }
    ~AsioQueue() override
    {
        _context.stop();
        _thread.join();
    }
    void post(const Work& work) override
    {
        if (_strand)
            asio::post(*_strand, work);
        else
            asio::post(_context, work);
    }
    asio::io_context& context() { return _context; }

private:
    asio::io_context _context;
    asio::executor_work_guard<asio::io_context::executor_type> _guard{_context.get_executor()};
    std::optional<asio::strand<asio::io_context::executor_type>> _strand;
    std::thread _thread;
};

class GLibQueue final : public Server {
public:
    GLibQueue() : _context(g_main_context_new()), _loop(g_main_loop_new(_context, FALSE))
    {
        _thread = std::thread([this] {
            g_main_context_push_thread_default(_context);
            g_main_loop_run(_loop);
        });
    }
    ~GLibQueue() override
    {
        call([this] { g_main_loop_quit(_loop); });
        _thread.join();
        g_main_loop_unref(_loop);
        g_main_context_unref(_context);
    }
    void post(const Work& work) override
    {
        GSource* const source = g_idle_source_new();
        g_source_set_priority(source, G_PRIORITY_DEFAULT);
        g_source_set_callback(
            source,
            [](void* data) -> gboolean {
                (*static_cast<Work*>(data))();
                return G_SOURCE_REMOVE;
            },
            new Work(work), [](void* data) { delete static_cast<Work*>(data); });
        g_source_attach(source, _context);
        g_source_unref(source);
    }

private:
    GMainContext* const _context;
    GMainLoop* const _loop;
    std::thread _thread;
};

/// libuv provides wake-ups but no queue, so this adds the usual deque under a mutex.
class UvQueue final : public Server {
public:
    UvQueue()
    {
        uv_loop_init(&_loop);
        _async.data = this;
        uv_async_init(&_loop, &_async, [](uv_async_t* async) { static_cast<UvQueue*>(async->data)->_run(); });
        _thread = std::thread([this] { uv_run(&_loop, UV_RUN_DEFAULT); });
    }
    ~UvQueue() override
    {
        call([this] { uv_close(reinterpret_cast<uv_handle_t*>(&_async), nullptr); });
        _thread.join();
        uv_loop_close(&_loop);
    }
    void post(const Work& work) override
    {
        {
            const std::scoped_lock lock(_mutex);
            _items.push_back(work);
        }
        uv_async_send(&_async);
    }

private:
    void _run()
    {
        std::deque<Work> items;
        {
            const std::scoped_lock lock(_mutex);
            std::swap(items, _items);
        }
        for (const Work& work : items)
            work();
    }
    uv_loop_t _loop;
    uv_async_t _async;
    std::mutex _mutex;
    std::deque<Work> _items;
    std::thread _thread;
};

using Servers = std::vector<std::pair<const char*, std::function<std::unique_ptr<Server>()>>>;

Servers servers()
{
    return {{"CXDispatchQueue", [] { return std::make_unique<OurQueue>(); }},
            {"asio", [] { return std::make_unique<AsioQueue>(false); }},
            {"asio strand", [] { return std::make_unique<AsioQueue>(true); }},
            {"GLib", [] { return std::make_unique<GLibQueue>(); }},
            {"libuv", [] { return std::make_unique<UvQueue>(); }},
            {"moodycamel", [] { return std::make_unique<MoodycamelQueue>(); }},
            {"mutex", [] { return std::make_unique<MutexQueue>(); }}};
}

/// Millions of items per second, from the first push until the last item has run.
double itemsPerSecond(Server& server, int producerCount)
{
    constexpr int count = 20'000;
    std::binary_semaphore done(0);
    int ran = 0;
    // Uses many blocks, because clients rarely send the same block repeatedly; the threads would contend for
    // its reference count.
    std::vector<Work> blocks;
    for (int i = 0; i < 256; ++i)
        blocks.emplace_back([&] {
            if (++ran == producerCount * count)
                done.release();
        });
    server.call([] {});
    const uint64_t start = nowNanoseconds();
    std::vector<std::thread> others;
    const auto produce = [&] {
        for (int i = 0; i < count; ++i)
            server.post(blocks[static_cast<size_t>(i) % blocks.size()]);
    };
    for (int t = 1; t < producerCount; ++t)
        others.emplace_back(produce);
    produce();
    done.acquire();
    const uint64_t length = nowNanoseconds() - start;
    for (std::thread& other : others)
        other.join();
    return producerCount * count / static_cast<double>(length) * 1e3;
}

void waitUntilTheServerSleeps()
{
    std::this_thread::sleep_for(std::chrono::microseconds(300));
}

/// The time from a call to a sleeping server until its reply, in nanoseconds.
double sleepingRoundTrip(Server& server)
{
    waitUntilTheServerSleeps();
    const uint64_t start = nowNanoseconds();
    server.call([] {});
    return static_cast<double>(nowNanoseconds() - start);
}

/// The time from a call until its reply in nanoseconds: a percentile of a hundred calls.
double roundTrip(Server& server, double part)
{
    std::vector<uint64_t> times;
    for (int i = 0; i < 100; ++i) {
        const uint64_t start = nowNanoseconds();
        server.call([] {});
        times.push_back(nowNanoseconds() - start);
    }
    std::ranges::sort(times);
    return static_cast<double>(percentile(times, part));
}

/// The time from a push onto a sleeping queue until the work runs, in nanoseconds.
double wakeUp(Server& server)
{
    waitUntilTheServerSleeps();
    std::binary_semaphore done(0);
    uint64_t ran = 0;
    const Work work = [&] {
        ran = nowNanoseconds();
        done.release();
    };
    const uint64_t start = nowNanoseconds();
    server.post(work);
    done.acquire();
    return static_cast<double>(ran - start);
}

/// Two threads that only wake each other: the kernel's share of the cost. They sleep between measurements, as
/// above.
class PingPong final : public Server {
public:
    PingPong() : _thread([this] { _serve(); }) {}
    ~PingPong() override
    {
        _work = nullptr;
        _raise(_asked, 1);
        _thread.join();
    }
    void post(const Work& work) override
    {
        _work = work;
        _raise(_asked, 1);
    }
    void call(const Work& work) override
    {
        post(work);
        _await(_answered, 1);
        _answered.store(0);
    }

private:
    static void _raise(std::atomic<uint32_t>& word, uint32_t value)
    {
        word.store(value);
        dxr::Futex::wakeOne(&word);
    }
    static void _await(std::atomic<uint32_t>& word, uint32_t value)
    {
        while (word.load() != value)
            dxr::Futex::wait(word, 1 - value);
    }
    void _serve()
    {
        for (;;) {
            _await(_asked, 1);
            _asked.store(0);
            if (!_work)
                return;
            _work();
            _raise(_answered, 1);
        }
    }
    std::atomic<uint32_t> _asked{0};
    std::atomic<uint32_t> _answered{0};
    Work _work;
    std::thread _thread;
};

void compare(const std::string& question, const std::string& unit, Comparison::Better better,
             Servers candidates, const std::function<double(Server&)>& measure, int rounds = 15)
{
    Comparison comparison(question, unit, better);
    std::vector<std::shared_ptr<Server>> running;
    stayOnProcessor(1); // the servers' processor; the scheduler's choice would matter more than the queues
    for (const auto& [name, make] : candidates) {
        running.emplace_back(make());
        comparison.add(name, [server = running.back(), measure] { return measure(*server); });
    }
    stayOnProcessor(0);
    comparison.run(rounds);
}

void compareBypass()
{
    constexpr int count = 20'000;
    OurQueue ours;
    std::mutex mutex;
    uint64_t sum = 0;
    const Work work = [&] { ++sum; };
    Comparison comparison("bypass on an idle queue, beside a mutex around the same call", "ns",
                          Comparison::Better::Lower);
    const auto perCall = [](const auto& call) {
        const uint64_t start = nowNanoseconds();
        for (int i = 0; i < count; ++i)
            call();
        return static_cast<double>(nowNanoseconds() - start) / count;
    };
    comparison.add("bypass once", [&] { return perCall([&] { ours.queue->dispatchSyncBypassOnce(work); }); });
    comparison.add("mutex", [&] {
        return perCall([&] {
            const std::scoped_lock lock(mutex);
            work();
        });
    });
    comparison.run(41);
}

/// How late a repeating 1 ms timer fires: each candidate records 400 fires.
void compareTimers()
{
    constexpr uint64_t period = 1'000'000;
    constexpr size_t fires = 400;
    const auto report = [](const char* name, std::vector<uint64_t> lateness) {
        std::ranges::sort(lateness);
        std::printf("    %-16s p50 %7.1f  p99 %7.1f\n", name,
                    static_cast<double>(percentile(lateness, 0.5)) / 1e3,
                    static_cast<double>(percentile(lateness, 0.99)) / 1e3);
    };
    std::printf("lateness of a 1 ms timer [us]\n");
    {
        OurQueue ours;
        std::vector<uint64_t> lateness;
        std::binary_semaphore done(0);
        const CXRef<CXDispatchTimer> timer = CXDispatchTimer::init();
        uint64_t due = nowNanoseconds() + period;
        timer->setTimeoutHandler([&](const CXRef<CXDispatchTimer>& self) {
            lateness.push_back((nowNanoseconds() - due) % period);
            due = nowNanoseconds() / period * period + period;
            if (lateness.size() == fires) {
                self->cancel();
                done.release();
                return;
            }
            self->setTimeoutAbsolute(due, 0);
        });
        timer->setTimeoutAbsolute(due, 0);
        timer->setDispatchQueue(ours.queue);
        done.acquire();
        report("CXDispatchTimer", lateness);
    }
    {
        asio::io_context context;
        asio::steady_timer timer(context);
        std::vector<uint64_t> lateness;
        uint64_t due = nowNanoseconds() + period;
        const auto arm = [&](const auto& again) -> void {
            timer.expires_at(std::chrono::steady_clock::time_point(std::chrono::nanoseconds(due)));
            timer.async_wait([&](const asio::error_code&) {
                lateness.push_back((nowNanoseconds() - due) % period);
                due = nowNanoseconds() / period * period + period;
                if (lateness.size() < fires)
                    again(again);
            });
        };
        arm(arm);
        context.run();
        report("asio", lateness);
    }
    {
        uv_loop_t loop;
        uv_loop_init(&loop);
        struct State {
            std::vector<uint64_t> lateness;
            uint64_t due = 0;
        } state;
        uv_timer_t timer;
        uv_timer_init(&loop, &timer);
        timer.data = &state;
        state.due = nowNanoseconds() + period;
        uv_timer_start(
            &timer,
            [](uv_timer_t* self) {
                auto& s = *static_cast<State*>(self->data);
                const uint64_t now = nowNanoseconds();
                s.lateness.push_back(now > s.due ? now - s.due : 0);
                s.due = now + period; // libuv uses its own millisecond clock
                if (s.lateness.size() == fires)
                    uv_timer_stop(self);
            },
            1, 1);
        uv_run(&loop, UV_RUN_DEFAULT);
        uv_loop_close(&loop);
        report("libuv", state.lateness);
    }
    {
        GMainContext* const context = g_main_context_new();
        struct State {
            std::vector<uint64_t> lateness;
            uint64_t due = 0;
        } state;
        state.due = nowNanoseconds() + period;
        GSource* const source = g_timeout_source_new(1);
        g_source_set_callback(
            source,
            [](void* data) -> gboolean {
                auto& s = *static_cast<State*>(data);
                const uint64_t now = nowNanoseconds();
                s.lateness.push_back(now > s.due ? now - s.due : 0);
                s.due = now + period;
                return s.lateness.size() < fires ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
            },
            &state, nullptr);
        g_source_attach(source, context);
        g_source_unref(source);
        while (state.lateness.size() < fires)
            g_main_context_iteration(context, TRUE);
        g_main_context_unref(context);
        report("GLib", state.lateness);
    }
}

} // namespace

int main()
{
    const IdleThread idle;
    using enum Comparison::Better;
    compareBypass();
    for (const int producers : {1, 2}) {
        compare(std::to_string(producers) + (producers == 1 ? " producer" : " producers"), "million items/s",
                Higher, servers(), [=](Server& server) { return itemsPerSecond(server, producers); });
    }
    Servers withPingPong = servers();
    withPingPong.emplace_back("bare futex", [] { return std::make_unique<PingPong>(); });
    compare("round trip, one after the other, p50", "ns", Lower, withPingPong,
            [](Server& server) { return roundTrip(server, 0.5); });
    compare("round trip, one after the other, p99", "ns", Lower, withPingPong,
            [](Server& server) { return roundTrip(server, 0.99); });
    // One measurement of each candidate per round, because the depth of a processor's sleep varies over time.
    compare("round trip to a sleeping queue, p50", "ns", Lower, withPingPong, sleepingRoundTrip, 1500);
    compare("wake-up of a sleeping queue, p50", "ns", Lower, withPingPong, wakeUp, 1500);
    compareTimers();
}
