#pragma once

#include <android/hardware/camera/common/1.0/types.h>
#include <hidl/Status.h>

namespace host {

/** Whether a call got through and was answered OK. Counts as examining the answer. */
inline bool isAccepted(
    const ::android::hardware::Return<::android::hardware::camera::common::V1_0::Status>& answer) {
    using ::android::hardware::camera::common::V1_0::Status;
    return answer.isOk() && static_cast<Status>(answer) == Status::OK;
}

}  // namespace host
