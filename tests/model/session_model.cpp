// What a session should do, told as plainly as can be: no thread and no lock.

#include <algorithm>
#include <map>
#include <set>

#include "model/scene_model.h"
#include "support/spy_mapper.h"

namespace testing_support {

namespace {

using android::hardware::hidl_handle;

constexpr int64_t kStaleUs = 1000000;

/** Which handles there are: a copy has fewer when they could not be duplicated. */
std::array<bool, 3> handlesOf(const StreamBuffer& buffer) {
    return {buffer.buffer.getNativeHandle() != nullptr,
            buffer.acquireFence.getNativeHandle() != nullptr,
            buffer.releaseFence.getNativeHandle() != nullptr};
}

std::string textOf(const StreamBuffer& buffer) {
    return cat(" streamId(", buffer.streamId, "), bufferId(", buffer.bufferId, ") \n");
}

/** Swaps each sample of a plane with the one on the other side of its middle. */
void turn(uint8_t* plane, size_t stride, size_t step, size_t columns, size_t rows) {
    const auto at = [=](size_t i) { return plane + i / columns * stride + i % columns * step; };
    for (size_t i = 0; i < columns * rows / 2; ++i)
        std::swap_ranges(at(i), at(i) + step, at(columns * rows - 1 - i));
}

class SessionModel : public SceneModel {
    using SceneModel::SceneModel;

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

    /** Imports a buffer that is new. */
    Status know(const StreamBuffer& buffer) {
        mStreams.insert(buffer.streamId);
        if (mRegistry.count(nameOf(buffer)) != 0) return Status::OK;
        if (buffer.buffer.getNativeHandle() == nullptr) return refused("buffer" + textOf(buffer));
        const std::optional<buffer_handle_t> imported = import(buffer.buffer);
        if (!imported) return refused("import buffer failed," + textOf(buffer));
        mRegistry[nameOf(buffer)] = *imported;
        const auto& stream = mConfiguration->streams[0];
        mGraphicBuffers[buffer.bufferId] =
            new GraphicBuffer(*imported, GraphicBuffer::CLONE_HANDLE, stream.width, stream.height,
                              35, 1, stream.usage, stream.width);
        log('I', "handleCaptureRequest: import buffer success," + textOf(buffer));
        return Status::OK;
    }
    std::optional<buffer_handle_t> import(const hidl_handle& raw) {
        if (raw->numFds + raw->numInts == 0) return nullptr;
        std::optional<buffer_handle_t> imported;
        const auto take = [&](mapper3::Error error, void* handle) {
            if (error == mapper3::Error::NONE) imported = static_cast<buffer_handle_t>(handle);
        };
        const bool isAnswered = isDone(sessionMapper().importBuffer(raw, take),
                                       "HandleImporter: importBufferInternal: mapper importBuffer");
        return isAnswered ? imported : std::nullopt;
    }
    void release(buffer_handle_t imported) {
        if (imported == nullptr) return;
        isDone(sessionMapper().freeBuffer(const_cast<native_handle_t*>(imported)),  // NOLINT
               "HandleImporter: freeBuffer: mapper freeBuffer");
    }
    void freeBuffer(const StreamBuffer& buffer) override {
        const auto found = mRegistry.find(nameOf(buffer));
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
        const auto& [number, size, settings, input, outputs] = request;
        CaptureRequest copy = {number, size, settings, input, {}};
        copy.outputBuffers.resize(outputs.size());
        for (size_t i = 0; i < outputs.size(); ++i) {
            const auto& [stream, id, handle, status, acquire, release] = outputs[i];
            copy.outputBuffers[i] = {stream, id, {}, status, acquire, release};
        }
        if (outputs.size() != 1) {
            return refused(cat("outputBuffersCount(", outputs.size(), ")  \n"));
        }
        if (!mConfiguration) return refused("mConfigSet(0)  \n");
        const StreamBuffer& buffer = outputs[0];
        const int32_t configured = mConfiguration->streams[0].id;
        if (buffer.streamId != configured) {
            return refused(cat("buffer streamId(", buffer.streamId, "), configuration streamId(",
                               configured, ") \n"));
        }

        const bool isNew = mRegistry.count(nameOf(buffer)) == 0;
        if (know(buffer) != Status::OK) return Status::ILLEGAL_ARGUMENT;
        const hidl_handle registered(mRegistry[nameOf(buffer)]);
        copy.outputBuffers[0].buffer = registered;
        std::array<bool, 3> whole = handlesOf(buffer);
        whole[0] = registered.getNativeHandle() != nullptr;
        if (handlesOf(copy.outputBuffers[0]) == whole &&
            handlesOf(copy.inputBuffer) == handlesOf(input)) {
            mRequests.push_back({std::move(copy), mNow});
            return Status::OK;
        }
        const Status answer = refused("duplicating handles failed," + textOf(buffer));
        if (isNew) {
            freeBuffer(buffer);
            mGraphicBuffers.erase(buffer.bufferId);
        }
        return answer;
    }
    Status refused(const std::string& why) {
        log('E', "handleCaptureRequest: " + why);
        return Status::ILLEGAL_ARGUMENT;
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
            log('E', "sendCaptureResult: duplicating handles failed," + textOf(buffer));
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
            const auto width = static_cast<size_t>(buffer.width);
            const auto height = static_cast<size_t>(buffer.height);
            auto* const chroma = static_cast<uint8_t*>(std::min(planes.cb, planes.cr));
            turn(static_cast<uint8_t*>(planes.y), planes.ystride, 1, width, height);
            turn(chroma, planes.cstride, 2, width / 2, height / 2);
            // The byte of no pair, if there is one, keeps its column.
            turn(chroma + width / 2 * 2, planes.cstride, width % 2, 1, height / 2);
        } else {
            log('E', cat("rotate180: unhandled chroma format step ", planes.chroma_step, " \n"));
        }
        if (const int error = buffer.unlock()) {
            log('E', cat("rotate180: unlock failed, error (", error, ") \n"));
        }
    }

    static Name nameOf(const StreamBuffer& buffer) { return {buffer.streamId, buffer.bufferId}; }

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
