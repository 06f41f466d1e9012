#pragma once

#include <android/hidl/base/1.0/IBase.h>

#include <memory>
#include <string>

#include "host/limits.h"

namespace host {

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
        std::string& problem);

    /** Removes the socket, ends every connection, and waits until the calls under way are done. */
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

private:
    class Impl;
    explicit Server(std::unique_ptr<Impl> impl);
    const std::unique_ptr<Impl> mImpl;
};

/** A proxy for what is served at the path; null, and a sentence in `problem`, when nothing is. */
::android::sp<::android::hidl::base::V1_0::IBase> connectTo(const std::string& path,
                                                            const char* descriptor,
                                                            std::string& problem);

template <typename Interface>
::android::sp<Interface> connect(const std::string& path, std::string& problem) {
    return static_cast<Interface*>(connectTo(path, Interface::descriptor, problem).get());
}

}  // namespace host
