// A provider and a client in one process: the client asks for one frame, the provider fills it.

#include <android/log.h>

#include <cstdio>
#include <thread>

#include "client.h"
#include "host/log.h"
#include "provider.h"

using vendor::zoru::zoruprovider::fdstream::V1_0::implementation::FDSession;

int main() {
    host::setStderrLogPriority(ANDROID_LOG_ERROR);
    constexpr uint8_t kBrightness = 200;

    const android::sp<FDSession> session = FDSession::getInstance();
    std::thread provider([&] { serveOneRequest(session, kBrightness); });
    const std::optional<uint8_t> brightness = receiveOneFrame(session->getInterface());
    provider.join();

    if (brightness != kBrightness) {
        printf("the frame did not come\n");
        return 1;
    }
    printf("a frame of brightness %d came\n", *brightness);
    return 0;
}
