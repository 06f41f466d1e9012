#include "message_oracle.h"

#include <vendor/zoru/zoruprovider/fdstream/1.0/IFDSession.h>
#include <vendor/zoru/zoruprovider/fdstream/1.0/IFDSessionCallback.h>

#include <algorithm>
#include <memory>

#include "IFDControl.h"
#include "host/limits.h"
#include "src/closing.h"
#include "src/control_fields.h"
#include "src/record_fields.h"
#include "src/served_channel.h"
#include "src/socket.h"

namespace fuzz {

namespace {

using namespace vendor::zoru::zoruprovider::fdstream::V1_0;  // NOLINT: the interfaces' own
using android::sp;
using android::hardware::hidl_vec;
using android::hardware::Return;
using android::hardware::Void;
using android::hardware::camera::common::V1_0::Status;
using android::hardware::camera::device::V3_2::CaptureRequest;
using android::hardware::camera::device::V3_2::CaptureResult;
using android::hardware::camera::device::V3_2::StreamConfiguration;
using host::detail::Header;

/** Writes again what has been read. */
struct Echo {
    template <typename... Records>
    void write(const Records&... records) {
        ++calls;
        host::Writer writer(out);
        writer(records...);
    }

    int calls = 0;
    bool hasInterface = false;
    host::Outgoing out;
};

struct EchoSession : public IFDSession {
    explicit EchoSession(Echo& to) : echo(to) {}
    Return<Status> setCallback(const sp<IFDSessionCallback>& callback) override {
        echo.write(static_cast<uint8_t>(callback != nullptr));
        echo.hasInterface = callback != nullptr;
        return Status::OK;
    }
    Return<Status> configure(const StreamConfiguration& configuration) override {
        echo.write(configuration);
        return Status::OK;
    }
    Return<Status> processCaptureRequest(const CaptureRequest& request) override {
        echo.write(request);
        return Status::OK;
    }
    Echo& echo;
};

struct EchoCallback : public IFDSessionCallback {
    explicit EchoCallback(Echo& to) : echo(to) {}
    Return<void> processCaptureResult(const hidl_vec<CaptureResult>& results) override {
        echo.write(results);
        return Void();
    }
    Return<void> notify(const hidl_vec<FDNotifyMsg>& msgs) override {
        echo.write(msgs);
        return Void();
    }
    Echo& echo;
};

using control::Answer;
using control::SceneControl;

struct EchoControl : public control::IFDControl {
    explicit EchoControl(Echo& to) : echo(to) {}
    template <typename... Records>
    Return<Answer> took(const Records&... records) {
        echo.write(records...);
        return Answer::OK;
    }
    Return<Answer> setScene(const SceneControl& scene) override { return took(scene); }
    Return<Answer> setPtz(const SceneControl& ptz) override { return took(ptz); }
    Return<Answer> setTrack(const control::TrackControl& track) override { return took(track); }
    Return<Answer> setMode(control::TrackingMode mode) override { return took(mode); }
    Return<Answer> setPeople(int32_t count) override { return took(count); }
    Return<Answer> follow(const SceneControl& scene, const SceneControl& ptz) override {
        return took(scene, ptz);
    }
    Return<Answer> getScene(SceneControl& /*scene*/) override { return took(); }
    Return<Answer> getPtz(SceneControl& /*ptz*/) override { return took(); }
    Return<Answer> getTrack(control::TrackControl& /*track*/) override { return took(); }
    Return<Answer> getMode(control::TrackingMode& /*mode*/) override { return took(); }
    Return<Answer> getPeople(int32_t& /*count*/) override { return took(); }
    Return<Answer> getStatus(control::CameraStatus& /*status*/) override { return took(); }
    Return<Answer> watch(control::Event& /*event*/) override { return took(); }
    Return<Answer> startFollowing() override { return took(); }
    Return<Answer> stopFollowing() override { return took(); }
    Echo& echo;
};

std::unique_ptr<host::Stub> stubOf(Served served, Echo& echo) {
    if (served == Served::SESSION) {
        return host::detail::findInterface(IFDSession::descriptor)->stub(new EchoSession(echo));
    }
    if (served == Served::CONTROL) {
        return host::detail::findInterface(control::IFDControl::descriptor)
            ->stub(new EchoControl(echo));
    }
    return host::detail::findInterface(IFDSessionCallback::descriptor)
        ->stub(new EchoCallback(echo));
}

bool isMessage(const std::vector<uint8_t>& message, const std::vector<int>& fds) {
    uint32_t words[4] = {};
    if (message.size() < sizeof(words)) return false;
    memcpy(words, message.data(), sizeof(words));
    return (words[0] == Header::CALL || words[0] == Header::ANSWER ||
            words[0] == Header::REFUSED) &&
           words[3] == fds.size() && fds.size() <= host::kMaxMessageFds;
}

/** As the caller of a method that returns a status. */
bool readAnswer(host::Incoming& in) {
    host::Reader reader(in);
    Status status = Status::OK;
    reader(status);
    return reader.complete();
}

/** As the caller of a method of the controls, whose answer brings a record. */
template <typename Record>
Reading readRecord(host::Incoming& in, const std::vector<int>& fds) {
    host::Reader reader(in);
    Answer answer = {};
    Record record = {};
    reader(answer, record);
    if (!reader.complete()) return {};
    Echo echo;
    echo.write(answer, record);
    const host::Bytes& bytes = echo.out.bytes;
    const bool isSame = fds.empty() && bytes.size() == in.size &&
                        std::equal(in.data, in.data + in.size, bytes.data());
    return {true, isSame ? nullptr : "another record was read than came"};
}

Reading readCall(Served served, host::Peer from, const Header& call, host::Incoming& in,
                 const std::vector<int>& fds) {
    Echo echo;
    host::Reader reader(in, from);
    host::Outgoing answer;
    host::Writer writer(answer);
    const bool isCall = stubOf(served, echo)->dispatch(call.method, reader, writer);
    if (!isCall || !reader.refusal().empty()) {
        return {false, echo.calls == 0 ? nullptr : "the object is called with what is no call"};
    }
    if (call.method == 0) {
        return {true, in.size == 0 && fds.empty() ? nullptr : "a ping brings something"};
    }
    if (echo.calls != 1) return {true, "the object is not called once"};
    const host::Bytes& bytes = echo.out.bytes;
    if (bytes.size() != in.size || !std::equal(in.data, in.data + in.size, bytes.data())) {
        return {true, "other bytes were read than came"};
    }
    if (echo.hasInterface ? fds.size() != 1 : echo.out.fds != fds) {
        return {true, "other descriptors were read than came"};
    }
    return {true, nullptr};
}

}  // namespace

Reading readMessage(Served served, host::Peer from, const std::vector<uint8_t>& message,
                    const std::vector<int>& fds) {
    host::Incoming in;
    in.fds.reserve(fds.size());
    for (const int fd : fds)
        in.fds.emplace_back(fd);
    Header header = {};
    Reading reading;
    const host::detail::Failure failure =
        host::detail::parseMessage(message.data(), message.size(), 0, header, in);
    if (failure.isOk() != isMessage(message, fds)) {
        reading.fault = "a message is none, or the other way round";
    } else if (!failure.isOk()) {
        if (failure.text.empty()) reading.fault = "nothing says why";
    } else if (header.kind == Header::CALL) {
        reading = readCall(served, from, header, in, fds);
    } else if (header.kind == Header::ANSWER && served == Served::CONTROL) {
        reading = header.method % 2 == 0 ? readRecord<control::Event>(in, fds)
                                         : readRecord<control::CameraStatus>(in, fds);
    } else if (header.kind == Header::ANSWER) {
        reading.isTaken = readAnswer(in);
        const bool isStatus = fds.empty() && in.size == sizeof(Status);
        if (reading.isTaken != isStatus)
            reading.fault = "an answer is none, or the other way round";
    }
    // A client's are looked at first, which costs more than all the rest.
    if (from == host::Peer::CLIENT) host::detail::closeUnused(in.fds);
    return reading;
}

}  // namespace fuzz
