#include "soak_storm.h"

#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <numeric>
#include <thread>
#include <utility>

#include "soak_process.h"

namespace tools {

namespace {

using std::chrono::milliseconds;

constexpr size_t kAtATime = 8;
constexpr uint32_t kLongestLifeMs = 900;  // of one that is to be killed
constexpr std::chrono::seconds kPatience(20);
constexpr size_t kHanging = 2;

}  // namespace

uint64_t StormCounts::clients() const {
    return std::accumulate(started.begin(), started.end(), uint64_t{0});
}

std::string Storm::blow() {
    killWhoIsDue();
    std::string problem = buryDead();
    if (problem.empty() && mClients.size() < kAtATime) problem = start();
    return problem;
}

std::string Storm::calmDown() {
    const auto deadline = Clock::now() + kPatience;
    for (Client& client : mClients) {
        if (client.stays) client.death = Clock::now();
    }
    mOneStays = false;
    while (!mClients.empty()) {
        killWhoIsDue();
        std::string problem = buryDead();
        if (problem.empty() && Clock::now() > deadline) problem = "a client does not end";
        if (!problem.empty()) return problem;
        std::this_thread::sleep_for(milliseconds(5));
    }
    return {};
}

std::string Storm::start() {
    // Most are who is to be served. One that hangs takes the monitor's time for all others.
    static constexpr std::array<size_t, 16> kMixture = {0, 0, 0, 0, 0, 0, 0, 1,
                                                        1, 1, 1, 2, 3, 3, 4, 4};
    std::string problem;
    Client client;
    client.stays = !mOneStays;
    client.kind = client.stays ? kHanging : kMixture[mRandom() % kMixture.size()];
    client.process = kit::ChildProcess::start(
        kit::programFolder() / "fdstream-soak-client",
        {client.stays ? "staying" : kSoakClients[client.kind], mSocket, std::to_string(mRandom())},
        problem);
    if (client.process == nullptr) return problem;
    mOneStays = true;
    if (!client.stays && mRandom() % 5 < 2)
        client.death = Clock::now() + milliseconds(mRandom() % kLongestLifeMs);
    ++mCounts.started[client.kind];
    mClients.push_back(std::move(client));
    return {};
}

void Storm::killWhoIsDue() {
    for (Client& client : mClients) {
        if (client.killed || !client.death || *client.death > Clock::now()) continue;
        client.process->signal(SIGKILL);
        client.killed = true;
    }
}

std::string Storm::buryDead() {
    std::string problem;
    for (auto client = mClients.begin(); client != mClients.end();) {
        const std::optional<int> status = client->process->waitForEnd(milliseconds(0));
        hear(*client);
        if (!status) {
            ++client;
            continue;
        }
        const std::string fault = bury(*client, *status);
        if (problem.empty()) problem = fault;
        client = mClients.erase(client);
    }
    return problem;
}

void Storm::hear(Client& client) {
    const std::string told = client.process->rest(milliseconds(0));
    mCounts.frames += static_cast<uint64_t>(std::count(told.begin(), told.end(), '.'));
    mCounts.errors += static_cast<uint64_t>(std::count(told.begin(), told.end(), 'e'));
}

std::string Storm::bury(const Client& client, int status) {
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL && client.killed) {
        ++mCounts.killed;
        return {};
    }
    const std::string ending = endingInWords(status);
    return ending.empty() ? ending
                          : std::string("a client, ") + kSoakClients[client.kind] + ", " + ending;
}

}  // namespace tools
