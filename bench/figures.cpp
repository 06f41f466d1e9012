#include "figures.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace bench {

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

Row rowOf(const Comparison& comparison) {
    const Summary summary = summaryOf(comparison);
    std::string aim;
    if (comparison.aim) {
        aim = number(*comparison.aim, 2) +
              (summary.ratio <= *comparison.aim ? " met" : " **not met**");
    }
    return {comparison.what,
            comparison.reference,
            time(summary.ours),
            time(summary.theirs),
            number(summary.ratio, 2),
            number(summary.low, 2) + " .. " + number(summary.high, 2),
            aim};
}

/** A table for each piece. */
void printComparisons(const std::vector<Comparison>& comparisons) {
    for (auto next = comparisons.begin(); next != comparisons.end();) {
        const std::string piece = next->piece;
        const std::string unit = ", " + next->unit;
        std::vector<Row> rows = {
            {piece, "reference", "ours" + unit, "theirs" + unit, "ratio", "quartiles", "aim"}};
        for (; next != comparisons.end() && next->piece == piece; ++next)
            rows.push_back(rowOf(*next));
        printTable(rows);
    }
}

void printCurve(const Curve& curve) {
    std::vector<Row> rows = {{curve.size}, {curve.name + ", " + curve.unit}};
    for (const auto& [size, cost] : curve.points) {
        rows[0].push_back(number(size, 0));
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

}  // namespace

double percentile(std::vector<double> values, double percent) {
    std::sort(values.begin(), values.end());
    const auto rank = std::ceil(static_cast<double>(values.size()) * percent / 100);
    return values[static_cast<size_t>(std::max(rank, 1.0)) - 1];
}

double median(std::vector<double> values) {
    return percentile(std::move(values), 50);
}

Summary summaryOf(const Comparison& comparison) {
    std::vector<double> ratios;
    for (size_t i = 0; i < comparison.ours.size(); ++i)
        ratios.push_back(comparison.ours[i] / comparison.theirs[i]);
    return {median(comparison.ours), median(comparison.theirs), median(ratios),
            percentile(ratios, 25), percentile(ratios, 75)};
}

void Figures::leaveOut(const std::string& sentence) {
    if (std::find(absent.begin(), absent.end(), sentence) == absent.end())
        absent.push_back(sentence);
}

void print(const Figures& figures) {
    printComparisons(figures.comparisons);
    for (const Curve& curve : figures.curves)
        printCurve(curve);
    printFacts(figures.facts);
    printf("\n");
    for (const std::string& sentence : figures.absent)
        printf("Left out: %s\n", sentence.c_str());
    for (const std::string& fault : figures.faults)
        printf("WRONG: %s\n", fault.c_str());
}

}  // namespace bench
