#include <android/log.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <list>
#include <optional>
#include <thread>
#include <utility>

#include "closing.h"
#include "host/channel.h"
#include "host/limits.h"
#include "host/remote.h"
#include "served_channel.h"
#include "slot_reserve.h"
#include "start_thread.h"

#define LOG_TAG "transport"

namespace host {

namespace {

constexpr int kBacklog = 16;
constexpr int kRetryMs = 50;

bool addressOf(const std::string& path, sockaddr_un& address, std::string& problem) {
    address = {};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address.sun_path)) {
        problem = "a socket's path has 1 to " + std::to_string(sizeof(address.sun_path) - 1) +
                  " characters: " + path;
        return false;
    }
    memcpy(address.sun_path, path.c_str(), path.size());
    return true;
}

UniqueFd makeSocket() {
    return UniqueFd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
}

/** As connect(2), but gives up with EAGAIN when it is not accepted within kCallPatience. */
int connectSocket(const UniqueFd& socket, const sockaddr_un& address) {
    constexpr std::chrono::microseconds kMicroseconds = kCallPatience;
    constexpr timeval patience = {kMicroseconds.count() / 1000000, kMicroseconds.count() % 1000000};
    setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
    return ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
}

/** The process at the other end; nothing when it is not of this process's user. */
std::optional<pid_t> sameUsersPeer(int socket) {
    ucred peer = {};
    socklen_t size = sizeof(peer);
    const bool known = getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0;
    return known && peer.uid == geteuid() ? std::optional(peer.pid) : std::nullopt;
}

/** Whether the other end was closed, or given up. */
bool isAbandoned(int socket) {
    pollfd entry = {socket, POLLRDHUP, 0};
    return poll(&entry, 1, 0) > 0;
}

thread_local pid_t tCaller = 0;

/** Which file a path names now; zeros for none. */
using FileId = std::pair<dev_t, ino_t>;

FileId fileId(const std::string& path) {
    struct stat file = {};
    lstat(path.c_str(), &file);
    return {file.st_dev, file.st_ino};
}

/**
 * Lets one serving process at a time look at a socket's path and change it. A process that does not
 * get the lock goes on without it after a while: somebody else may hold it for another reason.
 */
class FolderLock {
public:
    explicit FolderLock(const std::string& path)
        : mFolder(open(folderOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
        for (int i = 0; i < kTries && flock(mFolder.get(), LOCK_EX | LOCK_NB) != 0; ++i) {
            if (errno != EWOULDBLOCK) return;
            std::this_thread::sleep_for(std::chrono::milliseconds(kRetryMs));
        }
    }

private:
    static constexpr int kTries = 20;

    static std::string folderOf(const std::string& path) {
        const size_t slash = path.rfind('/');
        return slash == std::string::npos ? "." : path.substr(0, slash + 1);
    }

    const UniqueFd mFolder;
};

/** Removes a socket file on which nobody listens any more. */
bool clearStale(const std::string& path, const sockaddr_un& address, std::string& problem) {
    struct stat file = {};
    if (lstat(path.c_str(), &file) != 0) return true;
    if (!S_ISSOCK(file.st_mode)) {
        problem = path + " exists and is not a socket";
        return false;
    }
    if (connectSocket(makeSocket(), address) == 0 || errno == EAGAIN) {
        problem = path + " is in use by another provider";
        return false;
    }
    if (errno != ECONNREFUSED || unlink(path.c_str()) != 0) {
        problem = path + ": " + strerror(errno);
        return false;
    }
    return true;
}

/** Invalid, and a sentence in `problem`, when the path is not available. */
UniqueFd listeningSocket(const std::string& path, const sockaddr_un& address, FileId& file,
                         std::string& problem) {
    const FolderLock lock(path);
    if (!clearStale(path, address, problem)) return {};
    UniqueFd socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    // The mode is set before anybody can connect.
    if (!socket.isValid() ||
        bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        chmod(path.c_str(), S_IRUSR | S_IWUSR) != 0 || ::listen(socket.get(), kBacklog) != 0) {
        problem = path + ": " + strerror(errno);
        return {};
    }
    file = fileId(path);
    return socket;
}

}  // namespace

class Server::Impl {
public:
    Impl(std::string path, FileId file, UniqueFd socket, std::unique_ptr<Stub> stub,
         ConnectionEvents events, size_t maxConnections)
        : mPath(std::move(path)),
          mFile(file),
          mSocket(std::move(socket)),
          mWake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
          mStub(std::move(stub)),
          mEvents(std::move(events)),
          mMaxConnections(maxConnections) {}

    ~Impl() {
        if (mThread.joinable()) {
            mStopping = true;
            eventfd_write(mWake.get(), 1);
            mThread.join();
        }
        removeSocket();
        for (const Connection& connection : mConnections) {
            shutdown(connection.socket.get(), SHUT_RDWR);
        }
        for (Connection& connection : mConnections)
            end(connection);
        // Closing it closes the connections in its queue, too, and those can block.
        shutdown(mSocket.get(), SHUT_RDWR);
        detail::closeLater(std::move(mSocket));
    }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    /** Why it cannot serve; null when it does. */
    const char* start() {
        if (!mReserve.isHeld()) return "too few descriptors may be open to serve";
        const bool started =
            mWake.isValid() && detail::startThread(mThread, "accept", [this] { acceptAll(); });
        return started ? nullptr : "no thread can be made to serve it";
    }

private:
    struct Connection {
        UniqueFd socket;
        pid_t peer = 0;
        std::thread thread;
        std::atomic<bool> ended{false};
    };

    /** Removes the socket's file, unless somebody has replaced it. The open socket keeps the file's
     * number from being used again. */
    void removeSocket() const {
        const FolderLock lock(mPath);
        if (fileId(mPath) == mFile) unlink(mPath.c_str());
    }

    static void end(Connection& connection) {
        connection.thread.join();
        detail::closeLater(std::move(connection.socket));
    }

    /** Its peer is told at once, even while no thread can be made to close the socket. */
    static void refuse(UniqueFd socket) {
        shutdown(socket.get(), SHUT_RDWR);
        detail::closeLater(std::move(socket));
    }

    void acceptAll() {
        bool full = false;
        while (!mStopping) {
            // Without a slot for it, or while too much waits to be closed, a connection stays in
            // the backlog and is tried again after a pause.
            pollfd entries[] = {{mWake.get(), POLLIN, 0}, {mSocket.get(), POLLIN, 0}};
            poll(entries, full ? 1 : 2, full ? kRetryMs : -1);
            eventfd_t woken = 0;
            eventfd_read(mWake.get(), &woken);
            reap();
            full = !mStopping && isSomebodyWaiting() && (detail::isClosingBehind() || !acceptOne());
        }
    }

    bool isSomebodyWaiting() const {
        pollfd entry = {mSocket.get(), POLLIN, 0};
        return poll(&entry, 1, 0) > 0;
    }

    /** False when there was no slot, or no memory, for it. */
    bool acceptOne() {
        UniqueFd socket = accept();
        if (!socket.isValid()) return errno == ECONNABORTED || errno == EINTR || errno == EAGAIN;
        const std::optional<pid_t> peer = sameUsersPeer(socket.get());
        if (!peer) {
            __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "another user's connection is refused");
            refuse(std::move(socket));
            return true;
        }
        if (mConnections.size() >= mMaxConnections) {
            __android_log_print(ANDROID_LOG_ERROR, LOG_TAG,
                                "a connection beyond the limit of %zu is refused", mMaxConnections);
            refuse(std::move(socket));
            return true;
        }
        if (mEvents.came) mEvents.came(*peer);
        if (isAbandoned(socket.get())) {
            // What such a client asked for is not done any more: it could undo what it, or
            // another one, has asked for since.
            if (mEvents.went) mEvents.went(*peer);
            refuse(std::move(socket));
            return true;
        }
        Connection& connection = mConnections.emplace_back();
        connection.socket = std::move(socket);
        connection.peer = *peer;
        const auto serve = [this, &connection] {
            tCaller = connection.peer;
            detail::serveChannel(connection.socket.get(), *mStub, Peer::CLIENT);
            if (mEvents.ended) mEvents.ended();
            connection.ended = true;
            eventfd_write(mWake.get(), 1);
        };
        if (!detail::startThread(connection.thread, "connection", serve)) {
            if (mEvents.went) mEvents.went(*peer);
            refuse(std::move(connection.socket));
            mConnections.pop_back();
            __android_log_print(ANDROID_LOG_ERROR, LOG_TAG,
                                "a connection is refused: no thread can be made for it");
        }
        return true;
    }

    UniqueFd accept() const {
        const auto take = [this] {
            return UniqueFd(accept4(mSocket.get(), nullptr, nullptr, SOCK_CLOEXEC));
        };
        UniqueFd socket = take();
        if (socket.isValid() || errno != EMFILE) return socket;
        const detail::SlotReserve::Opened opened;
        return take();
    }

    void reap() {
        mConnections.remove_if([this](Connection& connection) {
            if (!connection.ended) return false;
            end(connection);
            if (mEvents.went) mEvents.went(connection.peer);
            return true;
        });
    }

    const detail::SlotReserve mReserve;
    const std::string mPath;
    const FileId mFile;
    UniqueFd mSocket;
    const UniqueFd mWake;
    const std::unique_ptr<Stub> mStub;
    const ConnectionEvents mEvents;
    const size_t mMaxConnections;
    std::atomic<bool> mStopping{false};
    // Used by the accepting thread alone, and by the destructor after it.
    std::list<Connection> mConnections;
    std::thread mThread;
};

std::unique_ptr<Server> Server::listen(const std::string& path, const sp<IBase>& object,
                                       std::string& problem, ConnectionEvents events,
                                       size_t maxConnections) {
    std::string descriptor;
    const auto described = object->interfaceDescriptor(
        [&](const ::android::hardware::hidl_string& name) { descriptor = name; });
    const InterfaceMakers* const makers =
        described.isOk() ? detail::findInterface(descriptor.c_str()) : nullptr;
    sockaddr_un address = {};
    if (makers == nullptr) {
        problem = "the interface " + descriptor + " cannot be served";
        return nullptr;
    }
    if (!addressOf(path, address, problem)) return nullptr;
    FileId file;
    UniqueFd socket = listeningSocket(path, address, file, problem);
    if (!socket.isValid()) return nullptr;
    auto impl = std::make_unique<Impl>(path, file, std::move(socket), makers->stub(object),
                                       std::move(events), maxConnections);
    if (const char* const reason = impl->start()) {
        problem = path + ": " + reason;
        return nullptr;
    }
    return std::unique_ptr<Server>(new Server(std::move(impl)));
}

Server::Server(std::unique_ptr<Impl> impl) : mImpl(std::move(impl)) {}
Server::~Server() = default;

pid_t callingProcess() {
    return tCaller;
}

sp<IBase> connectTo(const std::string& path, const char* descriptor,
                    std::chrono::milliseconds patience, std::string& problem) {
    const InterfaceMakers* const makers = detail::findInterface(descriptor);
    sockaddr_un address = {};
    if (makers == nullptr) {
        problem = std::string("the interface ") + descriptor + " is not known";
        return nullptr;
    }
    if (!addressOf(path, address, problem)) return nullptr;
    const auto deadline = std::chrono::steady_clock::now() + patience;
    UniqueFd socket = makeSocket();
    while (!socket.isValid() || connectSocket(socket, address) != 0) {
        const bool mayCome = errno == ENOENT || errno == ECONNREFUSED || errno == EAGAIN;
        if (!mayCome || std::chrono::steady_clock::now() >= deadline) {
            problem = path + ": " +
                      (errno == EAGAIN ? "the provider takes no connections" : strerror(errno));
            return nullptr;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(kRetryMs));
        socket = makeSocket();
    }
    if (!sameUsersPeer(socket.get())) {
        problem = path + " is another user's";
        return nullptr;
    }
    return makers->proxy(std::make_unique<CallChannel>(std::move(socket)));
}

}  // namespace host
