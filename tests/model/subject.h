#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "model/operation.h"
#include "model/plain_records.h"

namespace testing_support {

/** All that can be seen of a step, in order, each event a sentence. */
using Events = std::vector<std::string>;

/** How often the mapper did what, as the platform counts it. */
struct MapperCalls {
    int64_t imports = 0;
    int64_t frees = 0;
    int64_t locks = 0;
    int64_t unlocks = 0;
    int64_t maps = 0;
    int64_t refusals = 0;
    int64_t mappings = 0;  ///< alive now
};

/**
 * What a sequence is played on: the session, or the model of it. Carries operations out, and says
 * what could be seen of each in the same words for both.
 */
class Subject {
public:
    virtual ~Subject() = default;

    Events begin();
    Events step(const Operation& operation);
    /** The session's end, and what a client hears that calls it after that. */
    Events end();

protected:
    /** What can be counted after a step. */
    struct Counts {
        bool isReady;
        int descriptors;
        MapperCalls calls;
        std::string mapped;  ///< what the importer asked the mapper for, in order
        uint64_t bytes;      ///< a hash of all buffers' bytes
    };

    void say(std::string event) { mEvents.push_back(std::move(event)); }
    void sayCall(int callback, const char* what, size_t count, const std::string& record) {
        say(words("callback", callback, what, count, record));
    }
    void sayGone(int callback) { say(words("callback", callback, "is gone")); }
    /** For a client or an observer, inside a call. */
    void carryOutNested();

    virtual void make() = 0;
    virtual void drop() = 0;
    virtual Counts counts() = 0;

    // The client's, with the status that it gets. 0 takes the callback back, 3 sets it once more.
    virtual int setCallback(int choice) = 0;
    virtual int configure(const product::StreamConfiguration& configuration) = 0;
    virtual int submit(const PlainRequest& request) = 0;
    // The provider's. It keeps what it takes, kMostTaken requests, and kMostHeld buffers.
    virtual std::optional<PlainRequest> take() = 0;
    virtual bool isReady() = 0;
    virtual std::optional<product::StreamConfiguration> configuration() = 0;
    virtual std::optional<PlainGraphicBuffer> lookUp(uint64_t bufferId) = 0;
    virtual void send(const PlainResult& result) = 0;
    virtual void answerTaken(uint32_t status) = 0;
    virtual void letGoOfHeld() = 0;
    virtual void freeBuffer(int32_t streamId, uint64_t bufferId) = 0;
    virtual void notify(fdstream::FDNotifyMsg message) = 0;
    virtual void paint(size_t memory, const Operation& operation) = 0;
    virtual void pass() = 0;
    // Of the scene. Observer 0 is none.
    virtual void setObserver(int number) = 0;
    virtual void setScene(const product::SceneControl& control) = 0;
    virtual product::SceneControl scene() = 0;
    virtual void setPTZ(const product::SceneControl& control) = 0;
    virtual product::SceneControl ptz() = 0;
    virtual void resetPTZ() = 0;
    virtual void setMode(product::TrackingMode mode) = 0;
    virtual product::TrackingMode mode() = 0;
    virtual int people() = 0;
    virtual void setTrack(const product::TrackControl& control) = 0;
    virtual product::TrackControl track() = 0;
    // The world's.
    virtual void setClock(int64_t us) = 0;
    virtual void flip(bool isFlipped) = 0;
    virtual void setMapper(MapperState state) = 0;
    virtual void failLock(int error) = 0;
    virtual void failUnlock(int error) = 0;
    /** Without a count there is no limit. */
    virtual void limitDuplicates(std::optional<int> count) = 0;

    bool mCallsFail = false;

private:
    void carryOut(const Operation& operation);
    void carryOutClients(const Operation& operation);
    void carryOutProviders(const Operation& operation);
    void carryOutScenes(const Operation& operation);
    void carryOutWorlds(const Operation& operation);
    void sayAnswer(const char* operation, int64_t value) {
        say(words(operation, "answers", value));
    }
    Events seen();

    Events mEvents;
    std::optional<Operation> mNested;
    int64_t mNow = 1700000000000000;
};

constexpr size_t kMostTaken = 3;
constexpr size_t kMostHeld = 2;

uint64_t hashOf(const uint8_t* bytes, size_t size, uint64_t seed);
/** The byte that Kind::Paint writes there. */
uint8_t paintOf(const Operation& operation, size_t offset);

}  // namespace testing_support
