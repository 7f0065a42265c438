#include "SvgShapes.h"

#include "DisplayText.h"
#include "TextFormat.h"

#include <cmath>

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

} // namespace

double svgNiceStep(double span)
{
    const double decade = std::pow(10.0, std::floor(std::log10(span / 5.0)));
    for (const double factor : {1.0, 2.0, 5.0})
        if (span / (decade * factor) <= 6.0)
            return decade * factor;
    return decade * 10.0;
}

std::string svgHead(double width, double height)
{
    return formatText("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"%.0f\" "
                      "viewBox=\"0 0 %.0f %.0f\" font-family=\"DejaVu Sans, Helvetica, Arial, sans-serif\">\n"
                      "<rect width=\"%.0f\" height=\"%.0f\" fill=\"#fdfdfe\"/>\n",
                      width, height, width, height, width, height);
}

std::string svgText(double x, double y, const std::string& content, const char* colour, double size,
                    const char* anchor, const char* weight)
{
    return formatText("<text x=\"%.1f\" y=\"%.1f\" fill=\"%s\" font-size=\"%.1f\" text-anchor=\"%s\" "
                      "font-weight=\"%s\">",
                      x, y, colour, size, anchor, weight) +
           escaped(content) + "</text>\n";
}

std::string svgLine(double x1, double y1, double x2, double y2, const char* colour, double thickness,
                    bool isDashed)
{
    return formatText("<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"%s\" "
                      "stroke-width=\"%.1f\"%s/>\n",
                      x1, y1, x2, y2, colour, thickness, isDashed ? " stroke-dasharray=\"5 4\"" : "");
}

std::string svgRectangle(double x, double y, double width, double height, const char* colour, double opacity)
{
    return formatText("<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" fill=\"%s\" "
                      "fill-opacity=\"%.2f\"/>\n",
                      x, y, width, height, colour, opacity);
}
