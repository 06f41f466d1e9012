#pragma once

#include <cstdint>
#include <optional>

#include "view/announcements.h"

namespace camera {

/** What a client has been told of one frame, each as far as it was. Value type. */
struct Told {
    std::optional<uint64_t> sensorNs;  ///< CLOCK_MONOTONIC, when the frame was due
    std::optional<Rect> view;
    std::optional<Picture> picture;

    /** Takes in what a message about this frame says; other kinds say nothing here. */
    void take(const FDNotifyMsg& msg) {
        if (msg.type == FDNotifyType::SHUTTER) sensorNs = msg.value;
        if (msg.type == kViewAnnounced) view = viewIn(msg);
        if (msg.type == kPictureAnnounced) picture = pictureIn(msg);
    }
};

}  // namespace camera
