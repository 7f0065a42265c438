#include "Contest.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>

namespace {

using Clock = std::chrono::steady_clock;
constexpr int rounds = 61;
constexpr std::chrono::microseconds turn{400};

double nanosecondsPerUnit(const std::function<uint64_t()>& work)
{
    uint64_t units = 0;
    const Clock::time_point begin = Clock::now();
    Clock::time_point end = begin;
    do {
        for (int i = 0; i < 8; ++i)
            units += work();
        end = Clock::now();
    } while (end - begin < turn);
    return std::chrono::duration<double, std::nano>(end - begin).count() / static_cast<double>(units);
}

} // namespace

void Contest::add(const std::string& name, std::function<uint64_t()> work)
{
    _names.push_back(name);
    _work.push_back(std::move(work));
}

std::vector<double> Contest::run() const
{
    std::vector<std::vector<double>> times(_work.size());
    for (int round = 0; round < rounds; ++round)
        for (size_t i = 0; i < _work.size(); ++i)
            times[i].push_back(nanosecondsPerUnit(_work[i]));
    std::vector<double> medians;
    for (std::vector<double>& all : times) {
        std::nth_element(all.begin(), all.begin() + rounds / 2, all.end());
        medians.push_back(all[rounds / 2]);
    }
    return medians;
}

void FigureTable::addColumn(const std::string& head, const std::vector<std::string>& names,
                            const std::vector<double>& figures)
{
    _heads.push_back(head);
    _names = names;
    _columns.push_back(figures);
}

void FigureTable::print(const std::string& reference, int digits) const
{
    const auto place = std::find(_names.begin(), _names.end(), reference) - _names.begin();
    const bool hasRatios = place < static_cast<ptrdiff_t>(_names.size());
    std::printf("\n%s%s\n%-26s", _title.c_str(), hasRatios ? (" (ratio to " + reference + ")").c_str() : "",
                "");
    for (const std::string& head : _heads)
        std::printf(hasRatios ? " %15s" : " %9s", head.c_str());
    std::printf("\n");
    for (size_t row = 0; row < _names.size(); ++row) {
        std::printf("%-26s", _names[row].c_str());
        for (const std::vector<double>& column : _columns) {
            if (hasRatios)
                std::printf(" %8.*f (%4.2f)", digits, column[row],
                            column[row] / column[static_cast<size_t>(place)]);
            else if (std::isnan(column[row]))
                std::printf(" %9s", "-");
            else
                std::printf(" %9.*f", digits, column[row]);
        }
        std::printf("\n");
    }
    std::fflush(stdout);
}
