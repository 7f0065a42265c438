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

/// Draws an SVG picture. Later elements cover earlier ones. x grows to the right and y downwards. Texts may
/// contain any characters.
class Chart {
public:
    static constexpr const char *ink = "#1d2433", *faint = "#8a93a6", *grid = "#e6e9f0";
    /// The picture's width, and the left and right edges of its panels.
    static constexpr double width = 1000.0, left = 190.0, right = 960.0;
    struct Point {
        double x, y;
    };
    using TextStyle = ChartTextStyle;

    /// Draws the title and, below it, the wrapped results. Returns the y below them.
    double title(const std::string& name, const std::string& results);
    void text(Point at, const std::string& content, const TextStyle& style = {});
    void line(Point from, Point to, const char* colour = grid, double thickness = 1.0, bool isDashed = false);
    void rectangle(Point topLeft, double across, double down, const char* colour, double opacity = 0.8);
    void circle(Point centre, double radius, const char* colour);
    void curve(std::span<const Point> points, const char* colour, double thickness = 1.5);

    std::string svg(double height) const;
    /// Throws ToolFailure if the file cannot be written.
    static void writeFile(const std::string& path, const std::string& svg);

private:
    std::string _pieces;
};

/// The range of values along one side of a panel, and the grid lines across it.
struct ChartAxis {
    double from, to;
    std::function<std::string(double)> label; ///< returns the text of a grid line
    bool isLogarithmic = false;
    std::vector<double> marks = {}; ///< values of the grid lines; empty: round values

    /// The position of `value` on the axis, 0 to 1; values outside the axis are clamped.
    double share(double value) const;
    std::vector<double> lines() const;
    /// An axis over the middle 92 % of `values`, at least `minSpan` long. The extremes are left out because
    /// those at the start of a run would flatten the rest of the curve.
    static ChartAxis around(std::vector<double> values, double minSpan);
};

/// A rectangle with two axes, from Chart::left to Chart::right.
class ChartPanel {
public:
    static constexpr double below = 52.0; ///< height for its labels and the next panel's title
    struct Name {
        std::string text;
        const char* colour;
    };

    /// Draws the grid, its labels, the title, and the curves' `names` to the right of the title.
    ChartPanel(Chart& chart, double top, double height, const std::string& title, ChartAxis x, ChartAxis y,
               const std::vector<Name>& names = {});

    double bottom() const { return _top + _height; }
    Chart::Point place(Chart::Point value) const;
    /// Draws a curve through `values`, interrupted at NaN and where x increases by more than `maxGap`.
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

/// Returns a label function for an axis: the number followed by `unit`, for example " dB".
std::function<std::string(double)> chartLabel(const char* unit);
