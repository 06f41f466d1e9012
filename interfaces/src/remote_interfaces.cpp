// The two interfaces between processes: what a client calls is a proxy, what takes its calls apart
// is a stub. Both number the methods in the order of the definitions.

#include <vendor/zoru/zoruprovider/fdstream/1.0/IFDSession.h>
#include <vendor/zoru/zoruprovider/fdstream/1.0/IFDSessionCallback.h>

#include <memory>
#include <type_traits>
#include <utility>

#include "host/remote.h"
#include "records.h"

namespace vendor::zoru::zoruprovider::fdstream::V1_0 {

namespace {

using ::android::sp;
using ::android::wp;
using ::android::hardware::hidl_death_recipient;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::camera::common::V1_0::Status;
using ::android::hardware::camera::device::V3_2::CaptureRequest;
using ::android::hardware::camera::device::V3_2::CaptureResult;
using ::android::hardware::camera::device::V3_2::StreamConfiguration;
using ::android::hidl::base::V1_0::IBase;
using host::CallChannel;
using host::Outgoing;
using host::Reader;
using host::Stub;
using host::Writer;

using TransportStatus = ::android::hardware::Status;

enum Method : uint32_t { PING, FIRST, SECOND, THIRD };

void readNothing(Reader& /*reader*/) {}

/** What the proxies of both interfaces have in common. */
template <typename Interface>
class Proxy : public Interface {
public:
    explicit Proxy(std::unique_ptr<CallChannel> channel) : mChannel(std::move(channel)) {}

    bool isRemote() const override { return true; }
    Return<void> ping() override { return callVoid(PING, Outgoing()); }
    Return<bool> linkToDeath(const sp<hidl_death_recipient>& recipient, uint64_t cookie) override {
        return mChannel->linkToDeath(recipient, cookie, wp<IBase>(sp<IBase>(this)));
    }
    Return<bool> unlinkToDeath(const sp<hidl_death_recipient>& recipient) override {
        return mChannel->unlinkToDeath(recipient);
    }

protected:
    Return<void> callVoid(uint32_t method, const Outgoing& out) {
        return mChannel->call(method, out, readNothing);
    }
    Return<Status> callForStatus(uint32_t method, const Outgoing& out) {
        Status answer = Status::INTERNAL_ERROR;
        const TransportStatus status =
            mChannel->call(method, out, [&answer](Reader& reader) { reader(answer); });
        if (!status.isOk()) return status;
        return answer;
    }
    template <typename Record>
    static Outgoing written(const Record& record) {
        Outgoing out;
        Writer writer(out);
        writer(record);
        return out;
    }

private:
    const std::unique_ptr<CallChannel> mChannel;
};

class BpHwFDSession : public Proxy<IFDSession> {
public:
    using Proxy::Proxy;

    Return<Status> setCallback(const sp<IFDSessionCallback>& callback) override {
        Outgoing out;
        Writer writer(out);
        if (!host::writeInterface(writer, IFDSessionCallback::descriptor, callback)) {
            return TransportStatus::fromStatusT(::android::FAILED_TRANSACTION,
                                                "no channel could be made for the callback");
        }
        return callForStatus(FIRST, out);
    }
    Return<Status> configure(const StreamConfiguration& configuration) override {
        return callForStatus(SECOND, written(configuration));
    }
    Return<Status> processCaptureRequest(const CaptureRequest& request) override {
        return callForStatus(THIRD, written(request));
    }
};

class BpHwFDSessionCallback : public Proxy<IFDSessionCallback> {
public:
    using Proxy::Proxy;

    Return<void> processCaptureResult(const hidl_vec<CaptureResult>& results) override {
        return callVoid(FIRST, written(results));
    }
    Return<void> notify(const hidl_vec<FDNotifyMsg>& msgs) override {
        return callVoid(SECOND, written(msgs));
    }
};

/** A local call's transport status is of no interest, but has to be looked at. */
template <typename Result>
bool answered(const Result& result, Writer& writer) {
    if (!result.isOk()) return false;
    if constexpr (!std::is_same_v<Result, Return<void>>) writer(static_cast<Status>(result));
    return true;
}

class BnHwFDSession : public Stub {
public:
    explicit BnHwFDSession(sp<IFDSession> session) : mSession(std::move(session)) {}

    bool dispatch(uint32_t method, Reader& reader, Writer& writer) override {
        switch (method) {
            case PING:
                return reader.complete();
            case FIRST: {
                sp<IBase> callback;
                if (!host::readInterface(reader, IFDSessionCallback::descriptor, callback) ||
                    !reader.complete()) {
                    return false;
                }
                return answered(
                    mSession->setCallback(static_cast<IFDSessionCallback*>(callback.get())),
                    writer);
            }
            case SECOND: {
                StreamConfiguration configuration = {};
                reader(configuration);
                return reader.complete() && answered(mSession->configure(configuration), writer);
            }
            case THIRD: {
                CaptureRequest request = {};
                reader(request);
                return reader.complete() &&
                       answered(mSession->processCaptureRequest(request), writer);
            }
            default:
                return false;
        }
    }

private:
    const sp<IFDSession> mSession;
};

class BnHwFDSessionCallback : public Stub {
public:
    explicit BnHwFDSessionCallback(sp<IFDSessionCallback> callback)
        : mCallback(std::move(callback)) {}

    bool dispatch(uint32_t method, Reader& reader, Writer& writer) override {
        switch (method) {
            case PING:
                return reader.complete();
            case FIRST: {
                hidl_vec<CaptureResult> results;
                reader(results);
                return reader.complete() &&
                       answered(mCallback->processCaptureResult(results), writer);
            }
            case SECOND: {
                hidl_vec<FDNotifyMsg> msgs;
                reader(msgs);
                return reader.complete() && answered(mCallback->notify(msgs), writer);
            }
            default:
                return false;
        }
    }

private:
    const sp<IFDSessionCallback> mCallback;
};

template <typename Interface, typename ProxyClass, typename StubClass>
bool registerInterface() {
    host::registerInterface(
        Interface::descriptor,
        {[](std::unique_ptr<CallChannel> channel) -> sp<IBase> {
             return new ProxyClass(std::move(channel));
         },
         [](const sp<IBase>& object) -> std::unique_ptr<Stub> {
             return std::make_unique<StubClass>(static_cast<Interface*>(object.get()));
         }});
    return true;
}

// Done when the library is loaded.
[[maybe_unused]] const bool sRegistered =
    registerInterface<IFDSession, BpHwFDSession, BnHwFDSession>() &&
    registerInterface<IFDSessionCallback, BpHwFDSessionCallback, BnHwFDSessionCallback>();

}  // namespace

}  // namespace vendor::zoru::zoruprovider::fdstream::V1_0
