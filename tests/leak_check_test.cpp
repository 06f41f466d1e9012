// The check that runs around every test: that it catches what it is there for.

#include <gtest/gtest.h>
#include <unistd.h>

#include <future>
#include <thread>

#include "support/leak_check.h"
#include "support/session_fixture.h"

namespace testing_support {

TEST(LeakCheckTest, CatchesADescriptorAThreadAndAMapping) {
    const kit::Holdings before = kit::Holdings::of();
    EXPECT_EQ(kit::Holdings::of().differenceFrom(before), "");
    const int fd = dup(STDERR_FILENO);
    EXPECT_NE(kit::Holdings::of().differenceFrom(before).find("descriptors"), std::string::npos);
    close(fd);
    std::promise<void> end;
    std::thread thread([&] { end.get_future().wait(); });
    EXPECT_NE(kit::Holdings::of().differenceFrom(before).find("threads"), std::string::npos);
    end.set_value();
    thread.join();
    {
        const host::Buffer buffer = allocate(4, 4);
        EXPECT_NE(kit::Holdings::of().differenceFrom(before).find("mappings"), std::string::npos);
    }
}

}  // namespace testing_support
