#pragma once

namespace testing_support {

/**
 * Whether this program's code runs many times slower than usual, because a sanitizer's checks are
 * in it, or an emulator runs it. Tests that do the same thing a million times then do less of it.
 */
constexpr bool isSlow() {
    return IS_SLOW;
}

}  // namespace testing_support
