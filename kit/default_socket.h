#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace kit {

/** Where the provider's socket is looked for when nothing else is said, in words for a help text.
 */
constexpr const char* kDefaultSocketInWords =
    "session.sock in the folder $XDG_RUNTIME_DIR/fdstream or, without that, /tmp/fdstream-UID";

/**
 * The folder for sockets. It is made if need be, with access for this user only. Nothing, and a
 * sentence in `problem`, when that cannot be, or somebody else could have put something there.
 */
std::optional<std::filesystem::path> privateFolder(std::string& problem);

/** The socket's path in that folder. */
std::optional<std::string> defaultSocket(std::string& problem);

/** The socket for a session's controls, beside that of the session. */
inline std::string controlSocketOf(const std::string& sessionSocket) {
    return sessionSocket + ".control";
}

}  // namespace kit
