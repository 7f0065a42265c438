#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <sched.h>
#include <string>
#include <thread>
#include <vector>

/// Nanoseconds on the monotonic clock.
inline uint64_t nowNanoseconds()
{
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                     std::chrono::steady_clock::now().time_since_epoch())
                                     .count());
}

/// Returns the value below which the fraction `part` of the sorted samples lies.
template <class T> T percentile(const std::vector<T>& sorted, double part)
{
    return sorted.empty() ? T{} : sorted[static_cast<size_t>(part * static_cast<double>(sorted.size() - 1))];
}

/// Measures our implementation and its peers in turn, several times, so that disturbances of the machine
/// affect all of them. Prints the medians, and the ratio of ours to the best peer's.
class Comparison {
public:
    enum class Better { Lower, Higher };
    using Measure = std::function<double()>;

    Comparison(std::string question, std::string unit, Better better)
        : _question(std::move(question)), _unit(std::move(unit)), _better(better)
    {}
    /// The first candidate is ours.
    void add(std::string name, Measure measure)
    {
        _candidates.push_back({std::move(name), std::move(measure), {}, _candidates.empty() ? Ours : Peer});
    }
    /// Adds a lower limit that no candidate can beat; it is printed but is not a peer.
    void addBare(std::string name, Measure measure)
    {
        _candidates.push_back({std::move(name), std::move(measure), {}, Bare});
    }
    void run(int rounds = 25)
    {
        for (int round = 0; round < rounds; ++round)
            for (Candidate& candidate : _candidates)
                candidate.results.push_back(candidate.measure());
        std::printf("%s [%s]\n   ", _question.c_str(), _unit.c_str());
        double best = 0;
        for (Candidate& candidate : _candidates) {
            std::ranges::sort(candidate.results);
            const double median = percentile(candidate.results, 0.5);
            std::printf(" %s %.4g%s", candidate.name.c_str(), median,
                        &candidate == &_candidates.back() ? "" : " |");
            if (candidate.kind == Peer &&
                (best == 0 || (_better == Better::Lower ? median < best : median > best)))
                best = median;
        }
        std::printf("\n    ours / best peer: %.2f\n", percentile(_candidates.front().results, 0.5) / best);
        std::fflush(stdout);
    }

private:
    enum Kind { Ours, Peer, Bare };
    struct Candidate {
        std::string name;
        Measure measure;
        std::vector<double> results;
        Kind kind;
    };
    const std::string _question;
    const std::string _unit;
    const Better _better;
    std::vector<Candidate> _candidates;
};

/// Keeps the calling thread on one processor, so that two threads that should run concurrently do. Has no
/// effect if the machine has too few processors.
inline void stayOnProcessor(unsigned processor)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(processor, &set);
    sched_setaffinity(0, sizeof set, &set);
}

/// Keeps a second thread running. In a process with a single thread, the C library omits atomic operations,
/// which would favour candidates that rely on them.
class IdleThread {
public:
    IdleThread()
    {
        std::thread([] {
            for (;;)
                std::this_thread::sleep_for(std::chrono::hours(1));
        }).detach();
    }
};
