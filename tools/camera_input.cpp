#include "camera_input.h"

#include <err.h>

#include <chrono>
#include <csignal>
#include <future>
#include <utility>

#include "FDSession.h"
#include "host/channel.h"
#include "source/camera.h"

namespace tools {

namespace {

using vendor::zoru::zoruprovider::fdstream::V1_0::implementation::FDSession;

camera::SourceOptions optionsOf(const CameraArguments& arguments) {
    camera::SourceOptions options;
    options.input = *arguments.input;
    options.format = arguments.format;
    if (arguments.size) options.size = camera::sizeIn(*arguments.size);
    if (arguments.camera) options.camera = *camera::cameraModeIn(*arguments.camera);
    options.fps = arguments.fps;
    options.once = arguments.once;
    return options;
}

class Input : public CameraInput {
public:
    Input(const camera::SourceOptions& options, camera::Say say)
        : mCamera(FDSession::getInstance(), options, std::move(say)) {}

    camera::Camera& get() { return mCamera; }

    void end() override { mCamera.end(host::hangUpOnClients); }
    std::string description() const override { return mCamera.description(); }
    void holderChanged(bool hasClient) override {
        hasClient ? mCamera.clientCame() : mCamera.clientWent();
    }
    camera::CameraStatus status() const override { return mCamera.status(); }

private:
    camera::Camera mCamera;
};

std::string named(const std::string& input) {
    return input == "-" ? "standard input" : input;
}

}  // namespace

std::shared_ptr<CameraInput> CameraInput::open(const CameraArguments& arguments,
                                               const kit::Signals& signals,
                                               std::function<void(const std::string&)> say,
                                               std::optional<int>& ending) {
    constexpr std::chrono::milliseconds kLook(20);
    const std::string name = named(*arguments.input);
    const auto input = std::make_shared<Input>(
        optionsOf(arguments), [name, say](const std::string& line) { say(name + ": " + line); });
    std::string problem;
    auto opening = std::async(std::launch::async, [&] { return input->get().start(problem); });
    while (opening.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
        const int number = signals.wait(kLook);
        if (number == 0 || number == SIGHUP) continue;
        ending = number;
        input->get().giveUp();
        opening.wait();
    }
    if (opening.get() && !ending) return input;
    if (!ending) warnx("%s cannot be played: %s", name.c_str(), problem.c_str());
    return nullptr;
}

}  // namespace tools
