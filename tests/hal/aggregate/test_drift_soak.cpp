#include "DriftTable.h"

namespace {

constexpr double day = 86400.0;

TEST(DriftSoak, losesNoFrameInADay)
{
    for (const DriftScenario& scenario : driftScenarios(day))
        expectSteadyDelay(scenario);
}

TEST(DriftSoak, leavesTonesCleanForMinutes)
{
    for (DriftScenario scenario : driftScenarios(120.0)) {
        scenario.seconds = 120.0;
        for (const double hertz : {1000.0, 10000.0}) {
            const DriftTone tone = simulateDriftOfTone(scenario, hertz, 15.0);
            std::printf("%4u to %4u frames, %+4.0f ppm, wander %2.0f: %5.0f Hz %.1f dB\n",
                        scenario.writer.frameCount, scenario.reader.frameCount,
                        scenario.writer.partsPerMillion, scenario.writer.wanderPartsPerMillion, hertz,
                        tone.signalToNoise);
            EXPECT_GE(tone.signalToNoise, 100.0);
        }
    }
}

} // namespace
