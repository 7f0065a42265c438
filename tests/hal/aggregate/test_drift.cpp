#include "ClockTracker.h"
#include "DriftSimulation.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace {

/// Of the simulated time, in the long runs: DXR_SOAK_SECONDS.
double secondsOr(double otherwise)
{
    const char* const seconds = std::getenv("DXR_SOAK_SECONDS");
    return seconds ? std::atof(seconds) : otherwise;
}

/// The clocks and cycle lengths that the promises are held for.
std::vector<DriftScenario> driftScenarios(double seconds)
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

std::string textOf(const DriftScenario& scenario)
{
    char text[100];
    std::snprintf(text, sizeof text, "%u to %u frames, %+.0f ppm, wander %.0f, lateness %.0f",
                  scenario.writer.frameCount, scenario.reader.frameCount, scenario.writer.partsPerMillion,
                  scenario.writer.wanderPartsPerMillion, scenario.lateness);
    return text;
}

TEST(Drift, keepsTheDelayWhateverTheClocksDo)
{
    for (const DriftScenario& scenario : driftScenarios(secondsOr(90.0))) {
        SCOPED_TRACE(textOf(scenario));
        const DriftOutcome outcome = simulateDrift(scenario);
        EXPECT_LE(outcome.settledSeconds, 15.0);
        EXPECT_LE(outcome.ratioErrorRMS, 1.0);
        EXPECT_LT(outcome.wanderFrames, 1.0);
        EXPECT_LE(outcome.delayFrames,
                  3.0 * std::max(scenario.writer.frameCount, scenario.reader.frameCount) + 1.0);
        EXPECT_EQ(outcome.lostFrames, 0U);
        EXPECT_EQ(outcome.resynchronisations, 0U);
    }
}

TEST(Drift, leavesTonesClean)
{
    const struct {
        uint32_t writer, reader;
        double partsPerMillion, wander, lateness;
    } rows[] = {
        {64, 64, 200.0, 0.0, 1.0},  {256, 256, -500.0, 0.0, 1.0}, {1024, 1024, 50.0, 0.0, 1.0},
        {64, 1024, 0.0, 10.0, 1.0}, {512, 512, 200.0, 0.0, 0.0},
    };
    std::vector<DriftScenario> scenarios;
    if (const double seconds = secondsOr(0.0); seconds > 0.0)
        scenarios = driftScenarios(120.0);
    for (const auto& row : rows) {
        DriftScenario& scenario = scenarios.emplace_back();
        scenario.writer.frameCount = row.writer;
        scenario.reader.frameCount = row.reader;
        scenario.writer.partsPerMillion = row.partsPerMillion;
        scenario.writer.wanderPartsPerMillion = row.wander;
        scenario.lateness = row.lateness;
        scenario.seconds = 40.0;
    }
    for (DriftScenario& scenario : scenarios) {
        SCOPED_TRACE(textOf(scenario));
        scenario.seconds = std::min(scenario.seconds, 120.0);
        for (const double hertz : {1000.0, 10000.0}) {
            const DriftTone tone = simulateDriftOfTone(scenario, hertz, 15.0);
            EXPECT_GE(tone.signalToNoise, 100.0) << hertz;
            EXPECT_GE(tone.worstBlock, scenario.lateness == 0.0 ? 120.0 : 85.0)
                << hertz; // of a tenth of a second
        }
    }
}

double meanDelay(const DriftOutcome& outcome, double from, double to)
{
    double sum = 0.0;
    int count = 0;
    for (const DriftPoint& point : outcome.points)
        if (point.seconds >= from && point.seconds < to) {
            sum += point.delayFrames;
            ++count;
        }
    return sum / count;
}

/// A fault costs the sound that was missing and little more, and leaves the delay as it was.
TEST(Drift, comesBackToTheSameDelayAfterAFault)
{
    using Kind = DriftFault::Kind;
    struct {
        const char* why;
        DriftFault fault;
        double maxLostSeconds;
        uint32_t maxResynchronisations;
    } const rows[] = {
        {"a burst after a stall is not a faster clock", {Kind::ThreadStalls, true, 40.0, 1.0}, 1.05, 0},
        {"nor on the side that reads", {Kind::ThreadStalls, false, 40.0, 1.0}, 0.0, 0},
        {"a clock that stood still is another clock", {Kind::ClockPauses, true, 40.0, 1.0}, 1.2, 1},
        {"on either side", {Kind::ClockPauses, false, 40.0, 1.0}, 0.0, 1},
        {"lost cycles stay where they were", {Kind::LosesCycles, true, 40.0, 0.3}, 0.31, 0},
        {"and so do those of the reader", {Kind::LosesCycles, false, 40.0, 0.3}, 0.0, 0},
        {"a rate that changes is followed", {Kind::RateChanges, true, 40.0, 0.0, 100.0}, 0.0, 0},
        {"also down", {Kind::RateChanges, false, 40.0, 0.0, 100.0}, 0.0, 0},
        {"and so is a rate far from nominal", {Kind::RateChanges, true, 0.0, 0.0, -81250.0}, 0.5, 30},
    };
    for (const auto& row : rows)
        for (const uint32_t frames : {64U, 512U}) {
            DriftScenario scenario;
            scenario.writer.frameCount = scenario.reader.frameCount = frames;
            scenario.writer.partsPerMillion = 100.0;
            scenario.seconds = 110.0;
            scenario.faults = {row.fault};
            const DriftOutcome outcome = simulateDrift(scenario);
            EXPECT_NEAR(meanDelay(outcome, 30.0, 40.0), meanDelay(outcome, 100.0, 110.0), 2.0)
                << row.why << ", " << frames;
            EXPECT_LE(static_cast<double>(outcome.lostFrames) / 48000.0, row.maxLostSeconds)
                << row.why << ", " << frames;
            EXPECT_LE(outcome.resynchronisations, row.maxResynchronisations) << row.why << ", " << frames;
        }
}

/// Lost cycles one after the other are no other rate.
TEST(Drift, keepsTheRateThroughRepeatedJumps)
{
    constexpr uint64_t period = 10'666'667;    // nanoseconds of 512 frames
    for (const uint64_t apart : {3, 12, 30}) { // cycles
        ClockTracker tracker(48000.0);
        uint64_t frame = 0;
        uint32_t resynchronisations = 0;
        for (uint64_t cycle = 0; cycle < 3000; ++cycle) {
            frame += 512;
            if (cycle > 1000 && cycle < 1100 && cycle % apart == 0)
                frame += 512;
            resynchronisations +=
                tracker.update(cycle * period, frame) == ClockTracker::Outcome::Resynchronised;
            if (cycle > 900) {
                ASSERT_NEAR(tracker.rateRatio(), 1.0, 1e-6) << "cycle " << cycle;
            }
        }
        EXPECT_GE(resynchronisations, 1U);
        EXPECT_NEAR(tracker.frameAt(3000.0 * period), static_cast<double>(frame + 512), 1.0);
    }
}

TEST(Drift, convertsBetweenRatesAndLeavesOneClockAlone)
{
    DriftScenario scenario;
    scenario.seconds = 60.0;
    scenario.writer.rate = 44100.0;
    scenario.writer.partsPerMillion = 80.0;
    DriftOutcome outcome = simulateDrift(scenario);
    EXPECT_LT(outcome.wanderFrames, 1.0);
    EXPECT_EQ(outcome.lostFrames + outcome.resynchronisations, 0U);
    EXPECT_GE(simulateDriftOfTone(scenario, 1000.0, 15.0).signalToNoise, 100.0);

    scenario.writer = scenario.reader;
    scenario.compensates = false;
    outcome = simulateDrift(scenario);
    EXPECT_EQ(outcome.ratioErrorRMS, 0.0);
    EXPECT_LT(outcome.wanderFrames, 0.01);
    EXPECT_EQ(outcome.lostFrames + outcome.resynchronisations, 0U);

    scenario.writer.partsPerMillion = 300.0; // left alone though it should not be
    outcome = simulateDrift(scenario);
    EXPECT_GE(outcome.resynchronisations, 1U);
    EXPECT_LE(outcome.resynchronisations, 8U);
}

} // namespace
