#include "support/spy_mapper.h"

namespace testing_support {

SpyMapper3& sessionMapper() {
    static auto* const spy = new android::sp<SpyMapper3>(new SpyMapper3(host::realMapper3()));
    return **spy;
}

}  // namespace testing_support
