#include "figures.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdio>

namespace bench {

namespace {

/** As wide as the longest of a column. */
template <typename Item>
int widthOf(const std::vector<Item>& items, std::string Item::*column) {
    size_t width = 0;
    for (const Item& item : items)
        width = std::max(width, (item.*column).size());
    return static_cast<int>(width);
}

void printComparisons(const std::vector<Comparison>& comparisons) {
    if (comparisons.empty()) return;
    const int piece = widthOf(comparisons, &Comparison::piece);
    const int what = widthOf(comparisons, &Comparison::what);
    const int reference = widthOf(comparisons, &Comparison::reference);
    printf("\n%-*s  %-*s  %-*s  %9s %9s     %5s %-13s %s\n", piece, "piece", what, "case",
           reference, "reference", "ours", "theirs", "ratio", "quartiles", "aim");
    for (const Comparison& comparison : comparisons) {
        const Summary summary = summaryOf(comparison);
        printf("%-*s  %-*s  %-*s  %9.2f %9.2f %-3s %5.2f %5.2f .. %-5.2f", piece,
               comparison.piece.c_str(), what, comparison.what.c_str(), reference,
               comparison.reference.c_str(), summary.ours, summary.theirs, comparison.unit.c_str(),
               summary.ratio, summary.low, summary.high);
        if (comparison.aim) {
            printf("%.2f %s", *comparison.aim,
                   summary.ratio <= *comparison.aim ? "met" : "NOT MET");
        }
        printf("\n");
    }
}

void printCurve(const Curve& curve) {
    printf("\n%s, %s each\n%16s", curve.name.c_str(), curve.unit.c_str(), curve.size.c_str());
    for (const auto& [size, cost] : curve.points)
        printf(" %9.0f", size);
    printf("\n%16s", "");
    for (const auto& [size, cost] : curve.points)
        printf(" %9.2f", cost);
    printf("\n");
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

void print(const Figures& figures) {
    printComparisons(figures.comparisons);
    for (const Curve& curve : figures.curves)
        printCurve(curve);
    printf("\n");
    const int name = widthOf(figures.facts, &Fact::name);
    const int unit = widthOf(figures.facts, &Fact::unit);
    for (const Fact& fact : figures.facts) {
        printf("%-*s  %10.2f %-*s  %s\n", name, fact.name.c_str(), fact.value, unit,
               fact.unit.c_str(), fact.expected.c_str());
    }
    for (const std::string& sentence : figures.absent)
        printf("Left out: %s\n", sentence.c_str());
    for (const std::string& fault : figures.faults)
        printf("WRONG: %s\n", fault.c_str());
}

}  // namespace bench
