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

/// The value below which `part` of the sorted samples lie.
template <class T> T percentile(const std::vector<T>& sorted, double part)
{
    return sorted.empty() ? T{} : sorted[static_cast<size_t>(part * static_cast<double>(sorted.size() - 1))];
}

/// One question asked of ourselves and of peers, in turn and several times over, so that what else the
/// machine does hits all of them alike. Prints the medians, and ours against the best peer's.
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
    /// What the machine charges for the least that any candidate must do; shown, but not a peer.
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

/// Keeps the calling thread on one processor, so that two threads meant to run side by side do. Where there
/// are too few processors it changes nothing.
inline void stayOnProcessor(unsigned processor)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(processor, &set);
    sched_setaffinity(0, sizeof set, &set);
}

/// A second thread for as long as it lives: with one alone the C library leaves its atomics out and flatters
/// code that relies on them.
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
