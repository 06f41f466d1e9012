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
 * Who is told of a server's connections, with the process at the other end; either may be empty.
 * Called one at a time, on the thread that takes connections, which must not be held up: `came`
 * before the first call, `went` after the last. Not called for what the server's end ends.
 */
struct ConnectionEvents {
    std::function<void(pid_t)> came;
    std::function<void(pid_t)> went;
};

/**
 * Serves one object to other processes of the same user, on a socket in the file system that only
 * this user can reach. Every connection has a thread of its own, on which its calls arrive.
 */
class Server {
public:
    /**
     * Makes the socket, with mode 0600. Nothing, and a sentence in `problem`, when the path is in
     * use, cannot be made, or is too long. A path that a dead server left behind is taken over.
     */
    static std::unique_ptr<Server> listen(
        const std::string& path, const ::android::sp<::android::hidl::base::V1_0::IBase>& object,
        std::string& problem, ConnectionEvents events = {});

    /** Removes the socket, ends every connection, and waits until the calls under way are done. */
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

private:
    class Impl;
    explicit Server(std::unique_ptr<Impl> impl);
    const std::unique_ptr<Impl> mImpl;
};

/** The process whose call to a server's object this thread is in; 0 outside such a call. */
pid_t callingProcess();

/**
 * A proxy for what is served at the path. Null, and a sentence in `problem`, when nothing is and
 * nobody comes to serve it for so long.
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

/** As connectWithin(), but nobody is waited for. */
template <typename Interface>
::android::sp<Interface> connect(const std::string& path, std::string& problem) {
    return connectWithin<Interface>(path, std::chrono::milliseconds(0), problem);
}

}  // namespace host
