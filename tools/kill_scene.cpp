#include "kill_scene.h"

#include <err.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <tuple>
#include <utility>

#include "child_process.h"
#include "comparison.h"
#include "scene.h"

namespace tools {

namespace {

constexpr std::chrono::seconds kPatience(10);

/** A client with a connection of its own. What the provider holds is looked at before it leaves. */
std::pair<Figures, kit::Holdings> playWatched(const ProviderProcess& provider, Direction direction,
                                              const std::filesystem::path& clip) {
    std::pair<Figures, kit::Holdings> result;
    auto& [figures, holdings] = result;
    figures.scene = direction.name;
    figures.wanted = direction.stream.frames;
    figures.ending = Ending::Gone;

    std::optional<Comparison> comparison = Comparison::with(clip, false, true);
    const auto session = provider.connect();
    if (!comparison || session == nullptr) return result;
    direction.look = [&](const Answer& answer, const Figures& soFar) {
        return comparison->faultOf(answer, soFar);
    };
    direction.curtain = [&, &held = holdings] { held = kit::Holdings::settled(provider.id()); };
    figures = playStream(session, direction);
    return result;
}

/** Starts a client and kills it when frames have come. False after a sentence on stderr. */
bool killOne(const ProviderProcess& provider, uint32_t buffers) {
    std::string problem;
    const std::unique_ptr<kit::ChildProcess> client = kit::ChildProcess::start(
        kit::programFolder() / "fdstream-client",
        {"--socket", provider.socket(), "--frames", "0", "--buffers", std::to_string(buffers)},
        problem);
    if (client == nullptr) {
        warnx("%s", problem.c_str());
        return false;
    }
    const std::optional<std::string> line = client->nextLine(kPatience);
    // Said first, because the provider's log tells of the result that it cannot deliver.
    if (line) {
        printf(
            "client B is killed in the middle of its stream: an ERROR line of the provider\n"
            "about that would be as expected\n");
        fflush(stdout);
    }
    client->signal(SIGKILL);
    if (!client->waitForEnd(kPatience) || !line) {
        warnx("no client could be killed in the middle of its stream");
        return false;
    }
    return true;
}

}  // namespace

std::optional<Killed> playKilled(const ProviderProcess& provider, uint32_t frames, uint32_t buffers,
                                 const std::filesystem::path& clip) {
    // Both use all their buffers, so that the provider holds as many of each.
    const uint32_t used = std::min(buffers, frames);
    Direction first;
    first.name = "client A";
    first.stream.frames = used;
    first.stream.buffers = used;
    Direction second;
    second.name = "client C";
    second.stream.frames = frames;
    second.stream.buffers = used;

    Killed killed;
    std::tie(killed.before, killed.heldBefore) = playWatched(provider, first, clip);
    if (!killOne(provider, buffers)) return std::nullopt;
    std::tie(killed.after, killed.heldAfter) = playWatched(provider, second, clip);
    return killed;
}

}  // namespace tools
