#pragma once

#include "DemoStage.h"

#include <vector>

/// What is done to the demo's devices, and when: the headphones go, and come back in another port; later all devices go at
/// once, and come back one after the other.
/// Threads: one.
class DemoScript {
public:
    struct Step {
        double seconds; ///< from the beginning, when it is due
        DemoStage::Device device;
        bool isPlug;
    };

    /// Spread over a run of `seconds`.
    DemoScript(DemoStage& stage, double seconds);

    size_t stepCount() const noexcept { return _steps.size(); }
    /// Does the next step that is due at `seconds`; nothing when there is none.
    std::optional<Step> doNext(double seconds);

private:
    DemoStage& _stage;
    std::vector<Step> _steps; // by time
    size_t _done = 0;
};
