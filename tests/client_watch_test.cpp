// What a provider says of its clients.

#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstdint>
#include <string>

#include "client_watch.h"

namespace testing_support {

TEST(ClientWatchTest, SaysOnceForAClientThatItsRequestsWaitForNobody) {
    std::string said;
    tools::ClientWatch watch([&](const std::string& line) { said += line + "\n"; });
    const auto ask = [&](pid_t client, uint64_t id, bool accepted) {
        watch.asks(client, id);
        watch.asked(client, id, accepted);
    };
    watch.came(1);
    watch.came(2);
    watch.came(1);
    watch.callbackSet(1, true);
    ask(1, 7, true);
    ask(1, 8, true);
    ask(1, 9, false);
    watch.answered(7);
    watch.answered(9);
    watch.callbackSet(2, true);
    ask(1, 10, true);  // said already
    watch.configured();
    watch.callbackSet(1, true);
    ask(2, 11, false);
    ask(2, 11, true);
    ask(2, 12, true);
    watch.callbackSet(2, false);
    watch.went(1);
    watch.went(1);
    watch.went(2);
    EXPECT_EQ(said,
              "client 1 came\nclient 2 came\n"
              "client 2 took the session over from client 1\n"
              "1 request of client 1 waits for nobody: its callback was replaced\n"
              "client 1 took the session over from client 2\n"
              "a request of client 2 waits for nobody: client 1 has the session\n"
              "client 2 took away the callback of client 1\n"
              "client 1 went\nclient 2 went\n");
}

}  // namespace testing_support
