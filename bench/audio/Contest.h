#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

/// Candidates for the same work, timed in turn many times over, so that a disturbance of the machine meets all
/// of them; the medians are compared.
class Contest {
public:
    /// `work` does a piece of work and returns how many units it did.
    void add(const std::string& name, std::function<uint64_t()> work);
    /// Nanoseconds per unit of each candidate, in the order they were added.
    std::vector<double> run() const;
    const std::vector<std::string>& names() const noexcept { return _names; }

private:
    std::vector<std::string> _names;
    std::vector<std::function<uint64_t()>> _work;
};

/// A table of figures: rows are candidates, columns are cases.
class FigureTable {
public:
    explicit FigureTable(std::string title) : _title(std::move(title)) {}
    /// The figures of one case for all candidates, whose names must be the same in every case.
    void addColumn(const std::string& head, const std::vector<std::string>& names,
                   const std::vector<double>& figures);
    /// Prints the table; every figure with its ratio to that of `reference`, unless that is empty.
    void print(const std::string& reference, int digits = 2) const;

private:
    std::string _title;
    std::vector<std::string> _heads, _names;
    std::vector<std::vector<double>> _columns;
};
