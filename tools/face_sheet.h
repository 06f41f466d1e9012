#pragma once

#include <vector>

#include "face_clip.h"
#include "face_judge.h"
#include "picture.h"
#include "picture_folder.h"

namespace tools {

/**
 * Some of the looks on one page: on the left the whole picture with the view and the face's place
 * outlined, on the right what the client got, with its boxes. `pictures` is where the client put
 * its own.
 */
Picture faceSheet(const std::vector<Look>& looks, const FaceClip& clip, bool isTurned,
                  const PictureFolder& pictures);

}  // namespace tools
