// What a session should do, told as plainly as can be: no thread, no lock, and handles on paper.

#include <algorithm>
#include <cstring>
#include <map>

#include "model/platform_model.h"
#include "model/scene_model.h"

namespace testing_support {

namespace {

constexpr int64_t kStaleUs = 1000000;
constexpr const char* kGone = "Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT: gone'";

class SessionModel : public SceneModel {
public:
    explicit SessionModel(const Files& files)
        : SceneModel(files, files.modelsHandles(), files.modelsMemories()), mPlatform(files) {
        for (size_t i = 0; i < mMemories.size(); ++i)
            memcpy(mMemories[i].bytes(), files.memories()[i].bytes(), mMemories[i].size());
    }
    ~SessionModel() override { letGoOfHeld(); }
    SessionModel(const SessionModel&) = delete;
    SessionModel& operator=(const SessionModel&) = delete;

private:
    struct Waiting {
        CaptureRequest request;
        int64_t since;
    };

    void make() override { resetPTZScene(); }
    void drop() override {
        mIsGone = true;
        mResults.clear();
        mRequests.clear();
        mCallback.clear();
        mGraphicBuffers.clear();
        // What is registered is not given back; whoever plays the session's part here does that.
        for (const auto& [stream, buffers] : mRegistry) {
            for (const auto& [id, file] : buffers) {
                if (file != kNoHandle) mPlatform.free(file);
            }
        }
    }
    host::MapperCounters mapperCounters() override { return mPlatform.counters; }
    int descriptors() override {
        int sum = mDescriptorsBefore + mPlatform.descriptors();
        for (const Waiting& waiting : mRequests)
            sum += mPlatform.descriptorsOf(waiting.request);
        for (const CaptureResult& result : mResults)
            sum += mPlatform.descriptorsOf(result);
        for (const CaptureRequest& request : mTaken)
            sum += mPlatform.descriptorsOf(request);
        return sum;
    }

    void setClock(int64_t us) override { mNow = us; }
    void flip(bool isFlipped) override { mFlipped = isFlipped; }
    void setMapper(MapperState state) override { mMapper = state; }
    void failLock(int error) override { mPlatform.nextLockError = error; }
    void failUnlock(int error) override { mPlatform.nextUnlockError = error; }
    void limitDuplicates(int count) override { mPlatform.duplicatesLeft = count; }

    // ---- The configuration ----

    Return<Status> configure(const StreamConfiguration& configuration) override {
        if (isGone("configure")) return Status::INTERNAL_ERROR;
        log('I', "handleConfigure: \n");
        const size_t count = configuration.streams.size();
        const std::string counted = cat("handleConfigure: streamsCount(", count, ")  \n");
        log('I', counted);
        if (count != 1) {
            log('E', counted);
            return Status::ILLEGAL_ARGUMENT;
        }
        mRequests.clear();
        for (const auto& [stream, buffers] : mRegistry) {
            for (const auto& [id, file] : buffers)
                release(file);
        }
        mRegistry.clear();
        mGraphicBuffers.clear();
        mConfiguration = configuration;
        return Status::OK;
    }
    int32_t getConfiguration(StreamConfiguration& configuration) override {
        if (!mConfiguration) return -1;
        configuration = *mConfiguration;
        return 0;
    }

    // ---- The buffers ----

    bool knows(const StreamBuffer& buffer) const {
        const auto stream = mRegistry.find(buffer.streamId);
        return stream != mRegistry.end() && stream->second.count(buffer.bufferId) != 0;
    }
    /** The imported handle's file. */
    std::optional<File> lookUpOrImport(const StreamBuffer& buffer) {
        std::map<uint64_t, File>& buffers = mRegistry[buffer.streamId];
        if (knows(buffer)) return buffers[buffer.bufferId];
        const File file = mFiles.nameOf(buffer.buffer);
        if (file == kNoHandle) {
            logBuffer('E', "handleCaptureRequest: buffer", buffer);
            return std::nullopt;
        }
        if (file != kEmpty && !import(file)) {
            logBuffer('E', "handleCaptureRequest: import buffer failed,", buffer);
            return std::nullopt;
        }
        const File imported = file == kEmpty ? kNoHandle : file;
        buffers[buffer.bufferId] = imported;
        const auto& stream = mConfiguration->streams[0];
        const auto width = static_cast<int>(stream.width);
        const auto height = static_cast<int>(stream.height);
        mGraphicBuffers[buffer.bufferId] = mPlatform.wrap(
            imported, {kNoHandle, width, height, width, 35, stream.usage, 0, nullptr});
        logBuffer('I', "handleCaptureRequest: import buffer success,", buffer);
        return imported;
    }
    bool import(File file) {
        if (mMapper == MapperState::Dead) {
            log('E',
                cat("HandleImporter: importBufferInternal: mapper importBuffer failed: ", kGone));
        }
        if (mMapper != MapperState::Fine) return false;
        const bool isImported = mPlatform.import(file) == 0;
        mMapped += cat('+', isImported ? file : kNoHandle);
        return isImported;
    }
    void release(File imported) {
        if (imported == kNoHandle) return;
        mMapped += cat('-', imported);
        mPlatform.free(imported);
        if (mMapper == MapperState::Dead) {
            log('E', cat("HandleImporter: freeBuffer: mapper freeBuffer failed: ", kGone));
        }
    }
    void freeBuffer(const StreamBuffer& buffer) override {
        const std::string start = "freeBuffer: CirculatingBuffers does not have ";
        const auto stream = mRegistry.find(buffer.streamId);
        if (stream == mRegistry.end()) {
            return log('E', cat(start, "streamId(", buffer.streamId, ") entry \n"));
        }
        const auto found = stream->second.find(buffer.bufferId);
        if (found == stream->second.end()) {
            return log('E', cat(start, "bufferId(", buffer.bufferId, ") entry \n"));
        }
        release(found->second);
        stream->second.erase(found);
    }
    std::shared_ptr<PlainGraphicBuffer> lookUp(uint64_t bufferId) override {
        const auto found = mGraphicBuffers.find(bufferId);
        return found != mGraphicBuffers.end() ? found->second : nullptr;
    }

    // ---- The requests ----

    Return<Status> processCaptureRequest(const CaptureRequest& request) override {
        if (isGone("processCaptureRequest")) return Status::INTERNAL_ERROR;
        return enqueue(request) ? Status::OK : Status::ILLEGAL_ARGUMENT;
    }
    bool enqueue(const CaptureRequest& request) {
        CaptureRequest copy = request;
        bool isWhole = mPlatform.duplicateAll(copy.inputBuffer);
        for (StreamBuffer& output : copy.outputBuffers)
            isWhole = mPlatform.duplicateFences(output) && isWhole;
        if (!fits(request)) return false;

        const StreamBuffer& buffer = request.outputBuffers[0];
        const bool isNew = !knows(buffer);
        const std::optional<File> imported = lookUpOrImport(buffer);
        if (!imported) return false;
        hidl_handle& handle = copy.outputBuffers[0].buffer;
        handle = mFiles.modelsHandles().at(*imported);
        isWhole = mPlatform.duplicate(handle) && isWhole;
        if (!isWhole) {
            logBuffer('E', "handleCaptureRequest: duplicating handles failed,", buffer);
            if (isNew) {
                freeBuffer(buffer);
                mGraphicBuffers.erase(buffer.bufferId);
            }
            return false;
        }
        mRequests.push_back({std::move(copy), mNow});
        return true;
    }
    bool fits(const CaptureRequest& request) {
        std::string reason;
        if (request.outputBuffers.size() != 1) {
            reason = cat("outputBuffersCount(", request.outputBuffers.size(), ")  \n");
        } else if (!mConfiguration) {
            reason = "mConfigSet(0)  \n";
        } else if (request.outputBuffers[0].streamId != mConfiguration->streams[0].id) {
            reason = cat("buffer streamId(", request.outputBuffers[0].streamId,
                         "), configuration streamId(", mConfiguration->streams[0].id, ") \n");
        }
        if (!reason.empty()) log('E', "handleCaptureRequest: " + reason);
        return reason.empty();
    }
    bool isCaptureRequestReady() override { return !mRequests.empty(); }
    int32_t getProcessCaptureRequest(CaptureRequest& request) override {
        if (mRequests.empty()) return -1;
        request = std::move(mRequests.front().request);
        mRequests.pop_front();
        return 0;
    }

    // ---- The results ----

    void sendCaptureResult(const CaptureResult& result) override {
        CaptureResult copy = result;
        const auto complete = [this](StreamBuffer& buffer) {
            if (mPlatform.duplicateAll(buffer)) return;
            logBuffer('E', "sendCaptureResult: duplicating handles failed,", buffer);
            buffer.status = BufferStatus::ERROR;
        };
        std::for_each(copy.outputBuffers.begin(), copy.outputBuffers.end(), complete);
        complete(copy.inputBuffer);
        mResults.push_back(std::move(copy));
    }
    void threadLoop() override {
        const CaptureResult result = std::move(mResults.front());
        mResults.pop_front();
        if (result.outputBuffers.size() > 0) {
            const auto found = mGraphicBuffers.find(result.outputBuffers[0].bufferId);
            if (mFlipped && found != mGraphicBuffers.end()) rotate(*found->second);
            deliver(result);
        }
        if (mRequests.empty() || mNow <= mRequests.front().since + kStaleUs) return;
        CaptureResult failed = {};
        failed.frameNumber = mRequests.front().request.frameNumber;
        failed.outputBuffers = std::move(mRequests.front().request.outputBuffers);
        failed.outputBuffers[0].status = BufferStatus::ERROR;
        failed.inputBuffer.streamId = -1;
        mRequests.pop_front();
        deliver(failed);
    }
    void rotate(const PlainGraphicBuffer& buffer) {
        if (const int error = mPlatform.lock(buffer)) {
            return log('E', cat("rotate180: lockYCbCr failed, error (", error, ") \n"));
        }
        const int step = mPlatform.chromaStep(buffer);
        if (step == 2) {
            mPlatform.turn(buffer);
        } else {
            log('E', cat("rotate180: unhandled chroma format step ", step, " \n"));
        }
        if (const int error = mPlatform.unlock()) {
            log('E', cat("rotate180: unlock failed, error (", error, ") \n"));
        }
    }

    void logBuffer(char priority, const char* event, const StreamBuffer& buffer) {
        log(priority,
            cat(event, " streamId(", buffer.streamId, "), bufferId(", buffer.bufferId, ") \n"));
    }
    PlatformModel mPlatform;
    MapperState mMapper = MapperState::Fine;
    bool mFlipped = false;
    int64_t mNow = 0;
    const int mDescriptorsBefore = openDescriptors();

    std::optional<StreamConfiguration> mConfiguration;
    std::map<int32_t, std::map<uint64_t, File>> mRegistry;
    std::map<uint64_t, std::shared_ptr<PlainGraphicBuffer>> mGraphicBuffers;
    std::deque<Waiting> mRequests;
    std::deque<CaptureResult> mResults;
};

}  // namespace

std::unique_ptr<Subject> makeModel(const Files& files) {
    return std::make_unique<SessionModel>(files);
}

}  // namespace testing_support
