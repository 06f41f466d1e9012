#pragma once

#include <cutils/native_handle.h>

#include <memory>

namespace host {

struct HandleDeleter {
    void operator()(native_handle_t* handle) const {
        native_handle_close(handle);
        native_handle_delete(handle);
    }
};

/** Owns a native handle and its descriptors, or none. Moved, not copied. */
using UniqueHandle = std::unique_ptr<native_handle_t, HandleDeleter>;

}  // namespace host
