#pragma once

#include <utils/StrongPointer.h>

#include <functional>
#include <memory>
#include <string>

#include "IFDControl.h"
#include "face_finder.h"
#include "view/controller.h"

namespace tools {

/**
 * Has the provider's view follow the faces that are found: its tracking mode is 1 for as long as
 * this lives, and each frame that was looked at gives it a scene and a view. While somebody else
 * has set mode 0 nothing is sent. For one thread.
 */
class Follower {
public:
    /**
     * Null after a sentence when the controls are not there, or another one follows. `say` takes
     * what is to be said later, a sentence each.
     */
    static std::unique_ptr<Follower> begin(const android::sp<control::IFDControl>& controls,
                                           kit::FrameSize stream,
                                           std::function<void(const std::string&)> say);
    /** Sets mode 0, and leaves a scene without people. */
    ~Follower();
    Follower(const Follower&) = delete;
    Follower& operator=(const Follower&) = delete;

    void follow(const Answer& answer, const Sight& sight);

private:
    Follower(android::sp<control::IFDControl> controls, kit::FrameSize stream,
             std::function<void(const std::string&)> say);

    bool isTold(const camera::Told& told);
    bool isLetIn();
    void send(const Answer& answer, const Sight& sight);
    /** Whether the call got through; if not, nothing is called any more. */
    bool gotThrough(const android::hardware::Return<control::Answer>& answer);

    const android::sp<control::IFDControl> mControls;
    const std::function<void(const std::string&)> mSay;
    camera::Controller mController;
    int mUntold = 0;  // frames in a row whose view is not known
    bool mHasSaidSo = false;
    bool mIsOut = false;   // somebody has set mode 0
    bool mIsLost = false;  // the controls do not answer
};

}  // namespace tools
