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

/// Draws an SVG picture, later elements over earlier ones. y grows downwards. Texts: any characters.
class Chart {
public:
    static constexpr const char *ink = "#1d2433", *faint = "#8a93a6", *grid = "#e6e9f0";
    /// The picture's width, and the left and right edges of its panels.
    static constexpr double width = 1000.0, left = 190.0, right = 960.0;
    struct Point {
        double x, y;
    };

    /// Draws the title and, below it, the wrapped results. Returns the y below them.
    double title(const std::string& name, const std::string& results);
    void text(Point at, const std::string& content, const ChartTextStyle& style = {});
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

struct ChartCurve {
    std::string name; ///< shown to the right of the panel's title
    const char* colour;
    std::vector<Chart::Point> points = {}; ///< in the units of the panel's axes

    /// A curve of `y` over `x`, which are members or functions of the items.
    template <class Items, class X, class Y>
    static ChartCurve of(const std::string& name, const char* colour, const Items& items, X x, Y y)
    {
        ChartCurve curve{name, colour};
        for (const auto& item : items)
            curve.points.push_back({std::invoke(x, item), std::invoke(y, item)});
        return curve;
    }
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
    /// A y axis over the middle 92 % of all points, at least `minSpan` long: the extremes at the start of a
    /// run would flatten the rest of the curve.
    static ChartAxis around(const std::vector<ChartCurve>& curves, double minSpan);
};

/// A rectangle with two axes, from Chart::left to Chart::right.
class ChartPanel {
public:
    static constexpr double below = 52.0; ///< height for its labels and the next panel's title

    /// Draws the grid, its labels, the title, and the curves, which are interrupted at NaN and where x
    /// increases by more than `maxGap`.
    ChartPanel(Chart& chart, double top, double height, const std::string& title, ChartAxis x, ChartAxis y,
               const std::vector<ChartCurve>& curves = {},
               double maxGap = std::numeric_limits<double>::infinity());

    double bottom() const { return _top + _height; }
    void dot(Chart::Point value, const char* colour) { _chart.circle(_place(value), 1.3, colour); }
    void horizontal(double y, const char* colour)
    {
        const double at = _place({0.0, y}).y;
        _chart.line({Chart::left, at}, {Chart::right, at}, colour, 1.4, true);
    }
    void vertical(double x, const char* colour, const std::string& name)
    {
        const double at = _place({x, 0.0}).x;
        _chart.line({at, _top}, {at, bottom()}, colour, 1.4, true);
        _chart.text({at + 6.0, _top + 12.0}, name, {colour, 11.0});
    }

private:
    Chart::Point _place(Chart::Point value) const
    {
        return {Chart::left + (Chart::right - Chart::left) * _x.share(value.x),
                bottom() - _height * _y.share(value.y)};
    }
    void _drawCurve(const ChartCurve& curve, double maxGap);

    Chart& _chart;
    const double _top, _height;
    const ChartAxis _x, _y;
};

/// Returns a label function for an axis: the number followed by `unit`, for example " dB".
std::function<std::string(double)> chartLabel(const char* unit);
