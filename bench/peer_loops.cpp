// What others have for it, as it is.

#include "faces/face_detector.h"
#include "loops.h"

#ifdef BENCH_HAS_VIDEOIO
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>
#endif
#ifdef BENCH_HAS_GSTREAMER
#include "gst_pipeline.h"
#endif

namespace bench {

#ifdef BENCH_HAS_VIDEOIO

Loop openCvLoop(const std::string& clip, kit::FrameSize size) {
    const auto video = std::make_shared<cv::VideoCapture>(clip, cv::CAP_FFMPEG);
    return
        [=, picture = cv::Mat(), scaled = cv::Mat(), grey = cv::Mat()](const Look& look) mutable {
            video->set(cv::CAP_PROP_POS_FRAMES, 0);
            while (video->read(picture)) {
                cv::resize(picture, scaled, {size.width, size.height});
                cv::cvtColor(scaled, grey, cv::COLOR_BGR2GRAY);
                look(grey.data, grey.step);
            }
        };
}

#else

Loop openCvLoop(const std::string& /*clip*/, kit::FrameSize /*size*/) {
    return nullptr;
}

#endif
#ifdef BENCH_HAS_GSTREAMER

namespace {

using Message = std::unique_ptr<GstMessage, decltype(&gst_message_unref)>;

double facesIn(GstMessage& message) {
    const GstStructure* const said = gst_message_get_structure(&message);
    if (said == nullptr || !gst_structure_has_name(said, "facedetect")) return 0;
    const GValue* const faces = gst_structure_get_value(said, "faces");
    return faces != nullptr ? gst_value_list_get_size(faces) : 0.0;
}

double playToItsEnd(GstElement& pipeline) {
    gst_element_seek_simple(&pipeline, GST_FORMAT_TIME, GST_SEEK_FLAG_FLUSH, 0);
    gst_element_set_state(&pipeline, GST_STATE_PLAYING);
    const std::unique_ptr<GstBus, decltype(&gst_object_unref)> bus(gst_element_get_bus(&pipeline),
                                                                   gst_object_unref);
    constexpr auto kAwaited =
        static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR | GST_MESSAGE_ELEMENT);
    for (double faces = 0;;) {
        const Message message(gst_bus_timed_pop_filtered(bus.get(), 20 * GST_SECOND, kAwaited),
                              gst_message_unref);
        expect(message != nullptr && GST_MESSAGE_TYPE(message.get()) != GST_MESSAGE_ERROR,
               "it does not play the clip");
        if (GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_EOS) return faces;
        faces += facesIn(*message);
    }
}

}  // namespace

FacesLoop gstLoop(const std::string& clip, kit::FrameSize size, bool detects,
                  std::string& problem) {
    const camera::FaceSearch search;
    const std::string least = std::to_string(search.least);
    const std::string detector = " ! facedetect display=false updates=every_frame scale-factor=" +
                                 std::to_string(search.factor) +
                                 " min-neighbors=" + std::to_string(search.neighbours) +
                                 " min-size-width=" + least + " min-size-height=" + least;
    const std::shared_ptr<GstElement> pipeline =
        pipelineOf("filesrc location=" + clip + " ! decodebin ! videoscale ! videoconvert ! " +
                       "video/x-raw,format=RGB,width=" + std::to_string(size.width) +
                       ",height=" + std::to_string(size.height) + (detects ? detector : "") +
                       " ! fakesink sync=false",
                   problem);
    if (pipeline == nullptr) return nullptr;
    try {
        playToItsEnd(*pipeline);  // a decoder that is missing is missed only now
    } catch (const Wrong& wrong) {
        problem = wrong.what();
        return nullptr;
    }
    return [pipeline] { return playToItsEnd(*pipeline); };
}

#else

FacesLoop gstLoop(const std::string& /*clip*/, kit::FrameSize /*size*/, bool /*detects*/,
                  std::string& problem) {
    problem = "libgstreamer-plugins-base1.0-dev is missing";
    return nullptr;
}

#endif

}  // namespace bench
