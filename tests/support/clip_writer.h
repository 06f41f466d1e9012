#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "source/ffmpeg.h"
#include "view/geometry.h"
extern "C" {
#include <libavutil/pixdesc.h>
}

/** Pictures of one colour, and small clips of them, made with FFmpeg itself. */
namespace testing_support {

/** Or red, green and blue. */
struct Colour {
    int y, cb = 0, cr = 0;
};

inline camera::FramePtr frameOf(camera::FrameSize size, AVPixelFormat format, const Colour& colour,
                                AVColorRange range = AVCOL_RANGE_MPEG) {
    camera::FramePtr frame(av_frame_alloc());
    frame->width = size.width;
    frame->height = size.height;
    frame->format = format;
    frame->color_range = range;
    EXPECT_EQ(av_frame_get_buffer(frame.get(), 0), 0);
    const AVPixFmtDescriptor& layout = *av_pix_fmt_desc_get(format);
    const int values[] = {colour.y, colour.cb, colour.cr, 0};
    for (int i = 0; i < layout.nb_components; ++i) {
        const AVComponentDescriptor& part = layout.comp[i];
        const int rows = i == 0 ? size.height : AV_CEIL_RSHIFT(size.height, layout.log2_chroma_h);
        for (int at = part.offset; at < frame->linesize[part.plane] * rows; at += part.step)
            frame->data[part.plane][at] = static_cast<uint8_t>(values[i]);
    }
    return frame;
}

/** Greys, 25 a second, in a container and with an encoder of these names. */
inline void writeClip(const std::string& path, const std::string& container,
                      const std::string& encoder, camera::FrameSize size,
                      const std::vector<int>& lumas) {
    AVFormatContext* made = nullptr;
    ASSERT_GE(avformat_alloc_output_context2(&made, nullptr, container.c_str(), path.c_str()), 0);
    const std::unique_ptr<AVFormatContext, void (*)(AVFormatContext*)> file(made,
                                                                            avformat_free_context);
    const camera::CodecPtr codec(
        avcodec_alloc_context3(avcodec_find_encoder_by_name(encoder.c_str())));
    codec->width = size.width;
    codec->height = size.height;
    codec->pix_fmt = encoder == "mjpeg" ? AV_PIX_FMT_YUVJ420P : AV_PIX_FMT_YUV420P;
    codec->time_base = {1, 25};
    codec->gop_size = 5;
    codec->thread_count = 1;
    if ((made->oformat->flags & AVFMT_GLOBALHEADER) != 0)
        codec->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    ASSERT_EQ(avcodec_open2(codec.get(), nullptr, nullptr), 0) << encoder;
    AVStream* const stream = avformat_new_stream(made, nullptr);
    avcodec_parameters_from_context(stream->codecpar, codec.get());
    stream->time_base = codec->time_base;
    ASSERT_EQ(avio_open(&made->pb, path.c_str(), AVIO_FLAG_WRITE), 0);
    ASSERT_GE(avformat_write_header(made, nullptr), 0);
    const camera::PacketPtr packet(av_packet_alloc());
    for (size_t number = 0; number <= lumas.size(); ++number) {
        camera::FramePtr frame;  // after the last one none: what the encoder has kept, too
        if (number < lumas.size()) {
            frame = frameOf(size, codec->pix_fmt, {lumas[number], 128, 128});
            frame->pts = static_cast<int64_t>(number);
        }
        EXPECT_EQ(avcodec_send_frame(codec.get(), frame.get()), 0);
        while (avcodec_receive_packet(codec.get(), packet.get()) == 0) {
            packet->duration = 1;
            av_packet_rescale_ts(packet.get(), codec->time_base, stream->time_base);
            EXPECT_EQ(av_write_frame(made, packet.get()), 0);
        }
    }
    av_write_trailer(made);
    avio_closep(&made->pb);
}

}  // namespace testing_support
