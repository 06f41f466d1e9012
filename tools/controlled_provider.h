#pragma once

#include <utils/StrongPointer.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "IFDControl.h"
#include "control_json.h"
#include "control_words.h"

namespace tools {

/** The exit codes of fdstream-ctl, but for bad usage. */
constexpr int kDone = 0;
constexpr int kRefused = 1;
constexpr int kNoProvider = 3;

/**
 * What fdstream-ctl does with a provider. Each operation prints JSON and returns the exit code,
 * after a sentence on stderr when it is not kDone.
 */
class ControlledProvider {
public:
    using IFDControl = control::IFDControl;
    using Answer = control::Answer;
    template <typename T>
    using Return = android::hardware::Return<T>;

    explicit ControlledProvider(android::sp<IFDControl> control) : mControl(std::move(control)) {}

    template <typename Record>
    int show(Return<Answer> (IFDControl::*get)(Record&)) const {
        Record record = {};
        const int code = codeOf((mControl.get()->*get)(record));
        return code == kDone ? print(json(record)) : code;
    }
    /** Prints what it has set. */
    template <typename Record, typename Argument>
    int set(Return<Answer> (IFDControl::*put)(Argument), const Record& record) const {
        const int code = codeOf((mControl.get()->*put)(record));
        return code == kDone ? print(json(record)) : code;
    }
    int setScene(Return<Answer> (IFDControl::*put)(const SceneControl&),
                 const SceneWords& words) const;
    int showStatus() const;
    /** Until so many calls have come, the provider goes, or nobody reads. */
    int observe(std::optional<uint64_t> count) const;

private:
    int codeOf(const Return<Answer>& answer) const;
    /** Nothing with kDone means that there is no picture. */
    int getStatus(std::optional<control::CameraStatus>& status) const;
    static int print(const std::string& line);

    const android::sp<IFDControl> mControl;
};

}  // namespace tools
