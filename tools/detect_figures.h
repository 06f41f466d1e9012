#pragma once

#include <cstdint>
#include <cstdio>
#include <vector>

#include "face_finder.h"

namespace tools {

/** What a detector's stream came to. Value type. */
class DetectFigures {
public:
    void addSkipped() { ++mSkipped; }
    void add(const Sight& sight, Clock::time_point end);

    /** A table of two lines of heading and one of figures. */
    void print(FILE* to) const;

private:
    uint64_t mSkipped = 0;
    uint64_t mFaces = 0;
    std::vector<double> mDetectionMs;
    std::vector<double> mCameraToFacesMs;
    Clock::time_point mFirst;
    Clock::time_point mLast;
};

}  // namespace tools
