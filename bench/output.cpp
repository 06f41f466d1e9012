#include "bench.h"

#include <err.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <sstream>
#include <system_error>

#include "child_process.h"
#include "statistics.h"

namespace bench {

namespace fs = std::filesystem;

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Fact, name, value, unit, expected)

static void to_json(nlohmann::json& json, const Curve& curve) {
    json = {{"name", curve.name}, {"size", curve.size}, {"unit", "us"}, {"points", curve.points}};
}

static void to_json(nlohmann::json& json, const Pairing& pairing) {
    const Summary summary = summaryOf(pairing);
    json = {{"piece", pairing.piece},         {"case", pairing.what},
            {"reference", pairing.reference}, {"unit", "us"},
            {"ours", summary.ours},           {"theirs", summary.theirs},
            {"ratio", summary.ratio},         {"ratio_quartiles", {summary.low, summary.high}},
            {"ours_samples", pairing.ours},   {"theirs_samples", pairing.theirs}};
    if (pairing.aim) json["aim"] = *pairing.aim;
}

namespace {

using Row = std::vector<std::string>;

/** As Markdown has it, for the eye too; the first row is the header. */
void printTable(const std::vector<Row>& rows) {
    std::vector<size_t> widths(rows.front().size());
    for (const Row& row : rows) {
        for (size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], row[i].size());
    }
    printf("\n");
    for (const Row& row : rows) {
        for (size_t i = 0; i < row.size(); ++i)
            printf("| %-*s ", static_cast<int>(widths[i]), row[i].c_str());
        printf("|\n");
        if (&row != &rows.front()) continue;
        for (const size_t width : widths)
            printf("|%s", std::string(width + 2, '-').c_str());
        printf("|\n");
    }
}

std::string number(double value, int decimals) {
    char text[32];
    snprintf(text, sizeof(text), "%.*f", decimals, value);
    return strcmp(text, "-0.00") == 0 ? "0.00" : text;
}

std::string time(double value) {
    return number(value, std::abs(value) < 100 ? 2 : 0);
}

Row rowOf(const Pairing& pairing) {
    const Summary summary = summaryOf(pairing);
    const std::string quartiles = number(summary.low, 2) + " .. " + number(summary.high, 2);
    std::string aim;
    if (pairing.aim) {
        const bool met = summary.ratio <= *pairing.aim;
        aim = number(*pairing.aim, 2) + (met ? " met" : " **not met**");
    }
    return {pairing.what,
            pairing.reference,
            time(summary.ours),
            time(summary.theirs),
            number(summary.ratio, 2),
            quartiles,
            aim};
}

/** Those of one piece together. */
std::vector<std::vector<Pairing>> piecesOf(const Run& run) {
    std::vector<std::vector<Pairing>> pieces;
    for (const Pairing& each : run.pairings) {
        if (pieces.empty() || pieces.back().front().piece != each.piece) pieces.emplace_back();
        pieces.back().push_back(each);
    }
    return pieces;
}

void printPiece(const std::vector<Pairing>& piece) {
    std::vector<Row> rows = {
        {piece.front().piece, "reference", "ours, us", "theirs, us", "ratio", "quartiles", "aim"}};
    for (const Pairing& pairing : piece)
        rows.push_back(rowOf(pairing));
    printTable(rows);
}

void printCurve(const Curve& curve) {
    std::vector<Row> rows = {{curve.size}, {curve.name + ", us"}};
    for (const auto& [size, cost] : curve.points) {
        rows[0].push_back(std::to_string(size));
        rows[1].push_back(time(cost));
    }
    if (!curve.points.empty()) {
        rows[0].emplace_back("last / first");
        rows[1].push_back(number(curve.points.back().second / curve.points.front().second, 2));
    }
    printTable(rows);
}

void printFacts(const std::vector<Fact>& facts) {
    if (facts.empty()) return;
    std::vector<Row> rows = {{"counted", "", "", "expected"}};
    for (const Fact& fact : facts)
        rows.push_back({fact.name, time(fact.value), fact.unit, fact.expected});
    printTable(rows);
}

constexpr const char* kFigures = "figures.json";
constexpr const char* kScript = "figures.gp";  // draws the plots

bool writeText(const std::string& text, const fs::path& file) {
    std::ofstream stream(file);
    stream << text;
    if (stream.flush()) return true;
    warn("%s cannot be written", file.c_str());
    return false;
}

void beginPicture(std::ostream& script, std::string name, size_t height) {
    std::replace(name.begin(), name.end(), ' ', '-');
    script << "reset\nset output '" << name << ".svg'\n"
           << "set terminal svg size 1100," << height << " font 'sans,12' background '#ffffff'\n"
           << "set border 3 lc '#888888'\nset tics nomirror\n";
}

/** The ratios of one piece: a point each, its quartiles, and a mark where the aim is. */
void drawRatios(std::ostream& script, const std::vector<Pairing>& pairings) {
    const std::string& piece = pairings.front().piece;
    size_t row = pairings.size();
    beginPicture(script, piece, 120 + 22 * row);
    script << "set tmargin 3\nset label '" << piece
           << ": ours / reference (dot: median, bar: quartiles, cross: aim)'"
           << " at screen 0.5, graph 1 offset 0, 1.5 center\n"
           << "set logscale x 2\nset xlabel 'ratio (left of 1: ours takes less)'\n"
           << "set arrow from 1, graph 0 to 1, graph 1 nohead lc '#444444'\n"
           << "set yrange [0.3:" << row << ".7]\nset border 1\n"
           << "set grid x lc '#dddddd'\nunset ytics\nunset key\n";
    std::ostringstream points;
    size_t widest = 0;
    for (const Pairing& pairing : pairings) {
        const Summary summary = summaryOf(pairing);
        const std::string label = pairing.what + " / " + pairing.reference;
        widest = std::max(widest, label.size());
        script << "set label \"" << label << "\" at graph -0.01, first " << row << " right\n";
        points << summary.ratio << ' ' << row-- << ' ' << summary.low << ' ' << summary.high << ' '
               << (pairing.aim ? std::to_string(*pairing.aim) : "NaN") << '\n';
    }
    script << "set lmargin " << widest * 3 / 4 << "\n$ratios << EOD\n"
           << points.str() << "EOD\n"
           << "plot $ratios using 1:2:3:4 with xerrorbars pt 7 ps 0.8 lc '#1f6fb4',"
           << " $ratios using 5:2 with points pt 2 lc '#c0392b'\n";
}

void drawCurves(std::ostream& script, const std::vector<Curve>& curves) {
    beginPicture(script, "growth", 480);
    script << "set title 'Cost of a step as a session grows'\nset logscale xy\n"
           << "set xlabel 'how many'\nset ylabel 'microseconds'\nset yrange [0.1:*]\n"
           << "set mxtics 1\nset mytics 1\nset key top left\n$curves << EOD\n";
    for (const Curve& curve : curves) {
        script << '"' << curve.name << " (" << curve.size << ")\"\n";
        for (const auto& [size, cost] : curve.points)
            script << size << ' ' << cost << '\n';
        script << "\n\n";  // the end of one curve
    }
    script << "EOD\nplot for [i=0:" << curves.size() - 1 << "] $curves index i"
           << " with linespoints lw 2 pt 7 ps 0.6 title columnheader(1)\n";
}

bool drawPlots(const Run& run, const fs::path& folder) {
    std::ostringstream script;
    for (const auto& piece : piecesOf(run)) {
        if (piece.size() > 1) drawRatios(script, piece);  // one row is no picture
    }
    if (!run.curves.empty()) drawCurves(script, run.curves);
    if (!writeText(script.str(), folder / kScript)) return false;
    kit::ChildOptions there;
    there.folder = folder;
    std::string problem;
    const auto gnuplot =
        kit::ChildProcess::start("/usr/bin/env", {"gnuplot", kScript}, problem, there);
    return gnuplot != nullptr && gnuplot->exitCode(std::chrono::seconds(20)) == 0;
}

}  // namespace

Summary summaryOf(const Pairing& pairing) {
    std::vector<double> ratios;
    for (size_t i = 0; i < pairing.ours.size(); ++i)
        ratios.push_back(pairing.ours[i] / pairing.theirs[i]);
    return {kit::median(pairing.ours), kit::median(pairing.theirs), kit::median(ratios),
            kit::percentile(ratios, 25), kit::percentile(ratios, 75)};
}

void Run::leaveOut(const std::string& sentence) {
    if (std::find(absent.begin(), absent.end(), sentence) == absent.end())
        absent.push_back(sentence);
}

void print(const Run& run) {
    for (const auto& piece : piecesOf(run))
        printPiece(piece);
    for (const Curve& curve : run.curves)
        printCurve(curve);
    printFacts(run.facts);
    printf("\n");
    for (const std::string& sentence : run.absent)
        printf("Left out: %s\n", sentence.c_str());
    for (const std::string& fault : run.faults)
        printf("WRONG: %s\n", fault.c_str());
}

bool prepareFolder(const fs::path& folder) {
    std::error_code error;
    fs::create_directories(folder, error);
    std::ifstream words(folder / kScript);
    for (std::string word; words >> word;) {
        if (word == "output" && words >> std::quoted(word, '\''))
            fs::remove(folder / fs::path(word).filename(), error);
    }
    fs::remove(folder / kScript, error);
    return writeText({}, folder / kFigures);
}

bool writeFolder(Run& run, const std::string& machine, const fs::path& folder) {
    if (!drawPlots(run, folder)) run.leaveOut("The plots: gnuplot did not draw them.");
    const nlohmann::json json = {{"machine", machine},   {"comparisons", run.pairings},
                                 {"curves", run.curves}, {"facts", run.facts},
                                 {"absent", run.absent}, {"faults", run.faults}};
    return writeText(json.dump(2) + "\n", folder / kFigures);
}

}  // namespace bench
