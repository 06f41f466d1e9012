#pragma once

#include "IFDControl.h"
#include "host/wire.h"

namespace control {

/** What IFDControl::follow() takes, as one record. */
struct Followed {
    SceneControl scene;
    SceneControl ptz;
};

}  // namespace control

/** The fields of each record that is sent, in their order, and the fewest bytes that they take. */
namespace host {

template <>
struct Fields<::vendor::zoru::zoruprovider::zoruprovider::V2_4::Crop> {
    static constexpr size_t kSmallest = 16;
    template <typename Archive, typename Record>
    static void visit(Archive& archive, Record& r) {
        archive(r.x, r.y, r.width, r.height);
    }
};

template <>
struct Fields<::control::SceneControl> {
    template <typename Archive, typename Record>
    static void visit(Archive& archive, Record& r) {
        archive(r.crops, r.frameWidth, r.frameHeight, r.sceneId, r.sceneFlags, r.peopleCount);
    }
};

template <>
struct Fields<::control::Followed> {
    template <typename Archive, typename Record>
    static void visit(Archive& archive, Record& r) {
        archive(r.scene, r.ptz);
    }
};

template <>
struct Fields<::control::TrackControl> {
    template <typename Archive, typename Record>
    static void visit(Archive& archive, Record& r) {
        archive(r.timestampNs, r.trackId, r.target, r.bounds, r.pan, r.tilt, r.zoom, r.speed);
    }
};

template <>
struct Fields<::control::CameraStatus> {
    template <typename Archive, typename Record>
    static void visit(Archive& archive, Record& r) {
        archive(r.width, r.height, r.rate, r.frames, r.dropped);
    }
};

template <>
struct Fields<::control::Event> {
    template <typename Archive, typename Record>
    static void visit(Archive& archive, Record& r) {
        archive(r.kind, r.missed, r.timeNs, r.scene, r.track, r.mode);
    }
};

}  // namespace host
