#include <android-base/thread_annotations.h>
#include <cutils/properties.h>

#include <functional>
#include <map>
#include <mutex>

#include "host/properties.h"

namespace host {

namespace {
/** Never destroyed: a thread may read a property while the process exits. */
struct Store {
    std::mutex mutex;
    std::map<std::string, std::string, std::less<>> values GUARDED_BY(mutex);
};

Store& store() {
    static auto* const instance = new Store;
    return *instance;
}
}  // namespace

void setProperty(const std::string& key, const std::string& value) {
    const std::lock_guard<std::mutex> lock(store().mutex);
    store().values[key] = value;
}

void clearProperty(const std::string& key) {
    const std::lock_guard<std::mutex> lock(store().mutex);
    store().values.erase(key);
}

}  // namespace host

int8_t property_get_bool(const char* key, int8_t default_value) {
    host::Store& store = host::store();
    const std::lock_guard<std::mutex> lock(store.mutex);
    const auto found = store.values.find(key);
    if (found == store.values.end()) return default_value;
    for (const char* const yes : {"1", "y", "yes", "true", "on"}) {
        if (found->second == yes) return 1;
    }
    for (const char* const no : {"0", "n", "no", "false", "off"}) {
        if (found->second == no) return 0;
    }
    return default_value;
}
