#pragma once

namespace tools {

constexpr int kClipFrames = 24;

/**
 * Writes a clip of kClipFrames NV12 frames to look at: a number that counts, a clock's hand in the
 * middle, a ball that bounces to the right, and colours that bear their names, so that a lost
 * frame, swapped chroma and a turned picture show at a glance. A file of that name is overwritten.
 * False after a sentence on stderr.
 */
bool drawClip(const char* path);

}  // namespace tools
