#pragma once

#include "source/ffmpeg.h"
#include "source/picture_shape.h"
#include "source/planes.h"

namespace camera {

/** With what a picture is scaled. */
constexpr int kScalerFlags = SWS_BILINEAR;

/**
 * Scales parts of pictures into a client's planes: limited range, with the source's own matrix, and
 * what has none by BT.601. Bytes between the rows may change, bytes outside the planes never do.
 * Keeps what was set up for as long as sizes and formats stay. For one thread.
 */
class PictureScaler {
public:
    /**
     * False when libswscale cannot do it, or memory is short; what is in the planes then is not
     * told. REQUIRES: `shape` is the frame's, `view` lies in its picture, and a chroma step is 1 or
     * 2.
     */
    bool scale(const AVFrame& frame, const PictureShape& shape, const Rect& view, const Planes& to);

private:
    /** What a conversion is set up for. */
    struct Setting {
        FrameSize from{};
        FrameSize to{};
        int fromFormat = AV_PIX_FMT_NONE;
        int toFormat = AV_PIX_FMT_NONE;
        bool isFullRange = false;

        bool operator==(const Setting& other) const;
    };
    struct Conversion {
        Setting setting;
        ScalerPtr scaler;

        bool run(const AVFrame& from, FrameSize size, int format, uint8_t* const* data,
                 const int* strides);
    };

    bool scaleDirectly(const AVFrame& part, const Planes& to);
    bool scaleThroughOwn(const AVFrame& part, const Orientation& orientation, const Planes& to);

    Conversion mWhole;  // of what cannot be cropped as it is
    Conversion mPart;
    FramePtr mWholeFrame;
    FramePtr mScaled;  // before it is turned
    FramePtr mTurned;
};

}  // namespace camera
