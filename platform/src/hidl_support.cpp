#include <hidl/HidlSupport.h>

#include <android/log.h>

#include <cstdlib>
#include <cstring>

#include "host/unique_handle.h"

namespace android::hardware {

namespace details {

void logAlwaysFatal(const char* message) {
    __android_log_print(ANDROID_LOG_FATAL, "hidl", "%s", message);
    abort();
}

uint32_t checkedSize(size_t size) {
    if (size > std::numeric_limits<uint32_t>::max()) logAlwaysFatal("a size is over 32 bits");
    return static_cast<uint32_t>(size);
}

}  // namespace details

void hidl_handle::clone(const hidl_handle& other) {
    mHandle = native_handle_clone(other.mHandle);
    mOwnsHandle = mHandle != nullptr;
}

hidl_handle& hidl_handle::operator=(const native_handle_t* handle) {
    release();
    mHandle = handle;
    return *this;
}

void hidl_handle::setTo(native_handle_t* handle, bool shouldOwn) {
    release();
    mHandle = handle;
    mOwnsHandle = shouldOwn;
}

void hidl_handle::closeOwn() {
    const host::UniqueHandle owned(const_cast<native_handle_t*>(mHandle));  // NOLINT: its own
}

hidl_string::hidl_string(const std::string& text) {
    char* const buffer = new char[text.size() + 1];
    memcpy(buffer, text.c_str(), text.size() + 1);
    mBuffer = buffer;
    mSize = details::checkedSize(text.size());
    mOwnsBuffer = true;
}

hidl_string::hidl_string(const hidl_string& other) : hidl_string(std::string(other)) {}

hidl_string::hidl_string(hidl_string&& other) noexcept {
    *this = std::move(other);
}

hidl_string::~hidl_string() {
    if (mOwnsBuffer) delete[] mBuffer;
}

hidl_string& hidl_string::operator=(const hidl_string& other) {
    return *this = hidl_string(other);
}

hidl_string& hidl_string::operator=(hidl_string&& other) noexcept {
    std::swap(mBuffer, other.mBuffer);
    std::swap(mSize, other.mSize);
    std::swap(mOwnsBuffer, other.mOwnsBuffer);
    return *this;
}

}  // namespace android::hardware
