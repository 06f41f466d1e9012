#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace bench {

/**
 * What one piece took, against a reference that was measured beside it. A smaller number is better.
 */
struct Comparison {
    std::string piece;      ///< "rotate180"
    std::string what;       ///< "720p, in cache"
    std::string reference;  ///< "in-place pass"
    std::string unit;       ///< of the samples
    std::vector<double> ours;
    std::vector<double> theirs;  ///< the i-th was measured in the same round as the i-th of ours
    std::optional<double> aim;   ///< the ratio to stay within; none: for the reader to see
};

/** Medians; the ratio is that of a round, and `low` and `high` are its quartiles. */
struct Summary {
    double ours;
    double theirs;
    double ratio;
    double low;
    double high;
};

/** REQUIRES: both sides have samples, and equally many. */
Summary summaryOf(const Comparison& comparison);

/** How a cost grows: one median for each size. */
struct Curve {
    std::string name;  ///< "a request behind others that wait"
    std::string size;  ///< what the sizes count: "requests waiting"
    std::string unit;  ///< of the costs
    std::vector<std::pair<double, double>> points;
};

/** One measured number, and what is expected of it. */
struct Fact {
    std::string name;
    double value;
    std::string unit;
    std::string expected;
};

/** REQUIRES: there is at least one. */
double percentile(std::vector<double> values, double percent);
double median(std::vector<double> values);

/** All that a run has found. */
struct Figures {
    std::vector<Comparison> comparisons;
    std::vector<Curve> curves;
    std::vector<Fact> facts;
    std::vector<std::string> absent;  ///< what was left out, and why: a sentence each
    std::vector<std::string> faults;  ///< outputs that were wrong: those get no figure

    /** Adds to what is absent, once. */
    void leaveOut(const std::string& sentence);
};

/** The tables, in Markdown, on stdout. */
void print(const Figures& figures);

}  // namespace bench
