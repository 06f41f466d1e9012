#pragma once

#include <vendor/zoru/zoruprovider/fdstream/1.0/IFDSession.h>

#include <cstdint>
#include <optional>

/** Asks for one frame, and gives the brightness in its middle; nothing when no frame comes. */
std::optional<uint8_t> receiveOneFrame(
    const android::sp<vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession>& session);
