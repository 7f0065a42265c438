#include "Chart.h"

#include "Text.h"

#include <algorithm>
#include <cmath>
#include <dxr/CXStringAdditions.h>
#include <fstream>

namespace {

std::string escaped(const std::string& text)
{
    std::string safe = singleLine(text);
    for (const auto& [character, entity] :
         {std::pair("&", "&amp;"), {"<", "&lt;"}, {">", "&gt;"}, {"\"", "&quot;"}}) // & first
        simpleReplace(safe, character, entity);
    return safe;
}

/// Returns 1, 2 or 5 times a power of ten, about a fifth of `span`, which must be above 0.
double niceStep(double span)
{
    const double decade = std::pow(10.0, std::floor(std::log10(span / 5.0)));
    for (const double factor : {1.0, 2.0, 5.0})
        if (span / (decade * factor) <= 6.0)
            return decade * factor;
    return decade * 10.0;
}

} // namespace

// ---- Chart

double Chart::title(const std::string& name, const std::string& results)
{
    constexpr size_t columns = 120;
    text({24.0, 36.0}, name, {ink, 20.0, "start", true});
    double y = 60.0;
    for (const std::string& line : wrapped(singleLine(results), columns)) {
        text({24.0, y}, line, {faint, 12.5});
        y += 17.0;
    }
    return y + 24.0;
}

void Chart::text(Point at, const std::string& content, const ChartTextStyle& style)
{
    _pieces +=
        formatText("<text x=\"%.1f\" y=\"%.1f\" fill=\"%s\" font-size=\"%.1f\" text-anchor=\"%s\"%s>", at.x,
                   at.y, style.colour, style.size, style.anchor, style.isBold ? " font-weight=\"600\"" : "") +
        escaped(content) + "</text>\n";
}

void Chart::line(Point from, Point to, const char* colour, double thickness, bool isDashed)
{
    _pieces += formatText("<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"%s\" "
                          "stroke-width=\"%.1f\"%s/>\n",
                          from.x, from.y, to.x, to.y, colour, thickness,
                          isDashed ? " stroke-dasharray=\"5 4\"" : "");
}

void Chart::rectangle(Point topLeft, double across, double down, const char* colour, double opacity)
{
    _pieces += formatText("<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" fill=\"%s\" "
                          "fill-opacity=\"%.2f\"/>\n",
                          topLeft.x, topLeft.y, across, down, colour, opacity);
}

void Chart::circle(Point centre, double radius, const char* colour)
{
    _pieces += formatText("<circle cx=\"%.1f\" cy=\"%.1f\" r=\"%.1f\" fill=\"%s\"/>\n", centre.x, centre.y,
                          radius, colour);
}

void Chart::curve(std::span<const Point> points, const char* colour, double thickness)
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

std::string Chart::svg(double height) const
{
    return formatText("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"%.0f\" "
                      "viewBox=\"0 0 %.0f %.0f\" font-family=\"DejaVu Sans, Helvetica, Arial, sans-serif\">\n"
                      "<rect width=\"100%%\" height=\"100%%\" fill=\"#fdfdfe\"/>\n",
                      width, height, width, height) +
           _pieces + "</svg>\n";
}

void Chart::writeFile(const std::string& path, const std::string& svg)
{
    std::ofstream file(path, std::ios::binary);
    file << svg;
    if (!file.flush())
        throw ToolFailure(singleLine(path) + ": cannot be written");
}

// ---- ChartAxis

double ChartAxis::share(double value) const
{
    const auto scaled = [this](double each) {
        return isLogarithmic ? std::log10(std::max(each, 1e-300)) : each;
    };
    return std::clamp((scaled(value) - scaled(from)) / (scaled(to) - scaled(from)), 0.0, 1.0);
}

std::vector<double> ChartAxis::lines() const
{
    std::vector<double> all;
    if (!marks.empty()) {
        std::ranges::copy_if(marks, std::back_inserter(all),
                             [&](double mark) { return mark >= from && mark <= to; });
    } else if (isLogarithmic) {
        const int first = static_cast<int>(std::ceil(std::log10(from)));
        for (int decade = first; decade <= std::log10(to) + 1e-9; ++decade)
            all.push_back(std::pow(10.0, decade));
    } else {
        const double step = niceStep(to - from);
        for (double mark = std::ceil(from / step - 1e-9); mark * step <= to + step * 1e-6; ++mark)
            all.push_back(mark * step + 0.0); // + 0.0 turns -0 into 0
    }
    return all;
}

ChartAxis ChartAxis::around(const std::vector<ChartCurve>& curves, double minSpan)
{
    std::vector<double> values;
    for (const ChartCurve& curve : curves)
        std::ranges::transform(curve.points, std::back_inserter(values), &Chart::Point::y);
    std::ranges::sort(values);
    const auto at = [&](double part) {
        return values.empty() ? 0.0
                              : values[static_cast<size_t>(part * static_cast<double>(values.size() - 1))];
    };
    const double middle = (at(0.04) + at(0.96)) / 2.0, span = std::max(minSpan, (at(0.96) - at(0.04)) * 1.4);
    return {middle - span / 2.0, middle + span / 2.0, chartLabel("")};
}

// ---- ChartPanel

ChartPanel::ChartPanel(Chart& chart, double top, double height, const std::string& title, ChartAxis x,
                       ChartAxis y, const std::vector<ChartCurve>& curves, double maxGap)
    : _chart(chart), _top(top), _height(height), _x(std::move(x)), _y(std::move(y))
{
    constexpr double letter = 6.2, gap = 20.0;
    chart.text({Chart::left, top - 10.0}, title, {Chart::ink, 13.0, "start", true});
    double end = Chart::right;
    for (const ChartCurve& curve : curves) {
        chart.text({end, top - 10.0}, curve.name, {curve.colour, 11.0, "end"});
        end -= letter * static_cast<double>(displayWidth(curve.name)) + gap;
    }
    for (const double mark : _y.lines()) {
        const double at = _place({0.0, mark}).y;
        chart.line({Chart::left, at}, {Chart::right, at});
        chart.text({Chart::left - 8.0, at + 4.0}, _y.label(mark), {Chart::faint, 11.0, "end"});
    }
    for (const double mark : _x.lines()) {
        const double at = _place({mark, 0.0}).x;
        chart.line({at, top}, {at, bottom()});
        chart.text({at, bottom() + 16.0}, _x.label(mark), {Chart::faint, 11.0, "middle"});
    }
    for (const ChartCurve& curve : curves)
        _drawCurve(curve, maxGap);
}

void ChartPanel::_drawCurve(const ChartCurve& curve, double maxGap)
{
    std::vector<Chart::Point> unbroken;
    double last = 0.0;
    for (const Chart::Point& value : curve.points) {
        if (!unbroken.empty() && (std::isnan(value.y) || value.x - last > maxGap)) {
            _chart.curve(unbroken, curve.colour);
            unbroken.clear();
        }
        last = value.x;
        if (!std::isnan(value.y))
            unbroken.push_back(_place(value));
    }
    _chart.curve(unbroken, curve.colour);
}

std::function<std::string(double)> chartLabel(const char* unit)
{
    return [unit](double value) { return formatText("%.6g%s", value, unit); };
}
