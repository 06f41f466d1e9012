#pragma once

#include <android/hardware/camera/common/1.0/types.h>
#include <hidl/Status.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

#include "host/remote.h"

/** What proxies and stubs have in common, whatever their interface. */
namespace host {

/** The method's number on the wire; those of an interface follow, as its definition has them. */
constexpr uint32_t kPing = 0;

/** Calls that every interface has, and ways to make the others. */
template <typename Interface>
class Proxy : public Interface {
public:
    template <typename T>
    using Return = ::android::hardware::Return<T>;

    explicit Proxy(std::unique_ptr<CallChannel> channel) : mChannel(std::move(channel)) {}

    bool isRemote() const override { return true; }
    Return<void> ping() override { return callVoid(kPing, Outgoing()); }
    Return<bool> linkToDeath(const sp<::android::hardware::hidl_death_recipient>& recipient,
                             uint64_t cookie) override {
        return mChannel->linkToDeath(recipient, cookie, ::android::wp<IBase>(sp<IBase>(this)));
    }
    Return<bool> unlinkToDeath(
        const sp<::android::hardware::hidl_death_recipient>& recipient) override {
        return mChannel->unlinkToDeath(recipient);
    }

protected:
    Return<void> callVoid(uint32_t method, const Outgoing& out) {
        return mChannel->call(method, out, [](Reader& /*reader*/) {});
    }
    /** What is answered, and into `results` what comes with it. */
    template <typename Answer, typename... Results>
    Return<Answer> callFor(uint32_t method, const Outgoing& out, Results&... results) {
        Answer answer = {};
        const ::android::hardware::Status status =
            mChannel->call(method, out, [&](Reader& reader) { reader(answer, results...); });
        if (!status.isOk()) return status;
        return answer;
    }
    template <typename... Records>
    static Outgoing written(const Records&... records) {
        Outgoing out;
        Writer writer(out);
        writer(records...);
        return out;
    }

private:
    const std::unique_ptr<CallChannel> mChannel;
};

/**
 * Writes what a call returned, and the results that came with it. False when a local object has
 * returned a transport failure.
 */
template <typename T, typename... Results>
bool writeAnswer(const ::android::hardware::Return<T>& answer, Writer& writer,
                 const Results&... results) {
    if (!answer.isOk()) return false;
    if constexpr (!std::is_void_v<T>) writer(static_cast<T>(answer), results...);
    return true;
}

/** Reads a call's arguments and calls with them, unless they are refused or not well-formed. False
 * when they are not well-formed. */
template <typename Arguments, typename Call>
bool callWith(Reader& reader, Call call) {
    Arguments arguments = {};
    reader(arguments);
    if (!reader.complete()) return false;
    if (reader.refusal().empty()) return call(arguments);
    return true;
}

/** True, for the static that is initialised by it. */
template <typename Interface, typename ProxyClass, typename StubClass>
bool registerInterface() {
    registerInterface(
        Interface::descriptor,
        {[](std::unique_ptr<CallChannel> channel) -> sp<IBase> {
             return new ProxyClass(std::move(channel));
         },
         [](const sp<IBase>& object) -> std::unique_ptr<Stub> {
             return std::make_unique<StubClass>(static_cast<Interface*>(object.get()));
         }});
    return true;
}

}  // namespace host
