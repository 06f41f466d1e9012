#pragma once

#include <cstdint>

#include "FDSession.h"

/**
 * Fills the buffer of the next request with one brightness and hands it back. False when there is
 * no request within a second.
 */
bool serveOneRequest(
    const android::sp<vendor::zoru::zoruprovider::fdstream::V1_0::implementation::FDSession>&
        session,
    uint8_t brightness);
