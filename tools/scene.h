#pragma once

#include <utils/StrongPointer.h>
#include <vendor/zoru/zoruprovider/fdstream/1.0/IFDSession.h>

#include <cstdint>
#include <string>

#include "figures.h"
#include "nv12_file.h"
#include "picture.h"

namespace tools {

/** How a streaming scene is to go. */
struct Direction {
    std::string name;  ///< of the scene, and of the folder for its pictures
    uint32_t frames;
    uint32_t buffers;
    bool turned;  ///< whether the pictures have to come turned by 180 degrees
};

/** A scene that was played. */
struct Played {
    Figures figures;
    ContactSheet sheet;
    bool saved;  ///< whether every picture is on the disk
};

/**
 * Streams frames, compares each with the file's, and writes each as a picture into the scene's
 * folder in the working directory. What is wrong is said on stderr, frame by frame.
 */
Played playStream(
    const android::sp<vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession>& session,
    const Direction& direction, Nv12File& clip);

/**
 * Makes requests that nobody will take, and shows what comes of each. REQUIRES: no frame source is
 * at work.
 */
Figures playUnserved(
    const android::sp<vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession>& session,
    const std::string& name, uint32_t requests);

}  // namespace tools
