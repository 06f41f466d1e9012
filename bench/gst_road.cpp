#include "gst_road.h"

#ifdef BENCH_HAS_GSTREAMER

#include <err.h>
#include <fcntl.h>
#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <utility>

#include "child_process.h"
#include "default_socket.h"
#include "frames.h"
#include "host/unique_fd.h"
#include "marked_frame.h"
#include "signals.h"

namespace bench {

namespace {

constexpr std::chrono::seconds kPatience(20);

/** Stops what it releases. */
struct PipelineEnd {
    void operator()(GstElement* pipeline) const {
        gst_element_set_state(pipeline, GST_STATE_NULL);
        gst_object_unref(pipeline);
    }
};
using Pipeline = std::unique_ptr<GstElement, PipelineEnd>;

struct Unref {
    void operator()(GstElement* element) const { gst_object_unref(element); }
    void operator()(GstBuffer* buffer) const { gst_buffer_unref(buffer); }
    void operator()(GstSample* sample) const { gst_sample_unref(sample); }
};

Pipeline pipelineOf(const std::string& description, std::string& problem) {
    GError* error = nullptr;
    Pipeline pipeline;
    if (gst_init_check(nullptr, nullptr, &error) != FALSE) {
        pipeline.reset(gst_parse_launch_full(description.c_str(), nullptr,
                                             GST_PARSE_FLAG_FATAL_ERRORS, &error));
    }
    if (error != nullptr) problem = error->message;
    g_clear_error(&error);
    return pipeline;
}

std::unique_ptr<GstElement, Unref> elementOf(const Pipeline& pipeline, const char* name) {
    return std::unique_ptr<GstElement, Unref>(
        gst_bin_get_by_name(reinterpret_cast<GstBin*>(pipeline.get()), name));
}

bool play(const Pipeline& pipeline) {
    return gst_element_set_state(pipeline.get(), GST_STATE_PLAYING) != GST_STATE_CHANGE_FAILURE;
}

/**
 * What the other process does. It pushes from inside appsrc's question for data, on the thread that
 * then copies the frame into the shared memory and only afterwards asks again. So one frame can be
 * marked in place and stays in the cache, as ours does, and no thread waits for another.
 */
class Producer {
public:
    Producer(int orders, Pipeline pipeline)
        : mOrders(orders),
          mBuffer(gst_buffer_new_wrapped_full(GST_MEMORY_FLAG_READONLY, mFrame.numbered(0),
                                              mFrame.size(), 0, mFrame.size(), nullptr, nullptr)),
          mPipeline(std::move(pipeline)) {}

    /** Returns when the other end of the orders closes. */
    void serve() {
        GstAppSrcCallbacks callbacks = {};
        callbacks.need_data = [](GstAppSrc* source, guint, gpointer self) {
            static_cast<Producer*>(self)->pushNext(source);
        };
        gst_app_src_set_callbacks(
            reinterpret_cast<GstAppSrc*>(elementOf(mPipeline, "source").get()), &callbacks, this,
            nullptr);
        if (!play(mPipeline) || write(mOrders, "", 1) != 1) return;
        pollfd hangUp = {mOrders, 0, 0};
        poll(&hangUp, 1, -1);
    }

private:
    void pushNext(GstAppSrc* source) {
        // Waiting here keeps frames of a next round from being made ahead of it.
        while (mPushed == mOrdered) {
            uint32_t more = 0;
            if (read(mOrders, &more, sizeof(more)) != sizeof(more)) return;
            mOrdered += more;
        }
        mFrame.numbered(mPushed++);
        gst_app_src_push_buffer(source, gst_buffer_ref(mBuffer.get()));
    }

    const int mOrders;
    MarkedFrame mFrame;
    const std::unique_ptr<GstBuffer, Unref> mBuffer;
    uint32_t mOrdered = 0;
    uint32_t mPushed = 0;
    const Pipeline mPipeline;  // goes first: its thread uses the others
};

/**
 * The other process: this program once more, because GStreamer does not survive a fork. It ends
 * when this end of the orders closes.
 */
class ProducerProcess {
public:
    explicit ProducerProcess(const std::string& description) {
        int orders[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, orders) != 0)
            err(EXIT_FAILURE, "no sockets for GStreamer's road");
        mOrders.reset(orders[0]);
        const host::UniqueFd theirs(orders[1]);
        fcntl(theirs.get(), F_SETFD, 0);  // goes with the program
        std::string problem;
        mProcess = kit::ChildProcess::start(
            std::filesystem::read_symlink("/proc/self/exe"),
            {"gst-producer", std::to_string(theirs.get()), description}, problem);
        if (mProcess == nullptr) errx(EXIT_FAILURE, "%s", problem.c_str());
    }
    ~ProducerProcess() {
        mOrders.reset();
        mProcess->waitForEnd(kPatience);
    }
    ProducerProcess(const ProducerProcess&) = delete;
    ProducerProcess& operator=(const ProducerProcess&) = delete;

    pid_t id() const { return mProcess->id(); }
    bool waitUntilReady() const {
        char byte = 0;
        return read(mOrders.get(), &byte, 1) == 1;
    }
    bool order(uint32_t frames) const {
        return send(mOrders.get(), &frames, sizeof(frames), MSG_NOSIGNAL) == sizeof(frames);
    }

private:
    host::UniqueFd mOrders;
    std::unique_ptr<kit::ChildProcess> mProcess;
};

/** Looks at each frame on the thread that brought it: handing it to another costs a wake-up. */
class Consumer : public GstRoad {
public:
    Consumer(std::unique_ptr<ProducerProcess> process, Pipeline pipeline)
        : mProcess(std::move(process)), mPipeline(std::move(pipeline)) {
        if (sched_getaffinity(0, sizeof(mProcessors), &mProcessors) != 0)
            err(EXIT_FAILURE, "GStreamer's processors are not known");
        GstAppSinkCallbacks callbacks = {};
        callbacks.new_sample = [](GstAppSink* sink, gpointer self) {
            return static_cast<Consumer*>(self)->take(sink);
        };
        gst_app_sink_set_callbacks(
            reinterpret_cast<GstAppSink*>(elementOf(mPipeline, "sink").get()), &callbacks, this,
            nullptr);
    }

    bool connect() const { return play(mPipeline); }
    pid_t producer() const override { return mProcess->id(); }
    bool run(uint32_t frames) override {
        std::unique_lock<std::mutex> lock(mMutex);
        mWanted += frames;
        if (!mProcess->order(frames)) return false;
        mChanged.wait_for(lock, kPatience, [this] { return mWrong || mCame == mWanted; });
        return !mWrong && mCame == mWanted;
    }

private:
    GstFlowReturn take(GstAppSink* sink) {
        // GLib's threads come from where its first one was made, maybe pinned, maybe not.
        if (mTaken == 0 && sched_setaffinity(0, sizeof(mProcessors), &mProcessors) != 0)
            return GST_FLOW_ERROR;
        const std::unique_ptr<GstSample, Unref> sample(gst_app_sink_pull_sample(sink));
        GstBuffer* const buffer = sample != nullptr ? gst_sample_get_buffer(sample.get()) : nullptr;
        GstMapInfo map = {};
        if (buffer == nullptr || gst_buffer_map(buffer, &map, GST_MAP_READ) == FALSE)
            return GST_FLOW_ERROR;
        const uint32_t number = mTaken++;
        const bool right =
            map.size == mExpected.size() && mExpected.isIn(map.data, number, number + 1 == mWanted);
        gst_buffer_unmap(buffer, &map);
        count(right);
        return GST_FLOW_OK;
    }
    void count(bool right) {
        const std::lock_guard<std::mutex> lock(mMutex);
        ++mCame;
        mWrong = mWrong || !right;
        if (mWrong || mCame == mWanted) mChanged.notify_one();
    }

    const std::unique_ptr<ProducerProcess> mProcess;
    cpu_set_t mProcessors;  // of the thread that has started the road
    std::atomic<uint32_t> mWanted{0};
    // For the thread that brings the frames.
    uint32_t mTaken = 0;
    MarkedFrame mExpected;

    std::mutex mMutex;
    std::condition_variable mChanged;
    // Guarded by mMutex.
    uint32_t mCame = 0;
    bool mWrong = false;

    const Pipeline mPipeline;  // goes first: its thread uses the others
};

}  // namespace

int produceForGst(int orders, const std::string& description) {
    // The end of the orders ends it, also when the other process is killed, so that it can clean
    // up.
    const kit::Signals blocked({SIGINT, SIGTERM});
    std::string problem;
    if (Pipeline pipeline = pipelineOf(description, problem))
        Producer(orders, std::move(pipeline)).serve();
    return EXIT_SUCCESS;
}

std::unique_ptr<GstRoad> GstRoad::start(uint32_t inFlight, std::string& problem) {
    const auto folder = kit::privateFolder(problem);
    if (!folder) return nullptr;
    const std::string socket =
        "socket-path=" + (*folder / ("gst-" + std::to_string(getpid()) + ".sock")).string();
    // A preroll or a last sample would keep room that the next frames need.
    const std::string sink = " sync=false async=false enable-last-sample=false ";
    // The sink aligns each frame's start; the page is for that.
    const std::string room = std::to_string(inFlight * kSizes[0].packedBytes() + 4096);
    auto process = std::make_unique<ProducerProcess>(
        "appsrc name=source ! shmsink wait-for-connection=true shm-size=" + room + sink + socket);
    Pipeline pipeline = pipelineOf("shmsrc " + socket + " ! appsink name=sink" + sink, problem);
    if (pipeline == nullptr) return nullptr;
    const bool isReady = process->waitUntilReady();
    auto road = std::make_unique<Consumer>(std::move(process), std::move(pipeline));
    if (isReady && road->connect()) return road;
    problem = "it does not start";
    return nullptr;
}

}  // namespace bench

#else

namespace bench {

int produceForGst(int /*orders*/, const std::string& /*description*/) {
    return 1;
}

std::unique_ptr<GstRoad> GstRoad::start(uint32_t /*inFlight*/, std::string& problem) {
    problem = "libgstreamer-plugins-base1.0-dev is missing";
    return nullptr;
}

}  // namespace bench

#endif
