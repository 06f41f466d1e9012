// The session itself, whose thread's start is refused: the passes are made here, on one thread.

#include <android-base/thread_annotations.h>
#include <poll.h>

#include <algorithm>
#include <set>

#include "host/log.h"
#include "host/properties.h"
#include "host/threads.h"
#include "model/subject.h"
#include "model/words.h"
#include "support/interposed.h"
#include "support/spy_mapper.h"

namespace testing_support {

namespace {

using android::sp;

constexpr const char* kFlipped = "vendor.zoru.flipped";

class SessionDriver : public Subject, private host::LogSink {
public:
    explicit SessionDriver(const Files& files)
        : Subject(files, files.handles(), files.memories()), mScope(*this) {
        mMapper.onImport = [this](void* handle) {
            mMapped += cat('+', mFiles.nameOf(static_cast<const native_handle_t*>(handle)));
            if (handle != nullptr) mImports.insert(handle);
        };
        mMapper.onFree = [this](void* handle) {
            const bool isKnown = mImports.erase(handle) == 1;
            const auto* const known = static_cast<const native_handle_t*>(handle);
            mMapped += cat('-', isKnown ? mFiles.nameOf(known) : '?');
        };
    }
    ~SessionDriver() override {
        drop();
        failLock(0);
        failUnlock(0);
        host::clearProperty(kFlipped);
        setMapper(MapperState::Fine);
        mMapper.onImport = nullptr;
        mMapper.onFree = nullptr;
    }
    SessionDriver(const SessionDriver&) = delete;
    SessionDriver& operator=(const SessionDriver&) = delete;

private:
    void write(const host::LogLine& line) override {
        const bool isSessions = line.tag == "vendor.zoru.zoruprovider.fdstream@1.0-impl";
        say(cat("??VDIWEF"[line.priority], ' ', isSessions ? "" : line.tag + ": ", line.text));
    }
    product::FDSession& session() override { return *mSession; }
    fdstream::IFDSession& client() override { return *mInterface; }
    void make() override {
        host::failNextThreadStart();
        mSession = new product::FDSessionImpl;
        mInterface = mSession->getInterface();
    }
    void drop() override {
        mSession.clear();
        for (void* const handle : mImports)
            host::realMapper3()->freeBuffer(handle).isOk();
        mImports.clear();
    }
    void threadLoop() override {
        if (!mSession->threadLoop()) say("the monitor ends");
    }
    /** Without the session's lock: no other thread knows the session. */
    void freeBuffer(const product::StreamBuffer& buffer) override NO_THREAD_SAFETY_ANALYSIS {
        mSession->freeBuffer(buffer);
    }
    void resetPTZScene() override { mSession->resetPTZScene(); }
    std::shared_ptr<PlainGraphicBuffer> lookUp(uint64_t bufferId) override {
        const sp<android::GraphicBuffer> buffer = mSession->getBufferForId(bufferId);
        if (buffer == nullptr) return nullptr;
        return std::make_shared<PlainGraphicBuffer>(PlainGraphicBuffer{
            mFiles.nameOf(buffer->handle), buffer->width, buffer->height, buffer->stride,
            buffer->format, buffer->getUsage(), buffer->initCheck(), buffer});
    }
    int descriptors() override { return openDescriptors(); }
    host::MapperCounters mapperCounters() override { return host::mapperCounters(); }
    void setClock(int64_t us) override { mClock.stopAt(us); }
    void flip(bool isFlipped) override {
        host::setProperty(kFlipped, isFlipped ? "true" : "false");
    }
    void setMapper(MapperState state) override {
        constexpr int kNoResources = 5;
        const int fault = state == MapperState::Dead ? -1 : kNoResources;
        mMapper.fault = nullptr;
        if (state != MapperState::Fine) mMapper.fault = [fault] { return fault; };
    }
    void failLock(int error) override { host::failLock(error); }
    void failUnlock(int error) override { host::failNextUnlock(error); }
    void limitDuplicates(int count) override { mDuplicates.limitTo(count); }

    SpyMapper3& mMapper = sessionMapper();
    std::set<void*> mImports;  // what the importer has
    WallClock mClock;
    FewDuplicates mDuplicates;
    host::ScopedLogSink mScope;
    sp<product::FDSessionImpl> mSession;
    sp<fdstream::IFDSession> mInterface;
};

}  // namespace

int openDescriptors() {
    constexpr size_t kMost = 512;
    std::array<pollfd, kMost> entries;
    for (size_t i = 0; i < kMost; ++i)
        entries[i] = {static_cast<int>(i), 0, 0};
    poll(entries.data(), kMost, 0);
    return static_cast<int>(std::count_if(entries.begin(), entries.end(), [](const pollfd& entry) {
        return (entry.revents & POLLNVAL) == 0;
    }));
}

std::unique_ptr<Subject> makeDriver(const Files& files) {
    return std::make_unique<SessionDriver>(files);
}

}  // namespace testing_support
