#include "loops.h"
#include "source/ffmpeg.h"
#include "source/picture_scaler.h"

namespace bench {

namespace {

class LibavLoop {
public:
    LibavLoop(const std::string& clip, kit::FrameSize size) : mSize(size), mScaled(size.bytes()) {
        AVFormatContext* format = nullptr;
        const bool isOpen = avformat_open_input(&format, clip.c_str(), nullptr, nullptr) == 0;
        mFormat.reset(format);
        const AVCodec* codec = nullptr;
        expect(isOpen && avformat_find_stream_info(format, nullptr) >= 0 &&
                   av_find_best_stream(format, AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0) == 0,
               "libavformat does not open the clip");
        mDecoder.reset(avcodec_alloc_context3(codec));
        avcodec_parameters_to_context(mDecoder.get(), format->streams[0]->codecpar);
        mDecoder->thread_count = 1;
        expect(avcodec_open2(mDecoder.get(), codec, nullptr) == 0, "libavcodec has no decoder");
        mScaler.reset(sws_getContext(mDecoder->width, mDecoder->height, mDecoder->pix_fmt,
                                     size.width, size.height, AV_PIX_FMT_NV12, camera::kScalerFlags,
                                     nullptr, nullptr, nullptr));
        expect(mScaler != nullptr, "libswscale does not scale the clip");
    }

    void play(const Look& look) {
        avformat_seek_file(mFormat.get(), 0, INT64_MIN, 0, INT64_MAX, 0);
        avcodec_flush_buffers(mDecoder.get());
        for (int state = AVERROR(EAGAIN); state != AVERROR_EOF;) {
            if (state != 0) feed();
            state = avcodec_receive_frame(mDecoder.get(), mFrame.get());
            if (state == 0) show(look);
        }
    }

private:
    void feed() {
        const bool isThere = av_read_frame(mFormat.get(), mPacket.get()) == 0;
        const int sent = avcodec_send_packet(mDecoder.get(), isThere ? mPacket.get() : nullptr);
        av_packet_unref(mPacket.get());
        expect(sent == 0, "libavcodec does not take the clip");
    }
    void show(const Look& look) {
        uint8_t* const planes[4] = {mScaled.data(), mScaled.data() + mSize.lumaBytes()};
        const int strides[4] = {mSize.width, mSize.width};
        sws_scale(mScaler.get(), mFrame->data, mFrame->linesize, 0, mFrame->height, planes,
                  strides);
        look(mScaled.data(), static_cast<size_t>(mSize.width));
    }

    const kit::FrameSize mSize;
    kit::Frame mScaled;
    camera::FormatPtr mFormat;
    camera::CodecPtr mDecoder;
    camera::ScalerPtr mScaler;
    const camera::PacketPtr mPacket{av_packet_alloc()};
    const camera::FramePtr mFrame{av_frame_alloc()};
};

}  // namespace

Loop libavLoop(const std::string& clip, kit::FrameSize size) {
    return [loop = std::make_shared<LibavLoop>(clip, size)](const Look& look) { loop->play(look); };
}

}  // namespace bench
