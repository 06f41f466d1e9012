#include "model/sequence.h"

#include <android-base/thread_annotations.h>

#include <algorithm>
#include <random>

#include "host/threads.h"
#include "model/subject.h"
#include "model/words.h"

namespace testing_support {

namespace {

/** The session itself, whose thread's start is refused: the passes are made here, on one thread. */
class SessionDriver : public Subject {
    using Subject::Subject;

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

    android::sp<product::FDSessionImpl> mSession;
    android::sp<fdstream::IFDSession> mInterface;
};

}  // namespace

uint8_t kindAt(uint8_t byte) {
    int left = byte;
    for (size_t kind = 0;; kind = (kind + 1) % Subject::kKinds.size()) {
        left -= Subject::kKinds[kind].weight;
        if (left < 0) return static_cast<uint8_t>(kind);
    }
}

Sequence sequenceOf(uint64_t seed) {
    std::mt19937_64 random(seed);
    std::vector<uint8_t> bytes((20 + random() % 41) * sizeof(Operation));
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8_t>(random()); });
    Sequence sequence = sequenceFrom(bytes.data(), bytes.size());
    // Most sequences get somewhere: with a callback, one stream of the usual id, and frames that
    // are turned.
    if (seed % 8 != 0) {
        sequence[0] = {0, {1}};
        sequence[1].kind = 1;
        sequence[1].args[0] = sequence[1].args[2] = 0;
    }
    if (seed % 2 != 0) sequence[2] = {17, {4, 3}};
    return sequence;
}

Sequence sequenceFrom(const uint8_t* data, size_t size) {
    Sequence sequence(std::min(size / sizeof(Operation), size_t{60}));
    for (Operation& operation : sequence) {
        operation.kind = kindAt(data[0]);
        std::copy_n(data + 1, operation.args.size(), operation.args.begin());
        data += sizeof(Operation);
    }
    return sequence;
}

std::string disagreement(const FileSet& files, const Sequence& sequence) {
    const auto session = SessionDriver(files).play(sequence);
    const auto model = makeModel(files)->play(sequence);
    const auto [got, expected] = std::mismatch(session.begin(), session.end(), model.begin());
    if (got == session.end()) return {};
    std::string text = cat("in step ", got - session.begin(), ", after the beginning, step 0",
                           "\n  session:", *got, "\n  model:", *expected, "\nof {\n");
    for (const auto& [kind, args] : sequence) {
        text += cat("    {", kind, ", {");
        for (const uint8_t arg : args)
            text += cat(arg, ", ");
        text += cat("}},  // ", Subject::kKinds[kind].name, "\n");
    }
    return text + "}\n";
}

Sequence shrunk(Sequence sequence, const std::function<bool(const Sequence&)>& holds) {
    for (size_t i = sequence.size(); i-- > 0;) {
        Sequence shorter = sequence;
        shorter.erase(shorter.begin() + static_cast<std::ptrdiff_t>(i));
        if (holds(shorter)) sequence = std::move(shorter);
    }
    for (Operation& operation : sequence) {
        for (uint8_t& arg : operation.args) {
            const uint8_t before = std::exchange(arg, uint8_t{0});
            if (!holds(sequence)) arg = before;
        }
    }
    return sequence;
}

}  // namespace testing_support
