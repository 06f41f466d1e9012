#pragma once

/** A bound for the numbers of duplicated descriptors, set by whoever reserves the last numbers. */
namespace host {

/**
 * From now on duplicating a descriptor fails when the duplicate gets this number or a higher one.
 * INT_MAX, the initial value, is no bound. Thread-safe.
 */
void boundDescriptors(int first);

/** Whether this number is at the bound or above it. */
[[nodiscard]] bool isBeyondBound(int fd);

}  // namespace host
