#include <err.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <system_error>
#include <vector>

#include "output.h"

namespace bench {

namespace {

using nlohmann::ordered_json;
namespace fs = std::filesystem;

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

bool writeText(const std::string& text, const fs::path& folder) {
    const fs::path file = folder / "figures.json";
    std::ofstream stream(file);
    stream << text;
    if (stream.flush()) return true;
    warn("%s cannot be written", file.c_str());
    return false;
}

/** Whether the bench has written this script: its first line says what it draws. */
bool isOurScript(const fs::path& file) {
    std::ifstream stream(file);
    std::string line;
    std::getline(stream, line);
    return file.extension() == ".gp" && line == "set output '" + file.stem().string() + ".svg'";
}

}  // namespace

bool prepareFolder(const fs::path& folder) {
    std::error_code error;
    fs::create_directories(folder, error);
    std::vector<fs::path> plots;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder, error)) {
        if (isOurScript(entry.path())) plots.push_back(entry.path());
    }
    for (fs::path& plot : plots) {
        fs::remove(plot, error);
        fs::remove(plot.replace_extension(".svg"), error);
    }
    return writeText({}, folder);
}

bool writeJson(const Figures& figures, const std::string& machine, const fs::path& folder) {
    const ordered_json json = {{"machine", machine},
                               {"comparisons", listOf(figures.comparisons)},
                               {"curves", listOf(figures.curves)},
                               {"facts", listOf(figures.facts)},
                               {"absent", figures.absent},
                               {"faults", figures.faults}};
    return writeText(json.dump(2) + "\n", folder);
}

}  // namespace bench
