#include "client_watch.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace tools {

namespace {

std::string named(pid_t client) {
    return "client " + std::to_string(client);
}

}  // namespace

void ClientWatch::came(pid_t client) {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (mConnections[client]++ == 0) mSay(named(client) + " came");
}

void ClientWatch::went(pid_t client) {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (--mConnections[client] > 0) return;
    mConnections.erase(client);
    mWarned.erase(client);
    if (mHolder == client) handTo(0);
    mSay(named(client) + " went");
}

pid_t ClientWatch::handTo(pid_t client) {
    const pid_t previous = std::exchange(mHolder, client);
    if (mOnHolder && (previous == 0) != (client == 0)) mOnHolder(client != 0);
    return previous;
}

void ClientWatch::callbackSet(pid_t client, bool hasCallback) {
    const std::lock_guard<std::mutex> lock(mMutex);
    const pid_t previous = handTo(hasCallback ? client : 0);
    mWarned.erase(client);
    if (previous == 0 || previous == client) return;
    mSay(named(client) +
         (hasCallback ? " took the session over from " : " took away the callback of ") +
         named(previous));
    const auto waiting =
        std::count_if(mRequests.begin(), mRequests.end(),
                      [&](const Request& request) { return request.client == previous; });
    if (waiting == 0) return;
    mWarned.insert(previous);
    mSay(std::to_string(waiting) + (waiting == 1 ? " request of " : " requests of ") +
         named(previous) + (waiting == 1 ? " waits" : " wait") +
         " for nobody: its callback was replaced");
}

void ClientWatch::configured() {
    const std::lock_guard<std::mutex> lock(mMutex);
    mRequests.clear();
}

void ClientWatch::asks(pid_t client, uint64_t bufferId) {
    const std::lock_guard<std::mutex> lock(mMutex);
    mRequests.push_back({client, bufferId});
}

void ClientWatch::asked(pid_t client, uint64_t bufferId, bool accepted) {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (accepted) {
        if (mHolder == 0 || mHolder == client || !mWarned.insert(client).second) return;
        mSay("a request of " + named(client) + " waits for nobody: " + named(mHolder) +
             " has the session");
        return;
    }
    const auto last =
        std::find_if(mRequests.rbegin(), mRequests.rend(), [&](const Request& request) {
            return request.client == client && request.bufferId == bufferId;
        });
    if (last != mRequests.rend()) mRequests.erase(std::next(last).base());
}

void ClientWatch::answered(uint64_t bufferId) {
    const std::lock_guard<std::mutex> lock(mMutex);
    const auto first =
        std::find_if(mRequests.begin(), mRequests.end(),
                     [&](const Request& request) { return request.bufferId == bufferId; });
    if (first != mRequests.end()) mRequests.erase(first);
}

}  // namespace tools
