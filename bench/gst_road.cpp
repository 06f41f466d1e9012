#include "roads.h"

#ifdef BENCH_HAS_GSTREAMER

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <sched.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "child_process.h"
#include "gst_pipeline.h"
#include "session.h"
#include "signals.h"
#include "temporary_folder.h"

namespace bench {

namespace {

/**
 * Frames as they are ordered. Each is pushed from inside appsrc's question for data, on the thread
 * that then copies it into the shared memory and only afterwards asks again. So one frame can be
 * marked in place and stays in the cache, as ours does, and no thread waits for another.
 */
struct Production {
    HandOff<uint32_t> orders;  // 0 is the end
    // For the thread that is asked for data.
    MarkedFrame frame;
    const std::unique_ptr<GstBuffer, decltype(&gst_buffer_unref)> buffer{
        gst_buffer_new_wrapped_full(GST_MEMORY_FLAG_READONLY, frame.numbered(0), frame.size(), 0,
                                    frame.size(), nullptr, nullptr),
        gst_buffer_unref};
    uint32_t ordered = 0;
    uint32_t pushed = 0;

    void pushNext(GstAppSrc* source) {
        // Waiting here keeps frames of a next round from being made ahead of it.
        while (pushed == ordered) {
            const uint32_t more = orders.pop();
            if (more == 0) return;
            ordered += more;
        }
        frame.numbered(pushed++);
        gst_app_src_push_buffer(source, gst_buffer_ref(buffer.get()));
    }
};

/** Looks at each frame on the thread that brought it: handing it to another costs a wake-up. */
class GstRoad : public Road {
public:
    GstRoad() { expect(sched_getaffinity(0, sizeof(mProcessors), &mProcessors) == 0); }
    ~GstRoad() override {
        mPipeline.reset();  // its thread uses the others
        if (mProcess == nullptr) return;
        mProcess->write("0\n");  // so that it removes its shared memory
        mProcess->waitForEnd(std::chrono::seconds(5));
    }

    /** The other process is this program once more, because GStreamer does not survive a fork. */
    bool start(uint32_t inFlight, std::string& problem) {
        const std::string socket = "socket-path=" + (mFolder / "gst.sock");
        // A preroll or a last sample would keep room that the next frames need.
        const std::string sink = " sync=false async=false enable-last-sample=false ";
        // The sink aligns each frame's start; the page is for that.
        const std::string room = std::to_string(inFlight * k720p.bytes() + 4096);
        kit::ChildOptions orders;
        orders.takesInput = true;
        mProcess = kit::ChildProcess::start(
            thisProgram(),
            {"gst-producer", "appsrc name=source ! shmsink wait-for-connection=true shm-size=" +
                                 room + sink + socket},
            problem, orders);
        if (mProcess == nullptr) return false;
        mPipeline = pipelineOf("shmsrc " + socket + " ! appsink name=sink" + sink, problem);
        if (mPipeline == nullptr) return false;
        GstAppSinkCallbacks callbacks = {};
        callbacks.new_sample = [](GstAppSink* from, gpointer self) {
            return static_cast<GstRoad*>(self)->take(from);
        };
        gst_app_sink_set_callbacks(elementOf<GstAppSink>(mPipeline, "sink"), &callbacks, this,
                                   nullptr);
        problem = "it does not start";
        return mProcess->nextLine(std::chrono::seconds(20)) && play(mPipeline);
    }

    pid_t provider() const override { return mProcess->id(); }
    void run(uint32_t frames) override {
        mWanted += frames;
        expect(mProcess->write(std::to_string(frames) + "\n"));
        mArrivals.waitFor(mWanted);
    }

private:
    GstFlowReturn take(GstAppSink* sink) {
        // GLib's threads come from where its first one was made, maybe pinned, maybe not.
        if (mTaken == 0 && sched_setaffinity(0, sizeof(mProcessors), &mProcessors) != 0)
            return GST_FLOW_ERROR;
        const std::unique_ptr<GstSample, decltype(&gst_sample_unref)> sample(
            gst_app_sink_pull_sample(sink), gst_sample_unref);
        GstBuffer* const buffer = sample != nullptr ? gst_sample_get_buffer(sample.get()) : nullptr;
        GstMapInfo map = {};
        if (buffer == nullptr || gst_buffer_map(buffer, &map, GST_MAP_READ) == FALSE)
            return GST_FLOW_ERROR;
        const uint32_t number = mTaken++;
        const bool right =
            map.size == mExpected.size() && mExpected.isIn(map.data, number, number + 1 == mWanted);
        gst_buffer_unmap(buffer, &map);
        mArrivals.add(right);
        return GST_FLOW_OK;
    }

    const kit::TemporaryFolder mFolder;  // for the socket
    cpu_set_t mProcessors;               // of the thread that has started the road
    std::unique_ptr<kit::ChildProcess> mProcess;
    Pipeline mPipeline;
    std::atomic<uint32_t> mWanted{0};
    Arrivals mArrivals;
    // For the thread that brings the frames.
    uint32_t mTaken = 0;
    MarkedFrame mExpected;
};

}  // namespace

int produceForGst(const Arguments& arguments) {
    // Only the end of the orders ends it, so that it can clean up.
    const kit::Signals blocked({SIGINT, SIGTERM});
    gst_init(nullptr, nullptr);  // before the frames' buffer is made
    std::string problem;
    Production production;
    const Pipeline pipeline = pipelineOf(arguments.at(0), problem);
    if (pipeline == nullptr) return EXIT_FAILURE;
    GstAppSrcCallbacks callbacks = {};
    callbacks.need_data = [](GstAppSrc* source, guint, gpointer self) {
        static_cast<Production*>(self)->pushNext(source);
    };
    auto* const source = elementOf<GstAppSrc>(pipeline, "source");
    gst_app_src_set_callbacks(source, &callbacks, &production, nullptr);
    if (!play(pipeline)) return EXIT_FAILURE;
    printf("playing\n");
    fflush(stdout);
    for (uint32_t more = 0; std::cin >> more && more > 0;)
        production.orders.push(more);
    production.orders.push(0);
    return EXIT_SUCCESS;
}

std::unique_ptr<Road> startGstRoad(uint32_t inFlight, std::string& problem) {
    auto road = std::make_unique<GstRoad>();
    if (!road->start(inFlight, problem)) return nullptr;
    return road;
}

}  // namespace bench

#else

namespace bench {

int produceForGst(const Arguments& /*arguments*/) {
    return 1;
}

std::unique_ptr<Road> startGstRoad(uint32_t /*inFlight*/, std::string& problem) {
    problem = "libgstreamer-plugins-base1.0-dev is missing";
    return nullptr;
}

}  // namespace bench

#endif
