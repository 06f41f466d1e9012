#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/display.h>
#include <libavutil/frame.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

#include <memory>
#include <string>

/** FFmpeg's objects, each with an owner. */
namespace camera {

struct FreesFfmpeg {
    void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
    void operator()(SwsContext* context) const { sws_freeContext(context); }
};

using FormatPtr = std::unique_ptr<AVFormatContext, FreesFfmpeg>;
using CodecPtr = std::unique_ptr<AVCodecContext, FreesFfmpeg>;
using FramePtr = std::unique_ptr<AVFrame, FreesFfmpeg>;
using PacketPtr = std::unique_ptr<AVPacket, FreesFfmpeg>;
using ScalerPtr = std::unique_ptr<SwsContext, FreesFfmpeg>;

/** What an error number of FFmpeg's means. */
std::string inWords(int error);

}  // namespace camera
