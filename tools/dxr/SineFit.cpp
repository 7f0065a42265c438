#include "SineFit.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

namespace {

constexpr double mostDecibels = 300.0; // what is left over may be exactly nothing

struct BlockFit {
    double amplitude, signalEnergy, noiseEnergy;
    double phase; // radians, at the first frame
};

/// Solves three linear equations by Cramer's rule; they are far from singular for a block of many periods.
std::array<double, 3> solve(const std::array<std::array<double, 3>, 3>& m, const std::array<double, 3>& right)
{
    const auto determinant = [](const std::array<std::array<double, 3>, 3>& a) {
        return a[0][0] * (a[1][1] * a[2][2] - a[1][2] * a[2][1]) -
               a[0][1] * (a[1][0] * a[2][2] - a[1][2] * a[2][0]) +
               a[0][2] * (a[1][0] * a[2][1] - a[1][1] * a[2][0]);
    };
    std::array<double, 3> solution{};
    for (size_t column = 0; column < 3; ++column) {
        auto replaced = m;
        for (size_t row = 0; row < 3; ++row)
            replaced[row][column] = right[row];
        solution[column] = determinant(replaced) / determinant(m);
    }
    return solution;
}

BlockFit fitBlock(std::span<const float> block, double radiansPerFrame)
{
    const auto basis = [radiansPerFrame](size_t frame) {
        const double phase = radiansPerFrame * static_cast<double>(frame);
        return std::array{std::sin(phase), std::cos(phase), 1.0};
    };
    std::array<std::array<double, 3>, 3> normal{};
    std::array<double, 3> right{};
    for (size_t frame = 0; frame < block.size(); ++frame) {
        const std::array<double, 3> values = basis(frame);
        for (size_t row = 0; row < 3; ++row) {
            right[row] += values[row] * double{block[frame]};
            for (size_t column = 0; column < 3; ++column)
                normal[row][column] += values[row] * values[column];
        }
    }
    const std::array<double, 3> weights = solve(normal, right);
    BlockFit fit{std::hypot(weights[0], weights[1]), 0.0, 0.0, std::atan2(weights[1], weights[0])};
    for (size_t frame = 0; frame < block.size(); ++frame) {
        const std::array<double, 3> values = basis(frame);
        const double sine = weights[0] * values[0] + weights[1] * values[1];
        const double rest = double{block[frame]} - sine;
        fit.signalEnergy += sine * sine;
        fit.noiseEnergy += rest * rest;
    }
    return fit;
}

double decibels(double signalEnergy, double noiseEnergy)
{
    if (!(signalEnergy > 0.0))
        return 0.0;
    return noiseEnergy > 0.0 ? std::min(mostDecibels, 10.0 * std::log10(signalEnergy / noiseEnergy))
                             : mostDecibels;
}

} // namespace

SineFit SineFit::of(std::span<const float> samples, double frequency, double sampleRate)
{
    constexpr double blockSeconds = 0.1;
    const auto blockFrames = static_cast<size_t>(blockSeconds * sampleRate);
    const double radiansPerFrame = 2.0 * std::numbers::pi * frequency / sampleRate;
    SineFit fit;
    fit.frequency = frequency;
    double signal = 0.0;
    double noise = 0.0;
    size_t blocks = 0;
    for (size_t from = 0; from + blockFrames <= samples.size(); from += blockFrames) {
        const BlockFit block = fitBlock(samples.subspan(from, blockFrames), radiansPerFrame);
        const double quality = decibels(block.signalEnergy, block.noiseEnergy);
        fit.worstBlock = blocks == 0 ? quality : std::min(fit.worstBlock, quality);
        fit.amplitude += block.amplitude;
        signal += block.signalEnergy;
        noise += block.noiseEnergy;
        ++blocks;
    }
    if (blocks > 0)
        fit.amplitude /= static_cast<double>(blocks);
    fit.signalToNoise = decibels(signal, noise);
    return fit;
}

SineFit SineFit::nearTo(std::span<const float> samples, double frequency, double sampleRate)
{
    constexpr int rounds = 3; // each leaves a small part of the error before it
    SineFit fit;
    if (samples.size() < 8)
        return fit;
    double radiansPerFrame = 2.0 * std::numbers::pi * frequency / sampleRate;
    const size_t half = samples.size() / 2;
    for (int round = 0; round < rounds; ++round) {
        // At the right frequency the second half begins with the phase that the first ends with.
        const double gained = fitBlock(samples.subspan(half, half), radiansPerFrame).phase -
                              fitBlock(samples.first(half), radiansPerFrame).phase -
                              radiansPerFrame * static_cast<double>(half);
        radiansPerFrame += std::remainder(gained, 2.0 * std::numbers::pi) / static_cast<double>(half);
    }
    const BlockFit block = fitBlock(samples, radiansPerFrame);
    fit.amplitude = block.amplitude;
    fit.frequency = radiansPerFrame * sampleRate / (2.0 * std::numbers::pi);
    fit.signalToNoise = fit.worstBlock = decibels(block.signalEnergy, block.noiseEnergy);
    return fit;
}
