#include "stream_client.h"

#include <android/hardware/camera/common/1.0/types.h>
#include <err.h>
#include <hidl/Status.h>

#include "host/accepted.h"
#include "host/served_watch.h"
#include "stream_receiver.h"

namespace tools {

using android::sp;
using android::wp;
using android::hardware::Return;
using android::hardware::camera::common::V1_0::Status;
using vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession;

StreamClient::StreamClient(const sp<IFDSession>& session, const StreamSettings& settings)
    : mSession(session),
      mReceiver(new StreamReceiver(session, settings)),
      mWatch(mReceiver, [receiver = wp<StreamReceiver>(mReceiver)](host::ServedEnd end) {
          if (const sp<StreamReceiver> alive = receiver.promote()) alive->letGo(end);
      }) {}

StreamClient::~StreamClient() {
    // Also breaks the circle of receiver, session and death notice.
    const Return<bool> unlinked = mSession->unlinkToDeath(mReceiver);
    if (!unlinked.isOk() || !mReceiver->leave()) return;
    const Return<Status> answer = mSession->setCallback(nullptr);
    if (!answer.isOk()) {
        warnx("the callback cannot be taken back: %s", answer.description().c_str());
        return;
    }
    // A last call may be on its way: when the process ends before it is answered, the provider
    // takes this client for a dead one.
    mReceiver->waitUntilLetGo();
}

bool StreamClient::takes(const Return<Status>& answer, std::string& problem) {
    if (host::isAccepted(answer)) return true;
    if (answer.isOk()) {
        problem = "the session does not take the stream";
    } else if (mSession->ping().isOk()) {
        problem = "the stream cannot be set up: " + answer.description();
    } else {
        mReceiver->lose(answer.description());
    }
    return false;
}

bool StreamClient::start(std::string& problem) {
    if (!mReceiver->allocateBuffers()) {
        problem = "there is no memory for the buffers";
        return false;
    }
    const Return<bool> linked = mSession->linkToDeath(mReceiver, 0);
    if (!linked.isOk()) {
        mReceiver->lose(linked.description());
        return false;
    }
    if (!linked) {
        problem = "the provider's end cannot be watched";
        return false;
    }
    if (!takes(mSession->setCallback(mReceiver), problem)) return false;
    mReceiver->handedOver();
    if (!takes(mSession->configure(mReceiver->configuration()), problem)) return false;
    mReceiver->begin();
    return true;
}

std::optional<Answer> StreamClient::next(std::chrono::milliseconds patience) {
    return mReceiver->next(patience);
}

void StreamClient::giveBack(const Answer& answer) {
    if (answer.lent != nullptr) mReceiver->release(answer.buffer);
}

void StreamClient::stopAsking() {
    mReceiver->stopAsking();
}

uint32_t StreamClient::asked() const {
    return mReceiver->asked();
}

uint32_t StreamClient::wanted() const {
    return mReceiver->wanted();
}

bool StreamClient::isIdle() const {
    return mReceiver->isIdle();
}

Loss StreamClient::loss() const {
    return mReceiver->loss();
}

std::string StreamClient::lossInWords() const {
    return mReceiver->lossInWords();
}

}  // namespace tools
