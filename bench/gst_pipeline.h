#pragma once

#include <gst/gst.h>

#include <memory>
#include <string>

/** GStreamer's pipelines, each with an owner. */
namespace bench {

/** Stops what it releases. */
struct PipelineEnd {
    void operator()(GstElement* pipeline) const {
        gst_element_set_state(pipeline, GST_STATE_NULL);
        gst_object_unref(pipeline);
    }
};
using Pipeline = std::unique_ptr<GstElement, PipelineEnd>;

inline Pipeline pipelineOf(const std::string& description, std::string& problem) {
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

/** The source or sink of this name, which the pipeline owns. */
template <typename Element>
Element* elementOf(const Pipeline& pipeline, const char* name) {
    auto* const bin = reinterpret_cast<GstBin*>(pipeline.get());
    GstElement* const element = gst_bin_get_by_name(bin, name);
    gst_object_unref(element);
    return reinterpret_cast<Element*>(element);
}

inline bool play(const Pipeline& pipeline) {
    return gst_element_set_state(pipeline.get(), GST_STATE_PLAYING) != GST_STATE_CHANGE_FAILURE;
}

}  // namespace bench
