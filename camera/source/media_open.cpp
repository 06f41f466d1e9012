extern "C" {
#include <libavutil/log.h>
}

#include <algorithm>
#include <cstdio>
#include <thread>
#include <utility>
#include <vector>

#include "source/media.h"
#include "source/media_input.h"
#include "source/picture_shape.h"

namespace camera {

namespace {

constexpr std::chrono::seconds kForOpening(5);
constexpr int64_t kForAnalysis = 2 * AV_TIME_BASE;
constexpr int kLargestStream = 8192;
constexpr int kLargestPicture = 16384;
constexpr double kUsualRate = 25;

int decodingThreads(const SourceOptions& options) {
#ifdef __SANITIZE_THREAD__
    constexpr int kMost = 1;  // the threads of a library without TSan's marks look like races
#else
    constexpr int kMost = 4;
#endif
    const int wanted = options.decodingThreads > 0
                           ? options.decodingThreads
                           : static_cast<int>(std::thread::hardware_concurrency());
    return std::clamp(wanted, 1, kMost);
}

bool endsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

/** Of a file that holds one picture, or one after another without any time. */
bool isOfPictures(const AVInputFormat* format) {
    const std::string name = format->name;
    return name == "image2" || endsWith(name, "_pipe");
}

}  // namespace

std::unique_ptr<Media> Media::open(const SourceOptions& options, const StopSignal& stop,
                                   std::function<void()> onStalled, std::string& problem) {
    av_log_set_level(AV_LOG_QUIET);  // what matters of it comes back as an error
    std::unique_ptr<Media> media(new Media(options, stop));
    media->giveUpAfter(kForOpening);
    media->mPacket.reset(av_packet_alloc());
    media->mFrame.reset(av_frame_alloc());
    if (media->mPacket == nullptr || media->mFrame == nullptr) {
        problem = "memory is short";
        return nullptr;
    }
    const bool isOpen = media->openInput(problem) && media->openStream(problem) &&
                        media->openDecoder(problem) &&
                        media->readFirst(std::move(onStalled), problem);
    return isOpen ? std::move(media) : nullptr;
}

bool Media::openInput(std::string& problem) {
    MediaInput input;
    if (!chooseInput(mOptions, input, problem)) return false;
    AVFormatContext* context = avformat_alloc_context();
    if (input.isStream) {
        mIo = StreamIo::open(mOptions.input, mStop, problem);
        if (mIo == nullptr) {
            avformat_free_context(context);
            return false;
        }
        mIo->failAfter(mGivenUpAt);
        context->pb = mIo->context();
    }
    context->interrupt_callback = {isGivenUp, this};
    context->protocol_whitelist = av_strdup("file,pipe");
    context->max_analyze_duration = kForAnalysis;
    if (input.isLive) context->flags |= AVFMT_FLAG_NONBLOCK;
    const int error =
        avformat_open_input(&context, input.url.c_str(), input.format, &input.settings);
    if (error < 0) {  // it is freed
        problem = reasonOf(error);
        return false;
    }
    mFormat.reset(context);
    mIsLive = input.isLive;
    mIsPicture = isOfPictures(context->iformat);
    return true;
}

bool Media::isTooLarge(int width, int height) const {
    const int largest = mIsPicture ? kLargestPicture : kLargestStream;
    return width > largest || height > largest;
}

/** Looks what is in it, and decodes some of it for that. */
int Media::analyze() {
    std::vector<AVDictionary*> settings(mFormat->nb_streams, nullptr);
    for (AVDictionary*& setting : settings)
        av_dict_set_int(&setting, "max_pixels", mostPixels(), 0);
    const int error = avformat_find_stream_info(mFormat.get(), settings.data());
    for (AVDictionary*& setting : settings)
        av_dict_free(&setting);
    return error;
}

int64_t Media::mostPixels() const {
    const int64_t largest = mIsPicture ? kLargestPicture : kLargestStream;
    return largest * largest;
}

bool Media::openStream(std::string& problem) {
    const int error = analyze();
    const int index = av_find_best_stream(mFormat.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (error < 0 || isGivenUp(this) != 0 || index < 0) {
        problem = error < 0 || isGivenUp(this) != 0 ? reasonOf(error) : "it has no pictures";
        return false;
    }
    for (unsigned i = 0; i < mFormat->nb_streams; ++i)
        mFormat->streams[i]->discard = AVDISCARD_ALL;
    mStream = mFormat->streams[index];
    mStream->discard = AVDISCARD_DEFAULT;
    const AVRational rate = av_guess_frame_rate(mFormat.get(), mStream, nullptr);
    mRate = rate.num > 0 && rate.den > 0 && !mIsPicture ? av_q2d(rate) : kUsualRate;
    if (mRate < 0.1 || mRate > 1000) mRate = kUsualRate;
    if (mOptions.fps && *mOptions.fps > 0) mRate = *mOptions.fps;
    const AVCodecParameters& stored = *mStream->codecpar;
    if (!isTooLarge(stored.width, stored.height)) return true;
    problem = "its pictures of " + std::to_string(stored.width) + "x" +
              std::to_string(stored.height) + " are too large";
    return false;
}

bool Media::openDecoder(std::string& problem) {
    const AVCodec* const codec = avcodec_find_decoder(mStream->codecpar->codec_id);
    if (codec == nullptr) {
        problem =
            std::string("there is no decoder for ") + avcodec_get_name(mStream->codecpar->codec_id);
        return false;
    }
    mDecoder.reset(avcodec_alloc_context3(codec));
    mDecoder->max_pixels = mostPixels();
    mDecoder->pkt_timebase = mStream->time_base;
    mDecoder->thread_count = decodingThreads(mOptions);
    if (mIsLive) mDecoder->thread_type = FF_THREAD_SLICE;  // nothing is kept back
    int error = avcodec_parameters_to_context(mDecoder.get(), mStream->codecpar);
    if (error >= 0) error = avcodec_open2(mDecoder.get(), codec, nullptr);
    if (error < 0) problem = inWords(error);
    return error >= 0;
}

bool Media::readFirst(std::function<void()> onStalled, std::string& problem) {
    MediaFrame first;
    const Read read = next(first, problem);
    if (read == Read::END) problem = "none of its pictures can be decoded";
    if (read == Read::STOPPED) problem = reasonOf(AVERROR_EXIT);
    if (read != Read::FRAME) return false;
    mFirst = std::move(first);
    mIsOpening = false;
    if (mIo != nullptr) mIo->tellAfter(kForARead, std::move(onStalled));
    return true;
}

std::string Media::description() const {
    char text[128];
    const FrameSize size = mFirst ? shapeOf(*mFirst->frame, mStream).picture() : FrameSize{0, 0};
    snprintf(text, sizeof(text), "%dx%d at %g frames a second, %s", size.width, size.height, mRate,
             avcodec_get_name(mStream->codecpar->codec_id));
    return text;
}

}  // namespace camera
