#include "SvgDrawing.h"

#include "SvgShapes.h"
#include "TextFormat.h"

void SvgDrawing::text(Point at, const std::string& content, const TextStyle& style)
{
    _pieces +=
        svgText(at.x, at.y, content, style.colour, style.size, style.anchor, style.isBold ? "600" : "400");
}

void SvgDrawing::line(Point from, Point to, const char* colour, double thickness)
{
    _pieces += svgLine(from.x, from.y, to.x, to.y, colour, thickness);
}

void SvgDrawing::dashedLine(Point from, Point to, const char* colour)
{
    _pieces += svgLine(from.x, from.y, to.x, to.y, colour, 1.0, true);
}

void SvgDrawing::rectangle(Point topLeft, double width, double height, const char* colour, double opacity,
                           double cornerRadius)
{
    _pieces +=
        formatText("<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" rx=\"%.1f\" fill=\"%s\" "
                   "fill-opacity=\"%.2f\"/>\n",
                   topLeft.x, topLeft.y, width, height, cornerRadius, colour, opacity);
}

void SvgDrawing::circle(Point centre, double radius, const char* fill, const char* edge)
{
    _pieces += formatText(
        "<circle cx=\"%.1f\" cy=\"%.1f\" r=\"%.1f\" fill=\"%s\" stroke=\"%s\" stroke-width=\"1.8\"/>\n",
        centre.x, centre.y, radius, fill, edge);
}

void SvgDrawing::curve(std::span<const Point> points, const char* colour, double thickness)
{
    if (points.empty())
        return;
    _pieces +=
        formatText("<polyline fill=\"none\" stroke=\"%s\" stroke-width=\"%.1f\" stroke-linejoin=\"round\" "
                   "points=\"",
                   colour, thickness);
    for (const Point& point : points)
        _pieces += formatText("%.1f,%.1f ", point.x, point.y);
    _pieces += "\"/>\n";
}

std::string SvgDrawing::svg(double width, double height) const
{
    return svgHead(width, height) + _pieces + "</svg>\n";
}
