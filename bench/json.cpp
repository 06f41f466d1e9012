#include <err.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "output.h"

namespace bench {

namespace {

using nlohmann::ordered_json;

ordered_json asJson(const Comparison& comparison) {
    const Summary summary = summaryOf(comparison);
    ordered_json json = {{"piece", comparison.piece},
                         {"case", comparison.what},
                         {"reference", comparison.reference},
                         {"unit", comparison.unit},
                         {"ours", summary.ours},
                         {"theirs", summary.theirs},
                         {"ratio", summary.ratio},
                         {"ratio_quartiles", {summary.low, summary.high}},
                         {"ours_samples", comparison.ours},
                         {"theirs_samples", comparison.theirs}};
    if (comparison.aim) json["aim"] = *comparison.aim;
    return json;
}

ordered_json asJson(const Curve& curve) {
    return {
        {"name", curve.name}, {"size", curve.size}, {"unit", curve.unit}, {"points", curve.points}};
}

ordered_json asJson(const Fact& fact) {
    return {{"name", fact.name},
            {"value", fact.value},
            {"unit", fact.unit},
            {"expected", fact.expected}};
}

template <typename Item>
ordered_json listOf(const std::vector<Item>& items) {
    ordered_json list = ordered_json::array();
    for (const Item& item : items)
        list.push_back(asJson(item));
    return list;
}

}  // namespace

bool writeJson(const Figures& figures, const std::string& machine,
               const std::filesystem::path& file) {
    const ordered_json json = {{"machine", machine},
                               {"comparisons", listOf(figures.comparisons)},
                               {"curves", listOf(figures.curves)},
                               {"facts", listOf(figures.facts)},
                               {"absent", figures.absent},
                               {"faults", figures.faults}};
    std::ofstream stream(file);
    stream << json.dump(2) << '\n';
    if (stream.flush()) return true;
    warn("%s cannot be written", file.c_str());
    return false;
}

}  // namespace bench
