#pragma once

#include "DemoStage.h"

#include <vector>

/// What somebody does to the demo's devices, and when: the headphones go, and come back in another port; later all
/// devices go at once, and come back one after the other.
/// Threads: one.
class DemoScript {
public:
    struct Deed {
        double seconds; ///< from the beginning, when it is due
        DemoStage::Device device;
        bool isPlug;
    };

    /// Spread over a run of `seconds`.
    DemoScript(DemoStage& stage, double seconds);

    size_t deedCount() const noexcept { return _deeds.size(); }
    /// The next deed that is due at `seconds`, done; nothing when there is none.
    std::optional<Deed> doNext(double seconds);

private:
    DemoStage& _stage;
    std::vector<Deed> _deeds; // by time
    size_t _done = 0;
};
