#include "SineFit.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

namespace {

constexpr double maxDecibels = 300.0; // the ratio if there is no noise at all

using Row = std::array<double, 3>;

/// Solves three linear equations by Cramer's rule. With many periods the equations are far from singular.
Row solve(const std::array<Row, 3>& m, const Row& right)
{
    const auto determinant = [](const std::array<Row, 3>& a) {
        return a[0][0] * (a[1][1] * a[2][2] - a[1][2] * a[2][1]) -
               a[0][1] * (a[1][0] * a[2][2] - a[1][2] * a[2][0]) +
               a[0][2] * (a[1][0] * a[2][1] - a[1][1] * a[2][0]);
    };
    Row solution{};
    for (size_t column = 0; column < 3; ++column) {
        auto replaced = m;
        for (size_t row = 0; row < 3; ++row)
            replaced[row][column] = right[row];
        solution[column] = determinant(replaced) / determinant(m);
    }
    return solution;
}

} // namespace

SineFit SineFit::of(std::span<const double> samples, double frequency, double sampleRate)
{
    SineFit fit;
    fit.frequency = frequency;
    if (samples.size() < 4)
        return fit;
    const double step = 2.0 * std::numbers::pi * frequency / sampleRate;
    const auto basis = [step](size_t frame) {
        const double angle = step * static_cast<double>(frame);
        return Row{std::sin(angle), std::cos(angle), 1.0};
    };
    std::array<Row, 3> normal{};
    Row right{};
    for (size_t frame = 0; frame < samples.size(); ++frame) {
        const Row values = basis(frame);
        for (size_t row = 0; row < 3; ++row) {
            right[row] += values[row] * samples[frame];
            for (size_t column = 0; column < 3; ++column)
                normal[row][column] += values[row] * values[column];
        }
    }
    const Row weights = solve(normal, right);
    fit.amplitude = std::hypot(weights[0], weights[1]);
    fit.phase = std::atan2(weights[1], weights[0]);
    double signal = 0.0, noise = 0.0;
    for (size_t frame = 0; frame < samples.size(); ++frame) {
        const Row values = basis(frame);
        const double sine = weights[0] * values[0] + weights[1] * values[1];
        fit.rest.push_back(samples[frame] - sine);
        signal += sine * sine;
        noise += fit.rest.back() * fit.rest.back();
    }
    if (signal > 0.0)
        fit.signalToNoise = std::min(maxDecibels, 10.0 * std::log10(signal / std::max(noise, 1e-300)));
    return fit;
}

SineFit SineFit::nearTo(std::span<const float> samples, double frequency, double sampleRate)
{
    constexpr int rounds = 3; // each reduces the error to a small fraction
    const std::vector<double> all(samples.begin(), samples.end());
    const std::span<const double> span = all;
    const size_t half = all.size() / 2;
    for (int round = 0; round < rounds && half >= 4; ++round) {
        // At the right frequency, the phase is continuous from the first half to the second.
        const double gained = of(span.subspan(half, half), frequency, sampleRate).phase -
                              of(span.first(half), frequency, sampleRate).phase -
                              2.0 * std::numbers::pi * frequency / sampleRate * static_cast<double>(half);
        frequency += std::remainder(gained, 2.0 * std::numbers::pi) / static_cast<double>(half) * sampleRate /
                     (2.0 * std::numbers::pi);
    }
    SineFit fit = of(span, frequency, sampleRate);
    fit.rest.clear();
    return fit;
}
