#include <gtest/gtest.h>

#include <fstream>
#include <sys/wait.h>
#include <unistd.h>

#include "CorvexSession/AgentDetector.h"
#include "Platform/Tests/Support/Eventually.h"

using namespace corvex;

TEST(AgentKindOfCommandLine, FindsClaudeAndCodexHoweverTheyAreStarted) {
    using Words = std::vector<std::string>;
    EXPECT_EQ(agentKindOfCommandLine(Words{"claude"}), "claude");
    EXPECT_EQ(agentKindOfCommandLine(Words{"/home/u/.local/bin/claude", "--resume"}), "claude");
    EXPECT_EQ(agentKindOfCommandLine(Words{"node", "/usr/lib/node_modules/@anthropic-ai/claude-code/cli.js"}), "claude");
    EXPECT_EQ(agentKindOfCommandLine(Words{"npx", "-y", "@anthropic-ai/claude-code"}), "claude");
    EXPECT_EQ(agentKindOfCommandLine(Words{"node", "--no-warnings", "/usr/local/bin/codex"}), "codex");
    EXPECT_EQ(agentKindOfCommandLine(Words{"node", "/usr/lib/node_modules/@openai/codex/bin/codex.js"}), "codex");
    EXPECT_EQ(agentKindOfCommandLine(Words{"/bin/sh", "/tmp/bin/codex"}), "codex");
    EXPECT_FALSE(agentKindOfCommandLine(Words{"vim", "claude.md"}));
    EXPECT_FALSE(agentKindOfCommandLine(Words{"node", "server.js", "claude"}));
    EXPECT_FALSE(agentKindOfCommandLine(Words{}));
}

// The daemon is a grandparent of an agent: the shell between them reaps it.
TEST(AgentProcessWatch, ReadsTheExitStatusOfAProcessSomeoneElseReaped) {
    int go[2], told[2];
    ASSERT_EQ(::pipe(go), 0);
    ASSERT_EQ(::pipe(told), 0);
    pid_t shell = ::fork();
    ASSERT_GE(shell, 0);
    if (shell == 0) {
        pid_t agent = ::fork();
        if (agent == 0) {
            char byte;
            (void)::read(go[0], &byte, 1);
            ::_exit(3);
        }
        (void)::write(told[1], &agent, sizeof(agent));
        int status = 0;
        ::waitpid(agent, &status, 0);
        ::_exit(0);
    }
    pid_t agent = 0;
    ASSERT_EQ(::read(told[0], &agent, sizeof(agent)), ssize_t(sizeof(agent)));
    AgentProcessWatch watch(agent);
    EXPECT_FALSE(watch.ended());
    EXPECT_FALSE(watch.exitStatus()) << "still running";
    ASSERT_EQ(::write(go[1], "x", 1), 1);
    int status = 0;
    ::waitpid(shell, &status, 0);
    EXPECT_TRUE(platform::testing::eventually([&] { return watch.ended(); }));
    if (auto exit = watch.exitStatus()) {
        EXPECT_TRUE(WIFEXITED(*exit));
        EXPECT_EQ(WEXITSTATUS(*exit), 3);
    } else {
        GTEST_LOG_(INFO) << "this kernel keeps no exit status for a grandchild; the screen stands in";
    }
    for (int fd : {go[0], go[1], told[0], told[1]}) ::close(fd);
}
