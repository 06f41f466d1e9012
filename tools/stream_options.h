#pragma once

#include <utils/StrongPointer.h>
#include <vendor/zoru/zoruprovider/fdstream/1.0/IFDSession.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <optional>
#include <string>

#include "figures.h"
#include "frame.h"
#include "signals.h"
#include "stream_client.h"

/** What the client programs have in common: their options, exit codes and way to a provider. */
namespace tools {

constexpr int kAllDelivered = 0;
constexpr int kSomeFailed = 1;
constexpr int kBadUsage = 2;
constexpr int kProviderGone = 3;
constexpr int kTakenOver = 4;

/** Which stream a client asks for, and whom. Value type. */
struct StreamOptions {
    std::optional<std::string> socket;
    bool wait = false;
    uint32_t frames = 40;
    uint32_t buffers = 4;
    std::string size = "1280x720";

    /** REQUIRES: the command line was found right. */
    kit::FrameSize frameSize() const;
    StreamSettings settings() const;
};

/** Adds these options to a program's; what they are at that time is said to be the default. */
void declare(CLI::App& app, StreamOptions& options, uint32_t leastBuffers);

/** SIGHUP ends a stream in order, but for a program that was started to survive it. */
kit::Signals signalsToTake();

/** Null after a sentence on stderr. */
android::sp<vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession> findProvider(
    const StreamOptions& options, const kit::Signals& signals);

int codeOf(const Figures& figures);

}  // namespace tools
