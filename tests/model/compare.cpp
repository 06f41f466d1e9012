#include "model/compare.h"

#include <algorithm>

#include "model/session_driver.h"
#include "model/session_model.h"
#include "support/spy_mapper.h"

namespace testing_support {

namespace {

std::string differenceOf(const Events& got, const Events& expected, const std::string& where) {
    if (got == expected) return {};
    std::string text = where + "\n  the session:\n";
    for (const std::string& event : got)
        text += "    " + event + "\n";
    text += "  the model:\n";
    for (const std::string& event : expected)
        text += "    " + event + "\n";
    return text;
}

}  // namespace

std::string disagreement(const Files& files, const Sequence& sequence) {
    SessionModel model(files.memories());
    SessionDriver driver(files, sessionMapper());
    std::string found = differenceOf(driver.begin(), model.begin(), "at the beginning");
    for (size_t i = 0; i < sequence.size() && found.empty(); ++i) {
        const Events got = driver.step(sequence[i]);
        found = differenceOf(got, model.step(sequence[i]), cat("in operation ", i));
    }
    return found.empty() ? differenceOf(driver.end(), model.end(), "at the end") : found;
}

Sequence shrunk(Sequence sequence, const std::function<bool(const Sequence&)>& holds) {
    for (size_t length = sequence.size() / 2; length > 0; length /= 2) {
        for (size_t first = 0; first + length <= sequence.size();) {
            Sequence shorter = sequence;
            const auto from = shorter.begin() + static_cast<std::ptrdiff_t>(first);
            shorter.erase(from, from + static_cast<std::ptrdiff_t>(length));
            if (holds(shorter)) {
                sequence = std::move(shorter);
            } else {
                ++first;
            }
        }
    }
    for (Operation& operation : sequence) {
        for (uint8_t& arg : operation.args) {
            const uint8_t before = arg;
            arg = 0;
            if (!holds(sequence)) arg = before;
        }
    }
    return sequence;
}

}  // namespace testing_support
