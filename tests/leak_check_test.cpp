// The check that runs around every test: that it catches what it is there for.

#include <gtest/gtest.h>
#include <unistd.h>

#include <future>
#include <thread>

#include "support/leak_check.h"
#include "support/session_fixture.h"

namespace testing_support {

TEST(LeakCheckTest, CatchesADescriptorAThreadAndAMapping) {
    const Holdings before = Holdings::now();
    EXPECT_EQ(Holdings::now().differenceFrom(before), "");
    const int fd = dup(STDERR_FILENO);
    EXPECT_NE(Holdings::now().differenceFrom(before).find("descriptors"), std::string::npos);
    close(fd);
    std::promise<void> end;
    std::thread thread([&] { end.get_future().wait(); });
    EXPECT_NE(Holdings::now().differenceFrom(before).find("threads"), std::string::npos);
    end.set_value();
    thread.join();
    {
        const host::Buffer buffer = allocate(4, 4);
        EXPECT_NE(Holdings::now().differenceFrom(before).find("mappings"), std::string::npos);
    }
}

}  // namespace testing_support
