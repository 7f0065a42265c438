#include "SvgDrawing.h"

#include "DisplayText.h"
#include "TextFormat.h"

namespace {

std::string escaped(const std::string& text)
{
    std::string safe;
    for (const char character : singleLine(text)) {
        switch (character) {
        case '&':
            safe += "&amp;";
            break;
        case '<':
            safe += "&lt;";
            break;
        case '>':
            safe += "&gt;";
            break;
        case '"':
            safe += "&quot;";
            break;
        default:
            safe += character;
        }
    }
    return safe;
}

std::string lineElement(SvgDrawing::Point from, SvgDrawing::Point to, const char* colour, double thickness,
                        const char* extra)
{
    return formatText(
        "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"%s\" stroke-width=\"%.1f\"%s/>\n",
        from.x, from.y, to.x, to.y, colour, thickness, extra);
}

} // namespace

void SvgDrawing::text(Point at, const std::string& content, const TextStyle& style)
{
    _pieces +=
        formatText("<text x=\"%.1f\" y=\"%.1f\" fill=\"%s\" font-size=\"%.1f\" text-anchor=\"%s\"%s>", at.x,
                   at.y, style.colour, style.size, style.anchor, style.isBold ? " font-weight=\"600\"" : "") +
        escaped(content) + "</text>\n";
}

void SvgDrawing::line(Point from, Point to, const char* colour, double thickness)
{
    _pieces += lineElement(from, to, colour, thickness, "");
}

void SvgDrawing::dashedLine(Point from, Point to, const char* colour)
{
    _pieces += lineElement(from, to, colour, 1.0, " stroke-dasharray=\"4 4\"");
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
    return formatText("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"%.0f\" "
                      "viewBox=\"0 0 %.0f %.0f\" font-family=\"DejaVu Sans, Helvetica, Arial, sans-serif\">\n"
                      "<rect width=\"%.0f\" height=\"%.0f\" fill=\"#fdfdfe\"/>\n",
                      width, height, width, height, width, height) +
           _pieces + "</svg>\n";
}
