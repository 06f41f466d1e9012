#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <random>
#include <string>

#include "child_process.h"

namespace tools {

/** The kinds of clients, by the names that their program knows. */
constexpr std::array<const char*, 5> kSoakClients = {"orderly", "changing", "hanging", "flooding",
                                                     "noisy"};

/** What a storm has come to so far. Value type. */
struct StormCounts {
    std::array<uint64_t, kSoakClients.size()> started = {};
    uint64_t killed = 0;
    uint64_t frames = 0;  ///< that clients got, each right in every byte
    uint64_t errors = 0;  ///< answers to orderly clients that bring none: error results, refusals

    uint64_t clients() const;
};

/**
 * Clients at a provider, each a process: some at a time, of any kind, any of them killed. The first
 * one of each storm never answers a callback, and stays until the storm calms down.
 */
class Storm {
public:
    Storm(std::string socket, uint32_t seed) : mSocket(std::move(socket)), mRandom(seed) {}

    /** Starts, kills and buries clients. Empty, or what is wrong. */
    std::string blow();
    /** Waits until all clients are gone. Empty, or what is wrong. */
    std::string calmDown();
    const StormCounts& counts() const { return mCounts; }

private:
    using Clock = std::chrono::steady_clock;
    struct Client {
        size_t kind = 0;
        std::unique_ptr<kit::ChildProcess> process;
        std::optional<Clock::time_point> death;  // when it is to be killed
        bool killed = false;
        bool stays = false;
    };

    /** Empty, or what is wrong. */
    std::string start();
    void killWhoIsDue();
    void hear(Client& client);
    std::string buryDead();
    std::string bury(const Client& client, int status);

    const std::string mSocket;
    std::mt19937 mRandom;
    std::list<Client> mClients;
    bool mOneStays = false;
    StormCounts mCounts;
};

}  // namespace tools
