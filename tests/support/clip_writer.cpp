#include "support/clip_writer.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace testing_support {

namespace {

camera::CodecPtr openEncoder(const std::string& name, camera::FrameSize size, bool hasHeader) {
    const AVCodec* const codec = avcodec_find_encoder_by_name(name.c_str());
    camera::CodecPtr encoder(avcodec_alloc_context3(codec));
    encoder->width = size.width;
    encoder->height = size.height;
    encoder->pix_fmt = name == "mjpeg" ? AV_PIX_FMT_YUVJ420P : AV_PIX_FMT_YUV420P;
    encoder->color_range = name == "mjpeg" ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
    encoder->time_base = {1, 25};
    encoder->gop_size = 5;
    encoder->thread_count = 1;
    if (hasHeader) encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    EXPECT_EQ(avcodec_open2(encoder.get(), codec, nullptr), 0) << name;
    return encoder;
}

/** All packets that are ready; a null frame: the last ones, too. */
void encode(AVCodecContext& encoder, const AVFrame* frame, AVFormatContext& to) {
    EXPECT_EQ(avcodec_send_frame(&encoder, frame), 0);
    const camera::PacketPtr packet(av_packet_alloc());
    while (avcodec_receive_packet(&encoder, packet.get()) == 0) {
        packet->duration = 1;
        av_packet_rescale_ts(packet.get(), {1, 25}, to.streams[0]->time_base);
        EXPECT_EQ(av_write_frame(&to, packet.get()), 0);
    }
}

}  // namespace

camera::FramePtr pictureOf(const ClipFrame& picture, AVPixelFormat format) {
    camera::FramePtr frame(av_frame_alloc());
    frame->width = picture.size.width;
    frame->height = picture.size.height;
    frame->format = format;
    EXPECT_EQ(av_frame_get_buffer(frame.get(), 0), 0);
    for (int plane = 0; plane < 3; ++plane) {
        const int rows = plane == 0 ? frame->height : (frame->height + 1) / 2;
        std::fill_n(frame->data[plane], frame->linesize[plane] * rows,
                    static_cast<uint8_t>(plane == 0 ? picture.luma : 128));
    }
    return frame;
}

void writeClip(const std::string& path, const std::string& container, const std::string& encoder,
               const std::vector<ClipFrame>& frames) {
    AVFormatContext* made = nullptr;
    ASSERT_GE(avformat_alloc_output_context2(&made, nullptr, container.c_str(), path.c_str()), 0);
    const std::unique_ptr<AVFormatContext, void (*)(AVFormatContext*)> file(made,
                                                                            avformat_free_context);
    const bool hasHeader = (made->oformat->flags & AVFMT_GLOBALHEADER) != 0;
    camera::CodecPtr codec = openEncoder(encoder, frames[0].size, hasHeader);
    AVStream* const stream = avformat_new_stream(made, nullptr);
    avcodec_parameters_from_context(stream->codecpar, codec.get());
    stream->time_base = {1, 25};
    ASSERT_EQ(avio_open(&made->pb, path.c_str(), AVIO_FLAG_WRITE), 0);
    ASSERT_GE(avformat_write_header(made, nullptr), 0);
    int64_t number = 0;
    for (const ClipFrame& picture : frames) {
        if (picture.size.width != codec->width || picture.size.height != codec->height) {
            encode(*codec, nullptr, *made);
            codec = openEncoder(encoder, picture.size, hasHeader);
        }
        const camera::FramePtr frame = pictureOf(picture, codec->pix_fmt);
        frame->pts = number++;
        encode(*codec, frame.get(), *made);
    }
    encode(*codec, nullptr, *made);
    av_write_trailer(made);
    avio_closep(&made->pb);
}

}  // namespace testing_support
