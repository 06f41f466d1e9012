// The client program, against a provider in this process.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>
#include <vector>

#include "ZoruUtil.h"
#include "host/channel.h"
#include "support/session_fixture.h"

namespace testing_support {

class ClientToolTest : public SessionFixture {
protected:
    ClientToolTest() {
        char name[] = "/tmp/fdstream-test-XXXXXX";
        folder = mkdtemp(name);
        std::string problem;
        server = host::Server::listen(folder + "/socket", client, problem);
        EXPECT_NE(server, nullptr) << problem;
        provider = std::thread([this] {
            while (!end) {
                if (!provideOne()) usleep(100);
            }
        });
    }
    ~ClientToolTest() override {
        end = true;
        provider.join();
        server.reset();
        std::filesystem::remove_all(folder);
    }

    /** Sends what an earlier client had asked for, and then what this one did. */
    bool provideOne() {
        CaptureRequest request = {};
        if (session->getProcessCaptureRequest(request) != 0) return false;
        CaptureResult result = resultFor(request);
        result.outputBuffers[0].bufferId = 5;
        session->sendCaptureResult(result);
        const sp<GraphicBuffer> wrapped =
            session->getBufferForId(request.outputBuffers[0].bufferId);
        ZoruUtil::copyTo(frame.data(), wrapped);
        session->sendCaptureResult(resultFor(request));
        if (++served == stopServerAfter) server.reset();
        return true;
    }
    /** The exit code of the program with these arguments beside the socket. */
    int run(const std::string& arguments) {
        const std::string command = "timeout 60 " CLIENT_TOOL " --socket " + folder + "/socket " +
                                    arguments + " >" + folder + "/out 2>&1";
        const int status = system(command.c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::string read(const std::string& name) const {
        std::ifstream file(folder + "/" + name);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    std::string folder;
    std::unique_ptr<host::Server> server;
    std::vector<uint8_t> frame = std::vector<uint8_t>(1280 * 720 * 3 / 2, 7);
    std::atomic<bool> end{false};
    std::atomic<int> served{0};
    std::atomic<int> stopServerAfter{-1};
    std::thread provider;
};

TEST_F(ClientToolTest, LetsGoOfResultsThatAreNotItsOwn) {
    EXPECT_EQ(run("--frames 10 --json " + folder + "/json --raw " + folder + "/raw"), 0)
        << read("out");
    EXPECT_NE(read("json").find("\"delivered\": 10"), std::string::npos) << read("json");
    EXPECT_EQ(read("json").find("\"foreign\": 0"), std::string::npos) << read("json");
    EXPECT_EQ(std::filesystem::file_size(folder + "/raw"), 10U * 1280 * 720 * 3 / 2);
}

TEST_F(ClientToolTest, SaysHowItEnded) {
    EXPECT_EQ(run("--frames x"), 2);
    stopServerAfter = 3;
    EXPECT_EQ(run("--frames 100"), 3);
    EXPECT_NE(read("out").find("provider"), std::string::npos);
    EXPECT_EQ(run("--frames 1"), 3);  // nobody listens any more
    EXPECT_NE(read("out").find("there is no provider"), std::string::npos) << read("out");
}

}  // namespace testing_support
