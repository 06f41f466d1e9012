#pragma once

namespace testing_support {

/** Whether a sanitizer's checks or an emulator make this program many times slower than usual. */
constexpr bool isSlow() {
    return IS_SLOW;
}

}  // namespace testing_support
