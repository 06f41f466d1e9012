// The interface between processes: what it is called, its proxy, and its stub.

#include <memory>
#include <type_traits>
#include <utility>

#include "IFDControl.h"
#include "control_fields.h"
#include "host/proxy.h"
#include "host/remote.h"

namespace control {

using ::android::sp;
using ::android::hardware::hidl_string;
using ::android::hardware::Return;
using ::android::hardware::Void;
using host::callWith;
using host::kPing;
using host::Outgoing;
using host::Reader;
using host::writeAnswer;
using host::Writer;

const char* IFDControl::descriptor = "fdstream.control@1.0::IFDControl";

bool IFDControl::isRemote() const {
    return false;
}

Return<void> IFDControl::interfaceChain(interfaceChain_cb callback) {
    callback({hidl_string(IFDControl::descriptor), hidl_string(IBase::descriptor)});
    return Void();
}

Return<void> IFDControl::interfaceDescriptor(interfaceDescriptor_cb callback) {
    callback(IFDControl::descriptor);
    return Void();
}

const char* inWords(Answer answer) {
    switch (answer) {
        case Answer::OK:
            return "it is done";
        case Answer::TOO_MANY_CROPS:
            return "a scene of more than 1000 crops is refused";
        case Answer::NO_PICTURE:
            return "the provider has no picture to tell of: it plays by the test frame source";
        case Answer::MODE_IS_OFF:
            return "the tracking mode is 0, and the view is not moved";
        case Answer::ANOTHER_FOLLOWS:
            return "another client follows already, and there is one at a time";
        case Answer::NOT_FOLLOWING:
            return "this client does not follow";
    }
    return "the provider answers what is not known here";
}

namespace {

// The methods' numbers on the wire, after the ping's.
enum Method : uint32_t {
    SET_SCENE = 1,
    GET_SCENE,
    SET_PTZ,
    GET_PTZ,
    SET_TRACK,
    GET_TRACK,
    SET_MODE,
    GET_MODE,
    SET_PEOPLE,
    GET_PEOPLE,
    GET_STATUS,
    WATCH,
    START_FOLLOWING,
    FOLLOW,
    STOP_FOLLOWING,
};

class BpHwFDControl : public host::Proxy<IFDControl> {
public:
    using host::Proxy<IFDControl>::Proxy;
    template <typename T>
    using Return = ::android::hardware::Return<T>;

    Return<Answer> setScene(const SceneControl& scene) override {
        return callFor<Answer>(SET_SCENE, written(scene));
    }
    Return<Answer> getScene(SceneControl& scene) override {
        return callFor<Answer>(GET_SCENE, Outgoing(), scene);
    }
    Return<Answer> setPtz(const SceneControl& ptz) override {
        return callFor<Answer>(SET_PTZ, written(ptz));
    }
    Return<Answer> getPtz(SceneControl& ptz) override {
        return callFor<Answer>(GET_PTZ, Outgoing(), ptz);
    }
    Return<Answer> setTrack(const TrackControl& track) override {
        return callFor<Answer>(SET_TRACK, written(track));
    }
    Return<Answer> getTrack(TrackControl& track) override {
        return callFor<Answer>(GET_TRACK, Outgoing(), track);
    }
    Return<Answer> setMode(TrackingMode mode) override {
        return callFor<Answer>(SET_MODE, written(mode));
    }
    Return<Answer> getMode(TrackingMode& mode) override {
        return callFor<Answer>(GET_MODE, Outgoing(), mode);
    }
    Return<Answer> setPeople(int32_t count) override {
        return callFor<Answer>(SET_PEOPLE, written(count));
    }
    Return<Answer> getPeople(int32_t& count) override {
        return callFor<Answer>(GET_PEOPLE, Outgoing(), count);
    }
    Return<Answer> getStatus(CameraStatus& status) override {
        return callFor<Answer>(GET_STATUS, Outgoing(), status);
    }
    Return<Answer> watch(Event& event) override {
        return callFor<Answer>(WATCH, Outgoing(), event);
    }
    Return<Answer> startFollowing() override {
        return callFor<Answer>(START_FOLLOWING, Outgoing());
    }
    Return<Answer> follow(const SceneControl& scene, const SceneControl& ptz) override {
        return callFor<Answer>(FOLLOW, written(scene, ptz));
    }
    Return<Answer> stopFollowing() override { return callFor<Answer>(STOP_FOLLOWING, Outgoing()); }
};

class BnHwFDControl : public host::Stub {
public:
    explicit BnHwFDControl(sp<IFDControl> control) : mControl(std::move(control)) {}

    bool dispatch(uint32_t method, Reader& reader, Writer& writer) override {
        switch (method) {
            case kPing:
                return reader.complete();
            case SET_SCENE:
                return set(&IFDControl::setScene, reader, writer);
            case SET_PTZ:
                return set(&IFDControl::setPtz, reader, writer);
            case SET_TRACK:
                return set(&IFDControl::setTrack, reader, writer);
            case SET_MODE:
                return set(&IFDControl::setMode, reader, writer);
            case SET_PEOPLE:
                return set(&IFDControl::setPeople, reader, writer);
            case FOLLOW:
                return callWith<Followed>(reader, [&](const Followed& followed) {
                    return writeAnswer(mControl->follow(followed.scene, followed.ptz), writer);
                });
            default:
                return reader.complete() && dispatchBare(method, writer);
        }
    }

private:
    /** Of the methods without arguments. */
    bool dispatchBare(uint32_t method, Writer& writer) {
        switch (method) {
            case GET_SCENE:
                return get(&IFDControl::getScene, writer);
            case GET_PTZ:
                return get(&IFDControl::getPtz, writer);
            case GET_TRACK:
                return get(&IFDControl::getTrack, writer);
            case GET_MODE:
                return get(&IFDControl::getMode, writer);
            case GET_PEOPLE:
                return get(&IFDControl::getPeople, writer);
            case GET_STATUS:
                return get(&IFDControl::getStatus, writer);
            case WATCH:
                return get(&IFDControl::watch, writer);
            case START_FOLLOWING:
                return writeAnswer(mControl->startFollowing(), writer);
            case STOP_FOLLOWING:
                return writeAnswer(mControl->stopFollowing(), writer);
            default:
                return false;
        }
    }
    template <typename Argument>
    bool set(Return<Answer> (IFDControl::*method)(Argument), Reader& reader, Writer& writer) {
        return callWith<std::decay_t<Argument>>(reader, [&](const auto& value) {
            return writeAnswer((mControl.get()->*method)(value), writer);
        });
    }
    template <typename Result>
    bool get(Return<Answer> (IFDControl::*method)(Result&), Writer& writer) {
        Result result = {};
        const Return<Answer> answer = (mControl.get()->*method)(result);
        return writeAnswer(answer, writer, result);
    }

    const sp<IFDControl> mControl;
};

// Registered when the library is loaded.
[[maybe_unused]] const bool sRegistered =
    host::registerInterface<IFDControl, BpHwFDControl, BnHwFDControl>();

}  // namespace

}  // namespace control
