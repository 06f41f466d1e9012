#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "FDSession.h"
#include "host/log.h"
#include "model/operands.h"
#include "model/sequence.h"
#include "support/interposed.h"

namespace testing_support {

/**
 * What one sequence is played on: the session or the model of it, with all who use it. Carries
 * operations out, and says what could be seen of each in the same words for both.
 */
class Subject : private host::LogSink {
public:
    /** What a client, a provider, an observer's owner, the clock or bad luck does to a session. */
    struct Kind {
        const char* name;
        uint8_t weight;  ///< how often it comes up
        void (*carryOut)(Subject& subject, const Args& args);
    };
    static const std::array<Kind, 20> kKinds;

    explicit Subject(const FileSet& files);

    /**
     * What can be seen of the beginning, of each operation, and of the session's end with what a
     * client hears that calls it after that: each a text, with a line for each event, in order.
     */
    std::vector<std::string> play(const Sequence& sequence);

protected:
    /** The client's calls; the mapper, below 0 gone; the first lock and unlock of a step; the flip,
     * 0 while nobody has said, below 0 "false". */
    enum Luck { CALLS, MAPPER, LOCK, UNLOCK, FLIP };

    void say(const std::string& event) { mSeen += "\n    " + event; }

    virtual product::FDSession& session() = 0;
    virtual fdstream::IFDSession& client() = 0;
    virtual void make() = 0;
    virtual void drop() = 0;
    // What only the session's own threads and code do.
    virtual void threadLoop() = 0;
    virtual void freeBuffer(const product::StreamBuffer& buffer) = 0;

    const FileSet& mFiles;
    int64_t mNow = 1700000000000000;
    std::array<int, 5> mLuck = {};  // of each below, 0 or an error
    bool mIsOver = false;

private:
    class Client;
    class Observer;

    void write(const host::LogLine& line) override;
    /** What an operation does, and what else can be seen of that. */
    std::string seen(const std::function<void()>& operation);
    /** What all of this process share, as it is now. */
    void enterWorld();
    void carryOutNested();
    /** Says all that can be read of the session. */
    void read();
    void setCallback(int choice);
    void send(const product::CaptureResult& result);

    std::string mSeen;
    std::optional<Operation> mNested;

    // The world.
    WallClock mClock;
    FewDuplicates mFewDuplicates;
    int mDuplicates = -1;  // that can be made in the next step; below 0 without a limit
    std::string mMapped;   // what the importer asked the mapper for, in order

    // The users.
    int mCallbacksMade = 0;
    size_t mUndelivered = 0;
    android::wp<fdstream::IFDSessionCallback> mClient;
    std::array<std::unique_ptr<product::ISceneCallback>, 3> mObservers;  // the first is none
    std::deque<product::CaptureRequest> mTaken;
    std::deque<android::sp<android::GraphicBuffer>> mHeld;
};

std::unique_ptr<Subject> makeModel(const FileSet& files);

}  // namespace testing_support
