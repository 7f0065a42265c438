// How many reads per second does a reference support while a writer replaces its object every 100
// microseconds, compared with other ways to share a counted object between threads?

#include "CXLockFreeReference.h"
#include "Comparison.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <urcu/urcu-memb.h>

namespace {

class Payload final : public CXTFAObject {
public:
    static CXRef<Payload> init() { return CXRef<Payload>::adopt(new Payload); }
    uint64_t value = 1;

private:
    Payload() = default;
    ~Payload() override = default;
};

struct OurReference {
    CXRef<CXLockFreeReference> reference = CXLockFreeReference::initWithObjectReference(Payload::init());
    uint64_t read() const { return static_cast<Payload*>(reference->copyObjectReference().get())->value; }
    void write() const { reference->setObjectReference(Payload::init()); }
};

struct AtomicSharedPointer {
    std::atomic<std::shared_ptr<uint64_t>> pointer{std::make_shared<uint64_t>(1)};
    uint64_t read() const { return *pointer.load(); }
    void write() { pointer.store(std::make_shared<uint64_t>(1)); }
};

struct MutexAndPointer {
    std::mutex mutex;
    CXRef<Payload> object = Payload::init();
    uint64_t read()
    {
        CXRef<Payload> copy;
        {
            const std::scoped_lock lock(mutex);
            copy = object;
        }
        return copy->value;
    }
    void write()
    {
        CXRef<Payload> fresh = Payload::init();
        const std::scoped_lock lock(mutex);
        std::swap(object, fresh);
    }
};

/// Read-copy-update; the reader retains the object so that it may keep it.
struct Urcu {
    std::atomic<Payload*> object{Payload::init().leak()};
    ~Urcu() { object.load()->release(); }
    uint64_t read() const
    {
        urcu_memb_read_lock();
        const CXRef<Payload> copy(object.load(std::memory_order_acquire));
        urcu_memb_read_unlock();
        return copy->value;
    }
    void write()
    {
        const Payload* const old = object.exchange(Payload::init().leak());
        urcu_memb_synchronize_rcu();
        old->release();
    }
};

/// The minimum for a counted reader and a retained object: four atomic operations on two cache lines.
struct FourExchanges {
    alignas(64) mutable std::atomic<uint64_t> word{0};
    alignas(64) mutable std::atomic<uint64_t> count{1};
    uint64_t read() const
    {
        ++word;
        ++count;
        --word;
        --count;
        return 1;
    }
    void write() const {}
};

/// Millions of reads per second, of all readers together.
template <class Reference> double readsPerSecond(int readerCount)
{
    constexpr auto length = std::chrono::milliseconds(20);
    Reference reference;
    std::atomic<bool> isOver{false};
    std::atomic<uint64_t> reads{0};
    std::atomic<uint64_t> nanoseconds{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < readerCount; ++t) {
        threads.emplace_back([&, t] {
            stayOnProcessor(static_cast<unsigned>(t));
            urcu_memb_register_thread();
            uint64_t mine = 0;
            uint64_t sum = 0;
            const uint64_t start = nowNanoseconds();
            for (; !isOver.load(std::memory_order_relaxed); ++mine)
                sum += reference.read();
            nanoseconds += nowNanoseconds() - start;
            reads += sum == mine ? mine : 0;
            urcu_memb_unregister_thread();
        });
    }
    std::thread writer([&] {
        while (!isOver) {
            reference.write();
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
    });
    std::this_thread::sleep_for(length);
    isOver = true;
    for (std::thread& thread : threads)
        thread.join();
    writer.join();
    return static_cast<double>(reads.load()) * readerCount / static_cast<double>(nanoseconds.load()) * 1e3;
}

} // namespace

int main()
{
    const IdleThread idle;
    for (const int readers : {1, 2}) {
        Comparison comparison(std::to_string(readers) + (readers == 1 ? " reader" : " readers"),
                              "million reads/s", Comparison::Better::Higher);
        comparison.add("CXLockFreeReference", [=] { return readsPerSecond<OurReference>(readers); });
        comparison.add("atomic<shared_ptr>", [=] { return readsPerSecond<AtomicSharedPointer>(readers); });
        comparison.add("mutex", [=] { return readsPerSecond<MutexAndPointer>(readers); });
        comparison.add("liburcu, retained", [=] { return readsPerSecond<Urcu>(readers); });
        comparison.addBare("bare: four exchanges", [=] { return readsPerSecond<FourExchanges>(readers); });
        comparison.run();
    }
}
