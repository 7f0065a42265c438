#pragma once

#include <string>

// The shapes that pictures are made of, as SVG text; places and sizes in the picture's units.
// Threads: any.

/// Colours that the pictures have in common.
inline constexpr const char* svgInk = "#1d2433";
inline constexpr const char* svgFaint = "#8a93a6";
inline constexpr const char* svgGrid = "#e6e9f0";

/// How far apart the lines of a grid stand: 1, 2 or 5 times a power of ten, some five to `span`, which is above 0.
double svgNiceStep(double span);
/// The picture's beginning, with a light ground; "</svg>" is to follow what is in it.
std::string svgHead(double width, double height);
/// `content` is any text: made printable, and safe in an SVG.
std::string svgText(double x, double y, const std::string& content, const char* colour = svgInk,
                    double size = 12.0, const char* anchor = "start", const char* weight = "400");
std::string svgLine(double x1, double y1, double x2, double y2, const char* colour = svgGrid,
                    double thickness = 1.0, bool isDashed = false);
std::string svgRectangle(double x, double y, double width, double height, const char* colour,
                         double opacity = 1.0);
