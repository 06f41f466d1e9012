#include <algorithm>
#include <chrono>
#include <fstream>
#include <string>
#include <vector>

#include "child_process.h"
#include "output.h"

namespace bench {

namespace {

namespace fs = std::filesystem;

constexpr const char* kStyle = R"(
set terminal svg size 1100,%HEIGHT% font 'sans,12' background '#ffffff'
set grid lc '#dddddd'
set border lc '#888888'
)";

std::string style(size_t height) {
    std::string text = kStyle;
    text.replace(text.find("%HEIGHT%"), 8, std::to_string(height));
    return text;
}

/** Runs a script that it leaves beside the picture, so that it can be drawn anew. */
bool draw(const std::string& script, const fs::path& picture) {
    fs::path file = picture;
    file.replace_extension(".gp");
    {
        std::ofstream stream(file);
        stream << "set output '" << picture.filename().string() << "'\n" << script;
        if (!stream.flush()) return false;
    }
    std::string problem;
    const auto gnuplot = kit::ChildProcess::start(
        "/usr/bin/env", {"-C", file.parent_path(), "gnuplot", file.filename()}, problem);
    return gnuplot != nullptr && gnuplot->waitForEnd(std::chrono::seconds(20)) == 0;
}

std::string fileName(std::string text) {
    std::replace(text.begin(), text.end(), ' ', '-');
    return text;
}

/** The ratios of one piece: a point each, its quartiles, and a mark where the aim is. */
bool drawRatios(const std::string& piece, const std::vector<Comparison>& comparisons,
                const fs::path& folder) {
    const size_t rows = comparisons.size();
    std::string ratios;
    std::string aims;
    std::string labels;
    for (size_t i = 0; i < rows; ++i) {
        const Summary summary = summaryOf(comparisons[i]);
        const std::string row = std::to_string(rows - i);
        ratios += std::to_string(summary.ratio) + " " + row + " " + std::to_string(summary.low) +
                  " " + std::to_string(summary.high) + "\n";
        if (comparisons[i].aim) aims += std::to_string(*comparisons[i].aim) + " " + row + "\n";
        labels += (i > 0 ? ", '" : "'") + comparisons[i].what + " / " + comparisons[i].reference +
                  "' " + row;
    }
    std::string script = style(120 + 22 * rows);
    script +=
        "set tmargin 3\nset label '" + piece +
        ": ours / reference (dot: median, bar: quartiles, cross: aim)' at screen 0.5, graph 1 "
        "offset 0, 1.5 center\n";
    script += "set logscale x 2\nset xlabel 'ratio (left of 1: ours takes less)'\n";
    script += "set arrow from 1, graph 0 to 1, graph 1 nohead lc '#444444'\n";
    script += "set yrange [0.3:" + std::to_string(rows) + ".7]\nset ytics (" + labels + ")\n";
    script += "unset key\n";
    script += "$ratios << EOD\n" + ratios + "EOD\n$aims << EOD\n" + aims + "EOD\n";
    script += "plot $ratios using 1:2:3:4 with xerrorbars pt 7 ps 0.8 lc '#1f6fb4'";
    if (!aims.empty()) script += ", $aims using 1:2 with points pt 2 lc '#c0392b'";
    return draw(script + "\n", folder / (fileName(piece) + ".svg"));
}

bool drawCurves(const std::vector<Curve>& curves, const fs::path& folder) {
    std::string script = style(480);
    script += "set title 'Cost of a step as a session grows'\nset logscale xy\n";
    script += "set xlabel 'how many'\nset ylabel 'microseconds'\nset yrange [0.1:*]\n";
    script += "set key top left\n";
    std::string plot;
    for (size_t i = 0; i < curves.size(); ++i) {
        if (curves[i].points.empty()) continue;
        const std::string data = "$curve" + std::to_string(i);
        script += data + " << EOD\n";
        for (const auto& [size, cost] : curves[i].points)
            script += std::to_string(size) + " " + std::to_string(cost) + "\n";
        script += "EOD\n";
        plot += (plot.empty() ? "plot " : ", ") + data +
                " with linespoints lw 2 pt 7 ps 0.6 title '" + curves[i].name + " (" +
                curves[i].size + ")'";
    }
    return draw(script + plot + "\n", folder / "growth.svg");
}

}  // namespace

bool drawPlots(const Figures& figures, const fs::path& folder) {
    bool drawn = true;
    for (auto first = figures.comparisons.begin(); first != figures.comparisons.end();) {
        const auto last = std::find_if(first, figures.comparisons.end(), [&](const auto& other) {
            return other.piece != first->piece;
        });
        drawn = drawRatios(first->piece, {first, last}, folder) && drawn;
        first = last;
    }
    return (figures.curves.empty() || drawCurves(figures.curves, folder)) && drawn;
}

}  // namespace bench
