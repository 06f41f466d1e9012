#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "FDSession.h"
#include "host/mapper.h"
#include "model/files.h"
#include "model/operands.h"
#include "model/sequence.h"

namespace testing_support {

/** All that can be seen of a step, in order, each event a sentence. */
using Events = std::vector<std::string>;

enum class MapperState : uint8_t { Fine, Refusing, Dead };

/**
 * What a sequence is played on: the session or the model of it, with all who use it. Carries
 * operations out, and says what could be seen of each in the same words for both.
 */
class Subject {
public:
    /** What a client, a provider, an observer's owner, the clock or bad luck does to a session. */
    struct Kind {
        const char* name;
        uint8_t weight;  ///< how often it comes up
        void (*carryOut)(Subject& subject, const Args& args);
    };
    static const std::array<Kind, 33> kKinds;

    virtual ~Subject();
    Subject(const Subject&) = delete;
    Subject& operator=(const Subject&) = delete;

    Events begin();
    Events step(const Operation& operation);
    /** The session's end, and what a client hears that calls it after that. */
    Events end();

protected:
    Subject(const Files& files, const Handles& handles, const Memories& memories);

    void letGoOfHeld();
    void say(std::string event) { mEvents.push_back(std::move(event)); }

    virtual product::FDSession& session() = 0;
    virtual fdstream::IFDSession& client() = 0;
    virtual void make() = 0;
    virtual void drop() = 0;
    // What only the session's own threads and code do.
    virtual void threadLoop() = 0;
    virtual void freeBuffer(const product::StreamBuffer& buffer) = 0;
    virtual void resetPTZScene() = 0;
    // What can be looked up and counted.
    virtual std::shared_ptr<PlainGraphicBuffer> lookUp(uint64_t bufferId) = 0;
    virtual int descriptors() = 0;
    virtual host::MapperCounters mapperCounters() = 0;
    // The world.
    virtual void setClock(int64_t us) = 0;
    virtual void flip(bool isFlipped) = 0;
    virtual void setMapper(MapperState state) = 0;
    virtual void failLock(int error) = 0;
    virtual void failUnlock(int error) = 0;
    virtual void limitDuplicates(int count) = 0;

    const Files& mFiles;
    const Memories& mMemories;
    std::string mMapped;  // what the importer asked the mapper for, in order
    std::deque<product::CaptureRequest> mTaken;

private:
    class Client;
    class Observer;

    void carryOut(const Operation& operation) {
        kKinds[operation.kind].carryOut(*this, operation.args);
    }
    void carryOutNested();
    template <typename Value>
    void sayAnswer(const char* operation, const Value& value) {
        say(operation + (" answers " + std::to_string(static_cast<int>(value))));
    }
    template <typename Record>
    Record read(void (product::FDSession::*get)(Record&)) {
        Record record = {};
        (session().*get)(record);
        return record;
    }
    void setCallback(int choice);
    void submit(const product::CaptureRequest& request);
    void take();
    void getConfiguration();
    void getBuffer(uint64_t bufferId);
    void send(const product::CaptureResult& result);
    void answerTaken(product::BufferStatus status);
    void paint(const Args& args);
    void pass();
    void nest(const Args& args);
    Events seen(bool isReady);

    const Handles& mHandles;
    Events mEvents;
    std::optional<Operation> mNested;
    bool mCallsFail = false;
    int64_t mNow = 1700000000000000;
    int mCallbacksMade = 0;
    size_t mUndelivered = 0;
    android::wp<Client> mClient;
    std::array<std::unique_ptr<Observer>, 2> mObservers;
    std::deque<std::shared_ptr<PlainGraphicBuffer>> mHeld;
};

/** There can be one at a time. */
std::unique_ptr<Subject> makeDriver(const Files& files);
/** Takes over how the buffers are, and what is counted; to be made before the driver. */
std::unique_ptr<Subject> makeModel(const Files& files);

int openDescriptors();

}  // namespace testing_support
