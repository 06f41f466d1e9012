#pragma once

#include <utils/StrongPointer.h>
#include <vendor/zoru/zoruprovider/fdstream/1.0/IFDSession.h>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>

#include "figures.h"
#include "stream_client.h"

namespace tools {

/** How a streaming scene is to go. */
struct Direction {
    std::string name;
    StreamSettings stream;
    /** What becomes of each picture; in words, what is wrong with it, or nothing. */
    std::function<std::string(const Answer&, const Figures&)> look;
    /** What becomes of an answer that brings no picture: it was skipped, or is an error. */
    std::function<void(const Answer&)> lookAway = [](const Answer& /*answer*/) {};
    /** Asked again and again whether to end early: first without further requests, then at once. */
    std::function<bool()> interrupted = [] { return false; };
    /** Asked after each picture whether it could not be kept, so that no more are needed. */
    std::function<bool()> broken = [] { return false; };
    /**
     * A connection on which the stream goes on after the provider gave this client up; null for
     * none. What was under way is missing, and what follows is not what would have come next.
     */
    std::function<android::sp<vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession>()>
        connectAnew = [] { return nullptr; };
    /** Called when all answers are here, and the session still holds the client's buffers. */
    std::function<void()> curtain = [] {};
    /** No progress is shown, and what is wrong is only said at the end. */
    bool hushed = false;
    /** Where progress is shown. */
    FILE* talk = stdout;
};

/** Streams frames, and says on stderr what is wrong. */
Figures playStream(
    const android::sp<vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession>& session,
    const Direction& direction);

/**
 * Makes requests that nobody will take, and shows what comes of each. REQUIRES: no frame source is
 * at work.
 */
Figures playUnserved(
    const android::sp<vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession>& session,
    const std::string& name, uint32_t requests);

}  // namespace tools
