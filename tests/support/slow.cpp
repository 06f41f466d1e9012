#include "support/slow.h"

namespace testing_support {

bool isSlow() {
    return IS_SLOW;
}

}  // namespace testing_support
