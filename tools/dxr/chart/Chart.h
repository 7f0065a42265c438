#pragma once

#include <functional>
#include <limits>
#include <span>
#include <string>
#include <vector>

struct ChartTextStyle {
    const char* colour = "#1d2433";
    double size = 12.0;
    const char* anchor = "start"; ///< the part of the text at its x: start, middle or end
    bool isBold = false;
};

/// A picture as SVG. Later pieces cover earlier ones; x is to the right, y down; texts may be anything.
/// Threads: one.
class Chart {
public:
    static constexpr const char *ink = "#1d2433", *faint = "#8a93a6", *grid = "#e6e9f0";
    /// Of the picture, and of the panels in it.
    static constexpr double width = 1000.0, left = 190.0, right = 960.0;
    struct Point {
        double x, y;
    };
    using TextStyle = ChartTextStyle;

    /// The title, and lines of results. Returns the y below them.
    double title(const std::string& name, const std::string& results);
    void text(Point at, const std::string& content, const TextStyle& style = {});
    void line(Point from, Point to, const char* colour = grid, double thickness = 1.0, bool isDashed = false);
    void rectangle(Point topLeft, double across, double down, const char* colour, double opacity = 0.8);
    void circle(Point centre, double radius, const char* colour);
    void curve(std::span<const Point> points, const char* colour, double thickness = 1.5);

    /// The picture, on a light ground.
    std::string svg(double height) const;
    /// Throws ToolFailure.
    static void writeFile(const std::string& path, const std::string& svg);

private:
    std::string _pieces;
};

/// The values along one side of a panel, and its grid.
struct ChartAxis {
    double from, to;
    std::function<std::string(double)> label; ///< of a grid line
    bool isLogarithmic = false;
    std::vector<double> marks = {}; ///< the grid lines; at round values if not given

    /// The place of a value, 0 to 1; values outside are at the end.
    double share(double value) const;
    std::vector<double> lines() const;
    /// An axis for the middle 92 % of `values`, and at least `minSpan`: extremes at the start would flatten
    /// the rest.
    static ChartAxis around(std::vector<double> values, double minSpan);
};

/// A rectangle with two axes, from the chart's left to its right. Threads: one.
class ChartPanel {
public:
    static constexpr double below = 52.0; ///< room for its labels and the title of the next
    struct Name {
        std::string text;
        const char* colour;
    };

    /// Draws the grid, its labels, the title, and the names of the curves at its right.
    ChartPanel(Chart& chart, double top, double height, const std::string& title, ChartAxis x, ChartAxis y,
               const std::vector<Name>& names = {});

    double bottom() const { return _top + _height; }
    Chart::Point place(Chart::Point value) const;
    /// A curve through values; it breaks at NaN, and where x steps by more than `maxGap`.
    void curve(std::span<const Chart::Point> values, const char* colour,
               double maxGap = std::numeric_limits<double>::infinity());
    void dot(Chart::Point value, const char* colour) { _chart.circle(place(value), 1.3, colour); }
    void horizontal(double y, const char* colour);
    void vertical(double x, const char* colour, const std::string& name);

private:
    Chart& _chart;
    const double _top, _height;
    const ChartAxis _x, _y;
};

/// Labels of axes: numbers with a unit, " dB".
std::function<std::string(double)> chartLabel(const char* unit);
