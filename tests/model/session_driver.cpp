// The session itself, whose thread's start is refused: the passes are made here, on one thread.

#include <android-base/thread_annotations.h>

#include "host/threads.h"
#include "model/subject.h"

namespace testing_support {

namespace {

class SessionDriver : public Subject {
public:
    explicit SessionDriver(const FileSet& files) : Subject(files) {}

private:
    product::FDSession& session() override { return *mSession; }
    fdstream::IFDSession& client() override { return *mInterface; }
    void make() override {
        host::failNextThreadStart();
        mSession = new product::FDSessionImpl;
        mInterface = mSession->getInterface();
    }
    void drop() override { mSession.clear(); }
    void threadLoop() override {
        if (!mSession->threadLoop()) say("the monitor ends");
    }
    /** Without the session's lock: no other thread knows the session. */
    void freeBuffer(const product::StreamBuffer& buffer) override NO_THREAD_SAFETY_ANALYSIS {
        mSession->freeBuffer(buffer);
    }
    void resetPTZScene() override { mSession->resetPTZScene(); }

    android::sp<product::FDSessionImpl> mSession;
    android::sp<fdstream::IFDSession> mInterface;
};

}  // namespace

std::unique_ptr<Subject> makeSession(const FileSet& files) {
    return std::make_unique<SessionDriver>(files);
}

}  // namespace testing_support
