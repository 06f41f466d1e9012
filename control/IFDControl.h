#pragma once

#include <android/hidl/base/1.0/IBase.h>
#include <hidl/Status.h>
#include <vendor/zoru/zoruprovider/zoruprovider/2.4/types.h>

#include <cstddef>
#include <cstdint>

/**
 * The session's scene, PTZ and tracking operations for other processes of a host: for tools, and
 * for a client that has the view follow what it finds. On a device they are the provider's own.
 */
namespace control {

using vendor::zoru::zoruprovider::zoruprovider::V2_4::SceneControl;
using vendor::zoru::zoruprovider::zoruprovider::V2_4::TrackControl;
using vendor::zoru::zoruprovider::zoruprovider::V2_4::TrackingMode;

/** The most crops of a scene that crosses. */
constexpr size_t kMaxCrops = 1000;
/** Calls that wait for a watcher; what comes while so many wait is counted. */
constexpr size_t kMaxWaitingEvents = 1000;

/** What became of an operation. With all but OK nothing is changed, and nothing is read. */
enum class Answer : uint32_t {
    OK,
    TOO_MANY_CROPS,   ///< more than kMaxCrops, in what was sent or in what the session has
    NO_PICTURE,       ///< the provider has no camera whose picture it could tell of
    MODE_IS_OFF,      ///< the tracking mode is 0, and a follower does not move the view then
    ANOTHER_FOLLOWS,  ///< there is one follower at a time
    NOT_FOLLOWING,    ///< this connection is not the follower's
};

/** A sentence for people, without a full stop. Any value. */
const char* inWords(Answer answer);

/** What the camera plays. Frames are counted since the provider began. Value type. */
struct CameraStatus {
    int32_t width = 0;  ///< of the picture, in pixels
    int32_t height = 0;
    double rate = 0;       ///< frames a second; 0 when nothing sets the pace
    uint64_t frames = 0;   ///< that were due
    uint64_t dropped = 0;  ///< of those, for which nobody waited
};

/** A call that the session's observer got. Value type. */
struct Event {
    enum class Kind : uint32_t { NONE, SCENE, PTZ, TRACK, MODE };

    Kind kind = Kind::NONE;
    uint64_t missed = 0;   ///< calls before this one that found the watcher's queue full
    int64_t timeNs = 0;    ///< CLOCK_MONOTONIC, when the observer was called
    SceneControl scene{};  ///< of SCENE and PTZ
    TrackControl track{};  ///< of TRACK
    TrackingMode mode = TrackingMode::OFF;  ///< of MODE
};

/**
 * Served on a socket beside the session's (host::connect<control::IFDControl>(path, problem)), to
 * at most host::kMaxControlConnections connections. Any thread may call; a call that does not get
 * through fails, as with every interface. All that a caller holds is held by its connection, which
 * ends with the last reference to the proxy, or with the process, however that dies.
 *
 * All operations but the two that only read the camera's state and wait take turns under one lock.
 */
struct IFDControl : public ::android::hidl::base::V1_0::IBase {
    static const char* descriptor;

    template <typename T>
    using Return = ::android::hardware::Return<T>;

    bool isRemote() const override;
    Return<void> interfaceChain(interfaceChain_cb callback) override;
    Return<void> interfaceDescriptor(interfaceDescriptor_cb callback) override;

    // As FDSession has them. Any values that fit the fields are taken.
    virtual Return<Answer> setScene(const SceneControl& scene) = 0;
    virtual Return<Answer> getScene(SceneControl& scene) = 0;
    virtual Return<Answer> setPtz(const SceneControl& ptz) = 0;
    virtual Return<Answer> getPtz(SceneControl& ptz) = 0;
    virtual Return<Answer> setTrack(const TrackControl& track) = 0;
    virtual Return<Answer> getTrack(TrackControl& track) = 0;
    /**
     * After mode 0 was answered no follower moves the view any more, and the default view is there,
     * until the mode is another one or somebody sets a view.
     */
    virtual Return<Answer> setMode(TrackingMode mode) = 0;
    virtual Return<Answer> getMode(TrackingMode& mode) = 0;
    /** Stores the stored scene again with another count. */
    virtual Return<Answer> setPeople(int32_t count) = 0;
    virtual Return<Answer> getPeople(int32_t& count) = 0;

    /** NO_PICTURE while the provider plays by the test frame source. */
    virtual Return<Answer> getStatus(CameraStatus& status) = 0;

    /**
     * The next call of the session's observer. The first call of a connection begins the watch, and
     * is answered at once with NONE; each later one waits up to a quarter of a second, and is
     * answered with NONE when nothing was called. So a watcher calls again and again. One that
     * stops holds nobody up: kMaxWaitingEvents are kept for it, in their order, and how many came
     * while its queue was full is told with the event after those, or with a NONE.
     */
    virtual Return<Answer> watch(Event& event) = 0;

    /**
     * Makes this connection the follower and sets mode 1; ANOTHER_FOLLOWS while there is one. Then
     * only follow() of this connection is taken, until stopFollowing() or the connection's end,
     * which is the same: it sets mode 0, and leaves a scene without crops and people.
     */
    virtual Return<Answer> startFollowing() = 0;
    /**
     * Stores both, scene first, in one step that no operation of this interface comes between.
     * MODE_IS_OFF when somebody has set mode 0; nothing is stored then. The follower may go on
     * calling: another mode than 0 lets it in again.
     */
    virtual Return<Answer> follow(const SceneControl& scene, const SceneControl& ptz) = 0;
    virtual Return<Answer> stopFollowing() = 0;
};

}  // namespace control
