#include "host/remote.h"

#include <android-base/thread_annotations.h>

#include <map>
#include <mutex>

#include "control_data.h"
#include "served_channel.h"

namespace host {

namespace {

/** The registered interfaces. Never destroyed, because a channel may outlive main(). */
struct Registry {
    std::mutex mutex;
    std::map<std::string, InterfaceMakers> makers GUARDED_BY(mutex);
};

Registry& registry() {
    static auto* const instance = new Registry;
    return *instance;
}

}  // namespace

void registerInterface(const char* descriptor, const InterfaceMakers& makers) {
    const std::lock_guard<std::mutex> lock(registry().mutex);
    registry().makers[descriptor] = makers;
}

const InterfaceMakers* detail::findInterface(const char* descriptor) {
    const std::lock_guard<std::mutex> lock(registry().mutex);
    const auto found = registry().makers.find(descriptor);
    return found != registry().makers.end() ? &found->second : nullptr;
}

bool writeInterface(Writer& writer, const char* descriptor, const sp<IBase>& object) {
    writer(static_cast<uint8_t>(object != nullptr));
    if (object == nullptr) return true;
    const InterfaceMakers* const makers = detail::findInterface(descriptor);
    UniqueFd mine;
    UniqueFd theirs;
    if (makers == nullptr || !detail::makePair(mine, theirs) ||
        !detail::serveDetached(std::move(mine), object, makers->stub(object))) {
        return false;
    }
    writer.descriptor(std::move(theirs));
    return true;
}

bool readInterface(Reader& reader, const char* descriptor, sp<IBase>& object) {
    uint8_t present = 0;
    reader(present);
    if (present == 0) return true;
    const InterfaceMakers* const makers = detail::findInterface(descriptor);
    if (present != 1 || makers == nullptr) return false;
    UniqueFd socket = reader.descriptor(Crossing::CHANNEL);
    if (!socket.isValid()) return true;  // the reader knows why
    detail::switchOffControlData(socket.get());
    object = makers->proxy(std::make_unique<CallChannel>(std::move(socket), Peer::CLIENT));
    return true;
}

}  // namespace host
