#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>

namespace tools {

/**
 * Follows the clients of a session, which serves one at a time, and says in a line each who came,
 * took the session over and went, and whose requests wait for nobody. A client is a process. Any
 * thread; `say` is called by one at a time, and must not wait. So is `onHolder`, if it is there,
 * when the session gets a client after none, or has none any more.
 */
class ClientWatch {
public:
    explicit ClientWatch(std::function<void(const std::string&)> say,
                         std::function<void(bool hasClient)> onHolder = {})
        : mSay(std::move(say)), mOnHolder(std::move(onHolder)) {}

    /** A connection of the client's; there may be more. */
    void came(pid_t client);
    void went(pid_t client);

    /** The session has the client's callback now, or none, as the client wanted. */
    void callbackSet(pid_t client, bool hasCallback);
    /** The session forgets the requests that wait. */
    void configured();

    /** Told before the session gets the request, whose result may come at once. */
    void asks(pid_t client, uint64_t bufferId);
    /** What the session said to it. */
    void asked(pid_t client, uint64_t bufferId, bool accepted);
    /** A result is on its way to a client. */
    void answered(uint64_t bufferId);

private:
    struct Request {
        pid_t client;
        uint64_t bufferId;
    };

    /** REQUIRES: mMutex is held. Returns whose it was. */
    pid_t handTo(pid_t client);

    const std::function<void(const std::string&)> mSay;
    const std::function<void(bool)> mOnHolder;

    std::mutex mMutex;
    // Guarded by mMutex.
    std::map<pid_t, int> mConnections;
    pid_t mHolder = 0;              // whose callback the session has; 0 for nobody's
    std::deque<Request> mRequests;  // accepted and not answered yet
    std::set<pid_t> mWarned;        // whose requests were said to wait for nobody
};

}  // namespace tools
