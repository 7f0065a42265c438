#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

/// Times several candidates for the same work. They run in turn many times, so that a disturbance of the
/// machine affects all of them, and the medians are compared.
class Contest {
public:
    /// `work` performs some units of work and returns their number.
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
    /// Prints the table. Unless `reference` is empty, each figure is followed by its ratio to that of
    /// `reference`.
    void print(const std::string& reference, int digits = 2) const;

private:
    std::string _title;
    std::vector<std::string> _heads, _names;
    std::vector<std::vector<double>> _columns;
};
