#include "view/announcements.h"

namespace camera {

namespace {

uint64_t packed(int first, int second, int third, int fourth) {
    uint64_t value = 0;
    for (const int part : {fourth, third, second, first})
        value = value << 16 | static_cast<uint16_t>(part);
    return value;
}

int part(uint64_t value, int index) {
    return static_cast<uint16_t>(value >> 16 * index);
}

}  // namespace

FDNotifyMsg shutterOf(uint32_t frameNumber, uint64_t monotonicNs) {
    return {FDNotifyType::SHUTTER, frameNumber, monotonicNs};
}

FDNotifyMsg viewOf(uint32_t frameNumber, const Rect& view) {
    return {kViewAnnounced, frameNumber, packed(view.x, view.y, view.width, view.height)};
}

FDNotifyMsg pictureOf(uint32_t frameNumber, const Picture& picture) {
    return {kPictureAnnounced, frameNumber,
            packed(picture.size.width, picture.size.height, picture.isTurned ? 1 : 0, 0)};
}

Rect viewIn(const FDNotifyMsg& msg) {
    return {part(msg.value, 0), part(msg.value, 1), part(msg.value, 2), part(msg.value, 3)};
}

Picture pictureIn(const FDNotifyMsg& msg) {
    return {{part(msg.value, 0), part(msg.value, 1)}, part(msg.value, 2) != 0};
}

}  // namespace camera
