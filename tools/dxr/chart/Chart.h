#pragma once

#include <functional>
#include <limits>
#include <span>
#include <string>
#include <vector>

struct ChartTextStyle {
    const char* colour = "#1d2433";
    double size = 12.0;
    const char* anchor = "start"; ///< what of the text stands at its x: start, middle or end
    bool isBold = false;
};

/// A picture as SVG, put together piece by piece: later pieces cover earlier ones. x grows to the right, y down. Colours are
/// SVG's; texts may hold anything. Threads: one.
class Chart {
public:
    static constexpr const char *ink = "#1d2433", *faint = "#8a93a6", *grid = "#e6e9f0";
    static constexpr double width = 1000.0, left = 190.0,
                            right = 960.0; ///< of the picture, and of what is drawn in it
    struct Point {
        double x, y;
    };
    using TextStyle = ChartTextStyle;

    /// The title of the picture with lines of results under it. Returns where what follows may begin.
    double title(const std::string& name, const std::string& results);
    void text(Point at, const std::string& content, const TextStyle& style = {});
    void line(Point from, Point to, const char* colour = grid, double thickness = 1.0, bool isDashed = false);
    void rectangle(Point topLeft, double across, double down, const char* colour, double opacity = 0.8);
    void circle(Point centre, double radius, const char* colour);
    void curve(std::span<const Point> points, const char* colour, double thickness = 1.5);

    /// The whole, on a light ground.
    std::string svg(double height) const;
    /// Writes it to a file. Throws ToolFailure.
    void write(const std::string& path, double height) const { writeFile(path, svg(height)); }
    static void writeFile(const std::string& path, const std::string& svg);

private:
    std::string _pieces;
};

/// The values along one side of a panel, and its grid.
struct ChartAxis {
    double from, to;
    std::function<std::string(double)> label; ///< of a line of the grid
    bool isLogarithmic = false;
    std::vector<double> marks = {}; ///< where the grid's lines are; at round values if not given

    /// Where a value stands, 0 to 1; those outside stand at the end.
    double share(double value) const;
    std::vector<double> lines() const;
    /// An axis that shows the middle 92 % of `values`, and at least `minSpan`: the first moments would press the rest flat.
    static ChartAxis around(std::vector<double> values, double minSpan);
};

/// A rectangle of a chart with two axes, between the chart's left and right. Threads: one.
class ChartPanel {
public:
    static constexpr double below = 52.0; ///< room for the labels under it and the title of the next
    static constexpr double pointGap = std::numeric_limits<double>::infinity();
    struct Name {
        std::string text;
        const char* colour;
    };

    /// Draws the grid, its labels, the title above and at its right the names of what is to be drawn.
    ChartPanel(Chart& chart, double top, double height, const std::string& title, ChartAxis x, ChartAxis y,
               const std::vector<Name>& names = {});

    double bottom() const { return _top + _height; }
    Chart::Point place(Chart::Point value) const;
    /// A curve through values; it breaks at what is not a number, and where x goes on by more than `maxGap`.
    void curve(std::span<const Chart::Point> values, const char* colour, double maxGap = pointGap);
    void dot(Chart::Point value, const char* colour) { _chart.circle(place(value), 1.3, colour); }
    void horizontal(double y, const char* colour);
    void vertical(double x, const char* colour, const std::string& name);

private:
    Chart& _chart;
    const double _top, _height;
    const ChartAxis _x, _y;
};

/// Labels of axes: the number with its unit, as " dB".
std::function<std::string(double)> chartLabel(const char* unit);
