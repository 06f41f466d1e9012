#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * True for 1, y, yes, true, on; false for 0, n, no, false, off (lower case, untrimmed); for
 * anything else, and when the property is not set, the default. Any thread.
 */
int8_t property_get_bool(const char* key, int8_t default_value);

#ifdef __cplusplus
}
#endif
