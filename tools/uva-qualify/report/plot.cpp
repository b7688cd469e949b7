#include "report/report.h"

#include <algorithm>
#include <cstdio>

namespace qualify {

namespace {

constexpr double width = 560, height = 150; // pixels, of the area
constexpr double left = 60, top = 24, bottom = 24;

struct Span {
    double low, high;

    void include(double value) {
        low = std::min(low, value);
        high = std::max(high, value);
    }
    double at(double value, double size) const {
        return high > low ? (value - low) / (high - low) * size : size / 2;
    }
};

std::string pixel(double value) {
    char text[40];
    std::snprintf(text, sizeof text, "%.1f", value);
    return text;
}

std::string coordinate(const char* key, double value) {
    return std::string(" ") + key + "=\"" + pixel(value) + "\"";
}

std::string label(double x, double y, const char* anchor, const std::string& text) {
    return "<text" + coordinate("x", x) + coordinate("y", y) + " text-anchor=\"" + anchor + "\">" +
           escaped(text) + "</text>";
}

} // namespace

std::string svgOf(const Series& series) {
    if (series.points.empty())
        return {};
    Span times{series.points.front().first, series.points.front().first};
    Span values{series.points.front().second, series.points.front().second};
    for (const auto& [time, value] : series.points) {
        times.include(time);
        values.include(value);
    }
    for (const auto& bound : {series.low, series.high})
        if (bound)
            values.include(*bound);
    const auto y = [&](double value) { return top + height - values.at(value, height); };

    const double wholeWidth = left + width + 10, wholeHeight = top + height + bottom;
    std::string text = "<svg class=\"plot\" viewBox=\"0 0 " + pixel(wholeWidth) + " " +
                       pixel(wholeHeight) + "\"" + coordinate("width", wholeWidth) +
                       coordinate("height", wholeHeight) + ">";
    text += "<rect class=\"area\"" + coordinate("x", left) + coordinate("y", top) +
            coordinate("width", width) + coordinate("height", height) + "/>";
    for (const auto& bound : {series.low, series.high})
        if (bound)
            text += "<line class=\"limit\"" + coordinate("x1", left) + coordinate("y1", y(*bound)) +
                    coordinate("x2", left + width) + coordinate("y2", y(*bound)) + "/>";
    text += "<polyline points=\"";
    for (const auto& [time, value] : series.points)
        text += pixel(left + times.at(time, width)) + "," + pixel(y(value)) + " ";
    text += "\"/>";
    text += label(left, top - 8, "start", series.title + ", " + series.unit);
    text += label(left - 6, top + 10, "end", plainNumber(values.high));
    text += label(left - 6, top + height, "end", plainNumber(values.low));
    text += label(left, top + height + 16, "start", plainNumber(times.low) + " " + series.over);
    text +=
        label(left + width, top + height + 16, "end", plainNumber(times.high) + " " + series.over);
    return text + "</svg>\n";
}

} // namespace qualify
