#pragma once

#include <dxr/simulated.h>
#include <functional>
#include <string>
#include <vector>

/// What somebody does to the demo's devices, and when.
/// Threads: one.
class DemoScript {
public:
    /// Deeds for a run of `seconds`, spread over it.
    DemoScript(CXRef<SimulatedBackend> backend, double seconds);

    /// Does everything that is due at `seconds`. Answers how many deeds that were.
    size_t doWhatIsDue(double seconds);
    size_t deedCount() const noexcept { return _deeds.size(); }

private:
    struct Deed {
        double seconds;
        std::function<void()> act;
    };

    const CXRef<SimulatedBackend> _backend;
    std::vector<Deed> _deeds; // by time
    size_t _done = 0;
};
