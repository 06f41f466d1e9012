#pragma once

#include <utils/StrongPointer.h>
#include <vendor/zoru/zoruprovider/fdstream/1.0/IFDSession.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "child_process.h"
#include "holdings.h"
#include "temporary_folder.h"

namespace tools {

/** What a soak's provider holds. Value type. */
struct SoakHoldings {
    kit::Holdings kernel;
    int64_t buffers = 0;  ///< handles that are imported
    int64_t residentKiB = 0;
};

/** The provider of a soak. Killed with this object if it was not stopped. */
class SoakProcess {
public:
    /** One that serves, at a place of its own. Null, and a sentence in `problem`, else. */
    static std::unique_ptr<SoakProcess> start(std::string& problem);

    std::string socket() const { return mFolder / "socket"; }
    /** A connection of its own; null, and a sentence in `problem`, when there is none. */
    android::sp<vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession> connect(
        std::string& problem) const;
    /** Has a command done; the answer, or nothing when none came. */
    std::optional<std::string> ask(const std::string& command);
    /**
     * What it holds; waited for, for a few seconds, until that is as before, or without a before
     * until it stays the same. Nothing when it does not answer.
     */
    std::optional<SoakHoldings> holdings(const std::optional<SoakHoldings>& before);
    /** Ends it in order. Empty when it did end so, else a sentence. */
    std::string stop();
    /** In words, how it has ended; empty when it goes on. */
    std::string ending();

private:
    SoakProcess() = default;
    std::optional<SoakHoldings> look();

    const kit::TemporaryFolder mFolder{"fdstream-soak"};
    std::unique_ptr<kit::ChildProcess> mChild;
};

/** In words, how a program ended by what waitpid() says; empty when that was with exit code 0. */
std::string endingInWords(int status);

}  // namespace tools
