// What a session should do, told as plainly as can be: no thread and no lock.

#include <algorithm>
#include <map>
#include <set>

#include "frame.h"
#include "model/scene_model.h"
#include "support/spy_mapper.h"

namespace testing_support {

namespace {

using android::hardware::hidl_handle;

constexpr int64_t kStaleUs = 1000000;
constexpr const char* kGone = "Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT: gone'";

/** Which handles there are: a copy has fewer when they could not be duplicated. */
std::array<bool, 3> handlesOf(const StreamBuffer& buffer) {
    return {buffer.buffer.getNativeHandle() != nullptr,
            buffer.acquireFence.getNativeHandle() != nullptr,
            buffer.releaseFence.getNativeHandle() != nullptr};
}

void turn(const android_ycbcr& planes, kit::FrameSize size) {
    const auto rowAt = [&](size_t row) {
        const auto luma = static_cast<size_t>(size.height);
        return row < luma ? static_cast<uint8_t*>(planes.y) + row * planes.ystride
                          : static_cast<uint8_t*>(std::min(planes.cb, planes.cr)) +
                                (row - luma) * planes.cstride;
    };
    kit::Frame frame;
    for (size_t row = 0; row < size.rows(); ++row)
        frame.insert(frame.end(), rowAt(row), rowAt(row) + size.width);
    const kit::Frame turned = kit::turnedBy180(frame, size);
    for (size_t row = 0; row < size.rows(); ++row)
        std::copy_n(&turned[static_cast<size_t>(size.width) * row], size.width, rowAt(row));
}

class SessionModel : public SceneModel {
public:
    explicit SessionModel(const FileSet& files) : SceneModel(files) {}

private:
    using Name = std::pair<int32_t, uint64_t>;  // the stream's id, and the buffer's
    struct Waiting {
        CaptureRequest request;
        int64_t since;
    };

    void make() override { resetPTZScene(); }
    void drop() override {
        mResults.clear();
        mRequests.clear();
        mCallback.clear();
        mGraphicBuffers.clear();
    }

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
        for (const auto& [name, handle] : mRegistry)
            release(handle);
        mRegistry.clear();
        mStreams.clear();
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

    std::optional<buffer_handle_t> lookUpOrImport(const StreamBuffer& buffer) {
        const Name name = {buffer.streamId, buffer.bufferId};
        mStreams.insert(buffer.streamId);
        if (mRegistry.count(name) != 0) return mRegistry[name];
        if (buffer.buffer.getNativeHandle() == nullptr) {
            logBuffer('E', "handleCaptureRequest: buffer", buffer);
            return std::nullopt;
        }
        const std::optional<buffer_handle_t> imported = import(buffer.buffer);
        if (!imported) {
            logBuffer('E', "handleCaptureRequest: import buffer failed,", buffer);
            return std::nullopt;
        }
        mRegistry[name] = *imported;
        const auto& stream = mConfiguration->streams[0];
        mGraphicBuffers[buffer.bufferId] =
            new GraphicBuffer(*imported, GraphicBuffer::CLONE_HANDLE, stream.width, stream.height,
                              35, 1, stream.usage, stream.width);
        logBuffer('I', "handleCaptureRequest: import buffer success,", buffer);
        return imported;
    }
    std::optional<buffer_handle_t> import(const hidl_handle& raw) {
        if (raw->numFds + raw->numInts == 0) return nullptr;
        std::optional<buffer_handle_t> imported;
        const Return<void> answer =
            sessionMapper().importBuffer(raw, [&](mapper3::Error error, void* handle) {
                if (error == mapper3::Error::NONE) imported = static_cast<buffer_handle_t>(handle);
            });
        if (!answer.isOk()) {
            log('E',
                cat("HandleImporter: importBufferInternal: mapper importBuffer failed: ", kGone));
            return std::nullopt;
        }
        return imported;
    }
    void release(buffer_handle_t imported) {
        if (imported == nullptr) return;
        if (!sessionMapper().freeBuffer(const_cast<native_handle_t*>(imported)).isOk()) {  // NOLINT
            log('E', cat("HandleImporter: freeBuffer: mapper freeBuffer failed: ", kGone));
        }
    }
    void freeBuffer(const StreamBuffer& buffer) override {
        const auto found = mRegistry.find({buffer.streamId, buffer.bufferId});
        if (found == mRegistry.end()) {
            const std::string what = mStreams.count(buffer.streamId) == 0
                                         ? cat("streamId(", buffer.streamId)
                                         : cat("bufferId(", buffer.bufferId);
            return log('E',
                       cat("freeBuffer: CirculatingBuffers does not have ", what, ") entry \n"));
        }
        release(found->second);
        mRegistry.erase(found);
    }
    sp<GraphicBuffer> getBufferForId(uint64_t bufferId) override {
        const auto found = mGraphicBuffers.find(bufferId);
        return found != mGraphicBuffers.end() ? found->second : nullptr;
    }

    // ---- The requests ----

    Return<Status> processCaptureRequest(const CaptureRequest& request) override {
        if (isGone("processCaptureRequest")) return Status::INTERNAL_ERROR;
        CaptureRequest copy = {request.frameNumber,
                               request.fmqSettingsSize,
                               request.settings,
                               request.inputBuffer,
                               {}};
        copy.outputBuffers.resize(request.outputBuffers.size());
        for (size_t i = 0; i < request.outputBuffers.size(); ++i) {
            const StreamBuffer& from = request.outputBuffers[i];
            copy.outputBuffers[i] = {from.streamId, from.bufferId,     {},
                                     from.status,   from.acquireFence, from.releaseFence};
        }
        if (!fits(request)) return Status::ILLEGAL_ARGUMENT;

        const StreamBuffer& buffer = request.outputBuffers[0];
        const bool isNew = mRegistry.count({buffer.streamId, buffer.bufferId}) == 0;
        const std::optional<buffer_handle_t> imported = lookUpOrImport(buffer);
        if (!imported) return Status::ILLEGAL_ARGUMENT;
        const hidl_handle registered(*imported);
        copy.outputBuffers[0].buffer = registered;
        std::array<bool, 3> whole = handlesOf(buffer);
        whole[0] = *imported != nullptr;
        if (handlesOf(copy.outputBuffers[0]) != whole ||
            handlesOf(copy.inputBuffer) != handlesOf(request.inputBuffer)) {
            logBuffer('E', "handleCaptureRequest: duplicating handles failed,", buffer);
            if (isNew) {
                freeBuffer(buffer);
                mGraphicBuffers.erase(buffer.bufferId);
            }
            return Status::ILLEGAL_ARGUMENT;
        }
        mRequests.push_back({std::move(copy), mNow});
        return Status::OK;
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
        const auto check = [this](StreamBuffer& buffer, const StreamBuffer& original) {
            if (handlesOf(buffer) == handlesOf(original)) return;
            logBuffer('E', "sendCaptureResult: duplicating handles failed,", buffer);
            buffer.status = BufferStatus::ERROR;
        };
        for (size_t i = 0; i < result.outputBuffers.size(); ++i)
            check(copy.outputBuffers[i], result.outputBuffers[i]);
        check(copy.inputBuffer, result.inputBuffer);
        mResults.push_back(std::move(copy));
    }
    void threadLoop() override {
        CaptureResult result = std::move(mResults.front());
        mResults.pop_front();
        if (result.outputBuffers.size() > 0) {
            const auto found = mGraphicBuffers.find(result.outputBuffers[0].bufferId);
            if (mLuck[FLIP] > 0 && found != mGraphicBuffers.end()) rotate(*found->second);
            deliver(std::move(result));
        }
        if (mRequests.empty() || mNow <= mRequests.front().since + kStaleUs) return;
        CaptureResult failed = {};
        failed.frameNumber = mRequests.front().request.frameNumber;
        failed.outputBuffers = std::move(mRequests.front().request.outputBuffers);
        failed.outputBuffers[0].status = BufferStatus::ERROR;
        failed.inputBuffer.streamId = -1;
        mRequests.pop_front();
        deliver(std::move(failed));
    }
    void rotate(GraphicBuffer& buffer) {
        android_ycbcr planes = {};
        const auto usage = static_cast<uint32_t>(buffer.getUsage());
        if (const int error = buffer.lockYCbCr(usage, &planes)) {
            return log('E', cat("rotate180: lockYCbCr failed, error (", error, ") \n"));
        }
        if (planes.chroma_step == 2) {
            turn(planes, {buffer.width, buffer.height});
        } else {
            log('E', cat("rotate180: unhandled chroma format step ", planes.chroma_step, " \n"));
        }
        if (const int error = buffer.unlock()) {
            log('E', cat("rotate180: unlock failed, error (", error, ") \n"));
        }
    }

    void logBuffer(char priority, const char* event, const StreamBuffer& buffer) {
        log(priority,
            cat(event, " streamId(", buffer.streamId, "), bufferId(", buffer.bufferId, ") \n"));
    }
    std::optional<StreamConfiguration> mConfiguration;
    std::map<Name, buffer_handle_t> mRegistry;
    std::set<int32_t> mStreams;  // of which there was a buffer, taken or not
    std::map<uint64_t, sp<GraphicBuffer>> mGraphicBuffers;
    std::deque<Waiting> mRequests;
    std::deque<CaptureResult> mResults;
};

}  // namespace

std::unique_ptr<Subject> makeModel(const FileSet& files) {
    return std::make_unique<SessionModel>(files);
}

}  // namespace testing_support
