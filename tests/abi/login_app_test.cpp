// Runs the installed-headers application against the fake quote server.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "support/FakeQuoteServer.h"
#include "support/RecordingSpi.h"

using namespace orvex_test;

TEST(InstalledApplication, LogsInAndReleasesCleanly) {
    ScopedTempDir dir;
    FakeQuoteServer server;
    server.SetResponder([](FakeQuoteServer& s, const DcFrame& f) {
        if (f.command != 83) return;
        std::string answer(512, '\0');
        std::memcpy(&answer[0], f.body.data(), 2);   // echo the request handle
        s.Send(83, answer);
    });
    std::string front = server.FrontAddress();
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        execl(LOGIN_APP_PATH, LOGIN_APP_PATH, front.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
    EXPECT_EQ(1, server.CountFrames(83));
}
