// The two interfaces between processes. The caller calls a proxy, which sends; at the other end a
// stub receives and calls the object.

#include <vendor/zoru/zoruprovider/fdstream/1.0/IFDSession.h>
#include <vendor/zoru/zoruprovider/fdstream/1.0/IFDSessionCallback.h>

#include <memory>
#include <utility>

#include "host/accepted.h"
#include "host/proxy.h"
#include "host/remote.h"
#include "record_fields.h"
#include "request_bounds.h"

namespace vendor::zoru::zoruprovider::fdstream::V1_0 {

namespace {

using ::android::sp;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::camera::common::V1_0::Status;
using ::android::hardware::camera::device::V3_2::CaptureRequest;
using ::android::hardware::camera::device::V3_2::CaptureResult;
using ::android::hardware::camera::device::V3_2::StreamConfiguration;
using ::android::hidl::base::V1_0::IBase;
using host::callWith;
using host::isAccepted;
using host::kPing;
using host::Outgoing;
using host::Reader;
using host::RequestBounds;
using host::Stub;
using host::writeAnswer;
using host::Writer;

using TransportStatus = ::android::hardware::Status;

// The methods' numbers on the wire: ping, then those of each interface as its definition has them.
enum SessionMethod : uint32_t { SET_CALLBACK = 1, CONFIGURE, PROCESS_CAPTURE_REQUEST };
enum CallbackMethod : uint32_t { PROCESS_CAPTURE_RESULT = 1, NOTIFY };

class BpHwFDSession : public host::Proxy<IFDSession> {
public:
    using Proxy::Proxy;

    Return<Status> setCallback(const sp<IFDSessionCallback>& callback) override {
        Outgoing out;
        Writer writer(out);
        if (!host::writeInterface(writer, IFDSessionCallback::descriptor, callback)) {
            return TransportStatus::fromStatusT(::android::FAILED_TRANSACTION,
                                                "no channel could be made for the callback");
        }
        return callFor<Status>(SET_CALLBACK, out);
    }
    Return<Status> configure(const StreamConfiguration& configuration) override {
        return callFor<Status>(CONFIGURE, written(configuration));
    }
    Return<Status> processCaptureRequest(const CaptureRequest& request) override {
        return callFor<Status>(PROCESS_CAPTURE_REQUEST, written(request));
    }
};

class BpHwFDSessionCallback : public host::Proxy<IFDSessionCallback> {
public:
    using Proxy::Proxy;

    /** From now on the results that go to the client are taken off the requests counted here. */
    void countResultsIn(std::shared_ptr<RequestBounds> bounds) { mBounds = std::move(bounds); }

    Return<void> processCaptureResult(const hidl_vec<CaptureResult>& results) override {
        // Before the call, because the client may ask for the next frame from inside it.
        if (mBounds != nullptr) mBounds->handedOver(results);
        return callVoid(PROCESS_CAPTURE_RESULT, written(results));
    }
    Return<void> notify(const hidl_vec<FDNotifyMsg>& msgs) override {
        return callVoid(NOTIFY, written(msgs));
    }

private:
    // Set before the session gets this object.
    std::shared_ptr<RequestBounds> mBounds;
};

class BnHwFDSession : public Stub {
public:
    explicit BnHwFDSession(sp<IFDSession> session)
        : mSession(std::move(session)), mBounds(std::make_shared<RequestBounds>()) {}

    bool dispatch(uint32_t method, Reader& reader, Writer& writer) override {
        switch (method) {
            case kPing:
                return reader.complete();
            case SET_CALLBACK:
                return setCallback(reader, writer);
            case CONFIGURE:
                return callWith<StreamConfiguration>(reader, [&](const auto& configuration) {
                    return configure(configuration, writer);
                });
            case PROCESS_CAPTURE_REQUEST:
                return callWith<CaptureRequest>(reader, [&](const auto& request) {
                    return processCaptureRequest(request, reader, writer);
                });
            default:
                return false;
        }
    }

private:
    bool setCallback(Reader& reader, Writer& writer) {
        sp<IBase> proxy;
        if (!host::readInterface(reader, IFDSessionCallback::descriptor, proxy) ||
            !reader.complete()) {
            return false;
        }
        if (!reader.refusal().empty()) return true;
        const sp<BpHwFDSessionCallback> callback = static_cast<BpHwFDSessionCallback*>(proxy.get());
        if (callback != nullptr) callback->countResultsIn(mBounds);
        return writeAnswer(mSession->setCallback(callback), writer);
    }
    bool configure(const StreamConfiguration& configuration, Writer& writer) {
        const Return<Status> answer = mSession->configure(configuration);
        if (isAccepted(answer)) mBounds->restart();
        return writeAnswer(answer, writer);
    }
    bool processCaptureRequest(const CaptureRequest& request, Reader& reader, Writer& writer) {
        RequestBounds::Place place(*mBounds, request);
        if (place.problem() != nullptr) {
            reader.refuse(place.problem());
            return true;
        }
        const Return<Status> answer = mSession->processCaptureRequest(request);
        if (isAccepted(answer)) place.keep();
        return writeAnswer(answer, writer);
    }

    const sp<IFDSession> mSession;
    const std::shared_ptr<RequestBounds> mBounds;
};

class BnHwFDSessionCallback : public Stub {
public:
    explicit BnHwFDSessionCallback(sp<IFDSessionCallback> callback)
        : mCallback(std::move(callback)) {}

    bool dispatch(uint32_t method, Reader& reader, Writer& writer) override {
        switch (method) {
            case kPing:
                return reader.complete();
            case PROCESS_CAPTURE_RESULT:
                return callWith<hidl_vec<CaptureResult>>(reader, [&](const auto& results) {
                    return writeAnswer(mCallback->processCaptureResult(results), writer);
                });
            case NOTIFY:
                return callWith<hidl_vec<FDNotifyMsg>>(reader, [&](const auto& msgs) {
                    return writeAnswer(mCallback->notify(msgs), writer);
                });
            default:
                return false;
        }
    }

private:
    const sp<IFDSessionCallback> mCallback;
};

// Registered when the library is loaded.
[[maybe_unused]] const bool sRegistered =
    host::registerInterface<IFDSession, BpHwFDSession, BnHwFDSession>() &&
    host::registerInterface<IFDSessionCallback, BpHwFDSessionCallback, BnHwFDSessionCallback>();

}  // namespace

}  // namespace vendor::zoru::zoruprovider::fdstream::V1_0
