#pragma once

/** Which descriptor numbers duplicates may have, for who keeps the last ones for something else. */
namespace host {

/**
 * From now on a duplicate that gets this number or a higher one counts as one that could not be
 * made; INT_MAX, as in the beginning, bounds nothing. Thread-safe.
 */
void boundDescriptors(int first);

/** Whether this number is one of those. */
bool isBeyondBound(int fd);

}  // namespace host
