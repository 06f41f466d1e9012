#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "source/ffmpeg.h"
#include "source/source_options.h"
#include "source/stop_signal.h"
#include "source/stream_io.h"

namespace camera {

/** A frame as it was decoded, and when it is due by its own stamp. Moved, not copied. */
struct MediaFrame {
    FramePtr frame;
    int64_t stampNs = 0;
    int64_t periodNs = 0;  ///< of the source
};

/**
 * The pictures of one file, pipe or device, decoded. For one thread; the stop signal ends a read
 * that waits from any other. Nothing but the protocols "file" and "pipe" is opened.
 */
class Media {
public:
    enum class Read { FRAME, END, BROKEN, STOPPED };

    /**
     * Opens it and decodes its first frame, within five seconds. Null, and a sentence's end in
     * `problem`, when there is none. `onStalled` is called inside next() when nothing has come
     * through a pipe for two seconds; the read goes on. REQUIRES: `stop` outlives it.
     */
    static std::unique_ptr<Media> open(const SourceOptions& options, const StopSignal& stop,
                                       std::function<void()> onStalled, std::string& problem);

    /** The next frame; BROKEN, with a sentence's end in `problem`, when there will be no other. */
    Read next(MediaFrame& next, std::string& problem);
    /** To the beginning, if that can be. */
    bool rewind();

    /** A pipe: its end is the end of the stream. */
    bool isStream() const { return mIo != nullptr; }
    /** The standard input, once it has ended, comes to no other end. */
    bool canBeOpenedAnew() const { return mIo == nullptr || !mIo->isStandardInput(); }
    /** Of a camera, whose frames are due when they come. */
    bool isLive() const { return mIsLive; }
    bool isPicture() const { return mIsPicture; }
    /** What its frames do not say of themselves. */
    const AVStream* stream() const { return mStream; }
    /** Frames a second. */
    double rate() const { return mRate; }
    /** Size, rate and codec, for a line at the start. REQUIRES: no frame was read yet. */
    std::string description() const;

private:
    static constexpr std::chrono::seconds kForARead{2};

    Media(const SourceOptions& options, const StopSignal& stop) : mOptions(options), mStop(stop) {}

    // The steps of opening. False after `problem` was said.
    bool openInput(std::string& problem);
    bool openStream(std::string& problem);
    bool openDecoder(std::string& problem);
    bool readFirst(std::function<void()> onStalled, std::string& problem);

    void giveUpAfter(StopSignal::Clock::duration patience);
    static int isGivenUp(void* self);
    std::string reasonOf(int error) const;
    Read feed(std::string& problem);
    Read readPacket(std::string& problem);
    Read failed(int error, std::string& problem);
    int analyze();
    int64_t mostPixels() const;
    bool isTooLarge(int width, int height) const;
    MediaFrame stamped();

    const SourceOptions mOptions;
    const StopSignal& mStop;
    StopSignal::Clock::time_point mGivenUpAt;
    bool mIsOpening = true;
    bool mIsLive = false;
    bool mIsPicture = false;
    double mRate = 0;
    int64_t mLastStampNs = 0;
    uint64_t mFramesOfPass = 0;
    std::unique_ptr<StreamIo> mIo;
    FormatPtr mFormat;  // goes before what it reads through
    AVStream* mStream = nullptr;
    CodecPtr mDecoder;
    PacketPtr mPacket;
    FramePtr mFrame;
    std::optional<MediaFrame> mFirst;
};

}  // namespace camera
