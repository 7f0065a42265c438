#pragma once

#include <span>
#include <string>

/// A picture that is put together piece by piece, as SVG. Later pieces cover earlier ones; x grows to the right, y down.
/// Colours are SVG's; texts may hold anything. Threads: one.
class SvgDrawing {
public:
    struct Point {
        double x, y;
    };
    struct TextStyle {
        const char* colour;
        double size;
        const char* anchor = "start"; ///< what of the text stands at its x: start, middle or end
        bool isBold = false;
    };

    void text(Point at, const std::string& content, const TextStyle& style);
    void line(Point from, Point to, const char* colour, double thickness = 1.0);
    void dashedLine(Point from, Point to, const char* colour);
    void rectangle(Point topLeft, double width, double height, const char* colour, double opacity = 1.0,
                   double cornerRadius = 0.0);
    void circle(Point centre, double radius, const char* fill, const char* edge);
    void curve(std::span<const Point> points, const char* colour, double thickness = 1.5);
    /// All of another drawing, on top.
    void add(const SvgDrawing& drawing) { _pieces += drawing._pieces; }

    /// The whole, on white.
    std::string svg(double width, double height) const;

private:
    std::string _pieces;
};
