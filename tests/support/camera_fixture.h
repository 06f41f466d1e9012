#pragma once

#include <sys/eventfd.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "source/camera.h"
#include "support/run_shell.h"
#include "support/session_fixture.h"
#include "temporary_folder.h"

namespace testing_support {

/** A camera on the fixture's session, whose client has a buffer of 64 x 48 for each request. */
class CameraFixture : public SessionFixture {
protected:
    static constexpr int kError = -1;

    CameraFixture() {
        for (int i = 0; i < 64; ++i)
            mBuffers.push_back(allocate({64, 48}));
        configure(0, {64, 48});
    }
    ~CameraFixture() override {
        source.reset();
        stop();
    }

    /** So many greys, by an expression with their number N, 25 a second, made by FFmpeg's program.
     */
    void writeClip(const std::string& file, const std::string& luma, int frames,
                   const std::string& encoder, const std::string& size = "64x48") const {
        expectRuns("ffmpeg -v error -y -f lavfi -i 'nullsrc=s=" + size + ":r=25,geq=" + luma +
                       ":128:128' -frames:v " + std::to_string(frames) + " -q:v 2 -c:v " + encoder,
                   {{folder / file, 0, ""}});
    }
    /** A file in the fixture's folder, unless told otherwise without a pace. */
    camera::SourceOptions sourceOf(const std::string& name, double fps = 0) const {
        camera::SourceOptions options;
        options.input = folder / name;
        options.fps = fps;
        return options;
    }
    /** The sentence when it cannot be. */
    std::string play(const camera::SourceOptions& options) {
        source = std::make_unique<camera::Camera>(session, options, [&](const std::string& line) {
            std::ofstream(folder / "said", std::ios::app) << line << '\n';
        });
        source->clientCame();
        std::string problem;
        return source->start(problem) ? "" : problem;
    }
    std::string saidSoFar() const { return contentOf(folder / "said"); }
    void ask() {
        const uint64_t id = mAsked++ % mBuffers.size() + 1;
        CaptureRequest request = requestFor(mAsked, id, mBuffers[id - 1].handle());
        // The client is done with its buffer, by a fence with a descriptor or without one.
        native_handle_t* const fence = native_handle_create(mAsked % 2 == 0 ? 0 : 1, 0);
        if (fence->numFds > 0) fence->data[0] = eventfd(1, EFD_CLOEXEC);
        request.outputBuffers[0].acquireFence.setTo(fence, true);
        EXPECT_TRUE(client->processCaptureRequest(request).isOk());
    }
    /** The first pixel's luma of the n-th answer since the beginning, once it is there. */
    int answer(size_t index) {
        const auto result = deliveries.waitFor(index + 1, index)[0];
        if (result.outputBuffers.size() == 0) return kError;
        const auto& output = result.outputBuffers[0];
        return output.status == BufferStatus::OK ? mBuffers[output.bufferId - 1].bytes()[0]
                                                 : kError;
    }
    int askFor() {
        ask();
        return answer(mAsked - 1);
    }

    const kit::TemporaryFolder folder;
    std::unique_ptr<camera::Camera> source;

private:
    std::vector<host::Buffer> mBuffers;
    uint32_t mAsked = 0;
};

}  // namespace testing_support
