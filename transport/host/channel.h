#pragma once

#include <android/hidl/base/1.0/IBase.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "host/limits.h"

namespace host {

/**
 * Called when a process connects to a server and when it has disconnected; each may be empty. One
 * call of `came` and `went` at a time, on the thread that accepts connections, so they must not
 * block. `came` precedes the first call of the connection, `went` follows the last. `went` is not
 * called for connections that end because the server is destroyed.
 *
 * `ended` is called on the connection's own thread, after its last call and before `went`, however
 * it ends. So what a call has noted down for its thread can be taken back there.
 */
struct ConnectionEvents {
    std::function<void(pid_t)> came;
    std::function<void(pid_t)> went;
    std::function<void()> ended{};
};

/**
 * Serves one object to other processes of the same user, on a socket in the file system that only
 * this user can reach. Every connection has a thread of its own, on which its calls arrive.
 */
class Server {
public:
    /**
     * Creates the socket, with mode 0600. Null, and a sentence in `problem`, when the path is in
     * use, too long, or the socket cannot be created there. A socket that a dead server left behind
     * is replaced. One more connection than `maxConnections` is closed at once; all the servers of
     * a process take at most kConnectionFds with one more each.
     */
    static std::unique_ptr<Server> listen(
        const std::string& path, const ::android::sp<::android::hidl::base::V1_0::IBase>& object,
        std::string& problem, ConnectionEvents events = {},
        size_t maxConnections = kMaxConnections);

    /** Removes the socket, ends every connection, and waits for the calls that are running. */
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

private:
    class Impl;
    explicit Server(std::unique_ptr<Impl> impl);
    const std::unique_ptr<Impl> mImpl;
};

/**
 * Ends all channels to what clients have handed over: calls that are under way there fail at once,
 * as they would when the client had died. For a process that is to end, whoever does not answer it.
 * A callback that is handed over later has a channel again.
 */
void hangUpOnClients();

/** The process whose call to a server's object runs on this thread; 0 outside such a call. */
pid_t callingProcess();

/**
 * A proxy for the object that is served at the path. Waits up to `patience` for somebody to serve
 * it; null, and a sentence in `problem`, when nobody does.
 */
::android::sp<::android::hidl::base::V1_0::IBase> connectTo(const std::string& path,
                                                            const char* descriptor,
                                                            std::chrono::milliseconds patience,
                                                            std::string& problem);

template <typename Interface>
::android::sp<Interface> connectWithin(const std::string& path, std::chrono::milliseconds patience,
                                       std::string& problem) {
    return static_cast<Interface*>(connectTo(path, Interface::descriptor, patience, problem).get());
}

/** As connectWithin(), without waiting. */
template <typename Interface>
::android::sp<Interface> connect(const std::string& path, std::string& problem) {
    return connectWithin<Interface>(path, std::chrono::milliseconds(0), problem);
}

}  // namespace host
