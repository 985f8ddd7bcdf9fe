#include "LatencyChart.hpp"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <map>
#include <memory>

#include <fmt/format.h>

#include "CairoLibrary.hpp"

#if defined(__SANITIZE_ADDRESS__)
// cairo's text rendering loads fontconfig, which keeps its configuration until the process ends
// and drops the last pointers to a few of its blocks on the way: not ours to free.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libfontconfig.so\n";
}
#endif

namespace lmkit::tool {

namespace {

constexpr double kMarginLeft = 70;
constexpr double kMarginRight = 20;
constexpr double kPanelGap = 26;  // room for the panel's title

struct Colour {
    double r, g, b;
};

// Loss as colour: none is green, a little yellow, half orange, all red.
Colour lossColour(double loss) {
    if (loss <= 0)
        return {0.13, 0.55, 0.13};
    if (loss < 0.1)
        return {0.75, 0.7, 0.0};
    if (loss < 0.5)
        return {0.95, 0.5, 0.0};
    if (loss < 1)
        return {0.85, 0.1, 0.1};
    return {0.5, 0.0, 0.0};
}

std::string clock(double at) {
    std::time_t seconds = static_cast<std::time_t>(at);
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[16];
    std::strftime(text, sizeof text, "%H:%M:%S", &local);
    return text;
}

// A round number of milliseconds at or above `value` for the top of a panel's scale.
double niceCeiling(double value) {
    if (value <= 0)
        return 1;
    const double magnitude = std::pow(10.0, std::floor(std::log10(value)));
    for (double step : {1.0, 2.0, 5.0, 10.0})
        if (value <= step * magnitude)
            return step * magnitude;
    return 10 * magnitude;
}

struct Point {
    double at;
    NodeSample sample;
};

void text(const CairoLibrary& c, cairo_t* cr, double x, double y, const std::string& line,
          double size = 11) {
    c.set_font_size(cr, size);
    c.move_to(cr, x, y);
    c.show_text(cr, line.c_str());
}

}  // namespace

int LatencyChart::heightFor(std::size_t nodes) {
    return kHeaderHeight + static_cast<int>(nodes) * kPanelHeight + kFooterHeight;
}

bool LatencyChart::draw(const std::vector<WatchRound>& rounds, const std::filesystem::path& path,
                        std::string& error) {
    std::map<std::string, std::vector<Point>> byNode;
    for (const auto& round : rounds)
        for (const auto& sample : round.samples)
            byNode[sample.node].push_back({round.at, sample});
    if (byNode.empty()) {
        error = "the history holds no rounds to draw";
        return false;
    }
    const CairoLibrary* library = CairoLibrary::load(error);
    if (!library)
        return false;
    const CairoLibrary& c = *library;
    const bool png = path.extension() == ".png";
    const int height = heightFor(byNode.size());
    cairo_surface_t* surface = png ? c.image_surface_create(CAIRO_FORMAT_ARGB32, kWidth, height)
                                   : c.svg_surface_create(path.c_str(), kWidth, height);
    if (!png)
        c.svg_surface_set_document_unit(surface, CAIRO_SVG_UNIT_PX);  // kWidth pixels wide
    std::unique_ptr<cairo_surface_t, decltype(c.surface_destroy)> ownedSurface(surface,
                                                                               c.surface_destroy);
    cairo_t* cr = c.create(surface);
    std::unique_ptr<cairo_t, decltype(c.destroy)> ownedContext(cr, c.destroy);
    c.select_font_face(cr, "sans-serif", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);

    c.set_source_rgb(cr, 1, 1, 1);
    c.paint(cr);
    const double first = rounds.front().at;
    const double last = std::max(rounds.back().at, first + 1);
    const double plotWidth = kWidth - kMarginLeft - kMarginRight;
    auto xOf = [&](double at) { return kMarginLeft + (at - first) / (last - first) * plotWidth; };

    c.set_source_rgb(cr, 0.1, 0.1, 0.1);
    text(c, cr, kMarginLeft, 22,
         fmt::format("lmkit watch: {} rounds, {} to {}", rounds.size(), clock(first),
                     clock(rounds.back().at)),
         14);
    text(c, cr, kMarginLeft, 40,
         "line: delay, coloured by loss (green none, yellow, orange, red all); band: fastest to "
         "slowest probe; dashed: switch",
         10);

    double top = kHeaderHeight;
    for (const auto& [node, points] : byNode) {
        const double plotTop = top + kPanelGap;
        const double plotHeight = kPanelHeight - kPanelGap - 8;
        double highest = 0;
        for (const auto& point : points)
            if (point.sample.loss < 1)
                highest = std::max(highest, point.sample.maxMs);
        const double scale = niceCeiling(highest * 1.1);
        auto yOf = [&](double ms) {
            return plotTop + plotHeight - std::min(ms, scale) / scale * plotHeight;
        };

        c.set_source_rgb(cr, 0.1, 0.1, 0.1);
        text(c, cr, kMarginLeft, top + 18, node, 12);
        c.set_source_rgb(cr, 0.96, 0.96, 0.96);
        c.rectangle(cr, kMarginLeft, plotTop, plotWidth, plotHeight);
        c.fill(cr);
        c.set_source_rgb(cr, 0.4, 0.4, 0.4);
        for (double fraction : {0.0, 0.5, 1.0}) {
            text(c, cr, 8, yOf(scale * fraction) + 4, fmt::format("{:g} ms", scale * fraction), 10);
        }

        // The band: fastest to slowest probe of each answered round.
        c.set_source_rgba(cr, 0.3, 0.45, 0.8, 0.25);
        for (std::size_t i = 0; i + 1 < points.size(); ++i) {
            const auto& a = points[i];
            const auto& b = points[i + 1];
            if (a.sample.loss >= 1 || b.sample.loss >= 1)
                continue;
            c.move_to(cr, xOf(a.at), yOf(a.sample.maxMs));
            c.line_to(cr, xOf(b.at), yOf(b.sample.maxMs));
            c.line_to(cr, xOf(b.at), yOf(b.sample.minMs));
            c.line_to(cr, xOf(a.at), yOf(a.sample.minMs));
            c.close_path(cr);
            c.fill(cr);
        }
        // The delay line, each segment in the colour of its later round's loss; a round that
        // lost everything is a red tick at the top.
        c.set_line_width(cr, 2);
        for (std::size_t i = 0; i < points.size(); ++i) {
            const auto& point = points[i];
            const Colour colour = lossColour(point.sample.loss);
            c.set_source_rgb(cr, colour.r, colour.g, colour.b);
            if (point.sample.loss >= 1) {
                c.move_to(cr, xOf(point.at), plotTop);
                c.line_to(cr, xOf(point.at), plotTop + 10);
                c.stroke(cr);
                continue;
            }
            if (i == 0 || points[i - 1].sample.loss >= 1) {
                c.arc(cr, xOf(point.at), yOf(point.sample.delayMs), 2, 0, 2 * M_PI);
                c.fill(cr);
                continue;
            }
            c.move_to(cr, xOf(points[i - 1].at), yOf(points[i - 1].sample.delayMs));
            c.line_to(cr, xOf(point.at), yOf(point.sample.delayMs));
            c.stroke(cr);
        }
        // Switches: a dashed mark where the choice changed, solid where this node was chosen.
        const double dashes[] = {4, 3};
        for (const auto& round : rounds) {
            if (!round.switched)
                continue;
            c.set_source_rgb(cr, 0.2, 0.2, 0.2);
            c.set_line_width(cr, round.chosen == node ? 1.5 : 0.8);
            c.set_dash(cr, dashes, 2, 0);
            c.move_to(cr, xOf(round.at), plotTop);
            c.line_to(cr, xOf(round.at), plotTop + plotHeight);
            c.stroke(cr);
            c.set_dash(cr, nullptr, 0, 0);
            if (round.chosen == node)
                text(c, cr, xOf(round.at) + 3, plotTop + 12, "chosen", 9);
        }
        top += kPanelHeight;
    }
    c.set_source_rgb(cr, 0.3, 0.3, 0.3);
    text(c, cr, kMarginLeft, top + 18, clock(first), 10);
    text(c, cr, kMarginLeft + plotWidth - 50, top + 18, clock(rounds.back().at), 10);

    ownedContext.reset();
    cairo_status_t status;
    if (png) {
        status = c.surface_write_to_png(surface, path.c_str());
    } else {
        // Finishing an SVG surface writes the rest of its file; a failed write shows here.
        c.surface_finish(surface);
        status = c.surface_status(surface);
    }
    if (status != CAIRO_STATUS_SUCCESS) {
        error = "cannot draw " + path.string() + ": " + c.status_to_string(status);
        return false;
    }
    return true;
}

}  // namespace lmkit::tool
