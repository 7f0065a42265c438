#pragma once

#include "DriftSimulation.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

/// The clocks and cycle lengths that the promises are held for.
inline std::vector<DriftScenario> driftScenarios(double seconds)
{
    constexpr uint32_t frames[][2] = {{64, 64}, {256, 256}, {1024, 1024}, {64, 1024}, {1024, 256}};
    std::vector<DriftScenario> scenarios;
    for (const auto& [writer, reader] : frames) {
        DriftScenario scenario;
        scenario.seconds = seconds;
        scenario.writer.frameCount = writer;
        scenario.reader.frameCount = reader;
        for (const double partsPerMillion : {0.0, 1.0, -1.0, 50.0, -50.0, 200.0, -200.0, 500.0, -500.0}) {
            scenario.writer.partsPerMillion = partsPerMillion;
            scenarios.push_back(scenario);
        }
        scenario.writer.partsPerMillion = 0.0;
        scenario.writer.wanderPartsPerMillion = 10.0; // 20 from peak to peak, in ten minutes
        scenario.seconds = std::max(seconds, 1200.0);
        scenarios.push_back(scenario);
    }
    return scenarios;
}

/// Runs one and holds it to what is promised; prints its figures.
inline void expectSteadyDelay(const DriftScenario& scenario)
{
    const DriftOutcome outcome = simulateDrift(scenario);
    const bool wanders = scenario.writer.wanderPartsPerMillion > 0.0;
    std::printf(
        "%5u to %5u frames, %8s%+5.0f ppm, %6.0f s: settled after %5.2f s, delay %7.2f frames (%.2f cycles), "
        "wander %.3f frames, ratio %.3f ppm rms, %lu lost, %u resynchronised\n",
        scenario.writer.frameCount, scenario.reader.frameCount, wanders ? "wanders " : "",
        wanders ? scenario.writer.wanderPartsPerMillion : scenario.writer.partsPerMillion, scenario.seconds,
        outcome.settledSeconds, outcome.delayFrames,
        outcome.delayFrames / std::max(scenario.writer.frameCount, scenario.reader.frameCount),
        outcome.wanderFrames, outcome.ratioErrorRMS, static_cast<unsigned long>(outcome.lostFrames),
        outcome.resynchronisations);
    EXPECT_LE(outcome.settledSeconds, 15.0);
    EXPECT_LE(outcome.ratioErrorRMS, 1.0);
    EXPECT_LT(outcome.wanderFrames, 1.0);
    EXPECT_LE(outcome.delayFrames,
              3.0 * std::max(scenario.writer.frameCount, scenario.reader.frameCount) + 1.0);
    EXPECT_EQ(outcome.lostFrames, 0U);
    EXPECT_EQ(outcome.resynchronisations, 0U);
}
