#pragma once

#include <cstdint>
#include <fstream>
#include <string>

/**
 * A cascade for which a face is a light block above a dark one, on grey, so that tests need no
 * photograph.
 */
namespace testing_support {

inline void writeBlockCascade(const std::string& path) {
    std::ofstream(path) << R"(<?xml version="1.0"?>
<opencv_storage><cascade type_id="opencv-cascade-classifier">
<stageType>BOOST</stageType><featureType>HAAR</featureType><height>24</height><width>24</width>
<stageParams><maxWeakCount>1</maxWeakCount></stageParams>
<featureParams><maxCatCount>0</maxCatCount></featureParams><stageNum>1</stageNum>
<stages><_><maxWeakCount>1</maxWeakCount><stageThreshold>0.5</stageThreshold>
<weakClassifiers><_><internalNodes>0 -1 0 1.05</internalNodes><leafValues>0. 1.</leafValues></_>
</weakClassifiers></_></stages>
<features><_><rects><_>0 0 24 24 -1.</_><_>0 0 24 12 2.</_></rects><tilted>0</tilted></_></features>
</cascade></opencv_storage>
)";
}

/** The luma of such a face's row, of so many; grey above and below it. */
constexpr uint8_t blockLuma(int row, int side) {
    constexpr uint8_t kGrey = 128;
    if (row < 0 || row >= side) return kGrey;
    return row < side / 2 ? 235 : 16;
}

}  // namespace testing_support
