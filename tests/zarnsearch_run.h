// Runs zarnsearch as a program and collects its exit status and output; for
// the tests of the command-line client.
#ifndef ZARNSEARCH_RUN_H
#define ZARNSEARCH_RUN_H

#include <fcntl.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

extern char **environ;

namespace zarntest {

struct Result {
    int status = -1;
    std::string out, err;
};

// Runs zarnsearch with `args`; its stdout is a pipe, or a terminal when
// `terminal`.  ZARN_TEST_WRAPPER (valgrind) is put in front, as for tests.
inline Result Zarnsearch(const std::vector<std::string> &args, bool terminal = false) {
    std::vector<std::string> words;
    std::istringstream wrapper(getenv("ZARN_TEST_WRAPPER") ? getenv("ZARN_TEST_WRAPPER") : "");
    for (std::string word; wrapper >> word;) words.push_back(word);
    words.push_back(ZARNSEARCH_PATH);
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (std::string &word : words) argv.push_back(&word[0]);
    argv.push_back(nullptr);
    // zarnsearch and the daemon log through the syslog socket, if there is
    // one: inside the sandbox it leads nowhere.
    static const bool quiet = access("/dev/log", F_OK) != 0 || mount("/dev/null", "/dev/log", nullptr, MS_BIND, nullptr) == 0;
    EXPECT_TRUE(quiet);
    int out[2];
    if (terminal) {
        out[0] = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        EXPECT_TRUE(out[0] >= 0 && grantpt(out[0]) == 0 && unlockpt(out[0]) == 0);
        out[1] = open(ptsname(out[0]), O_RDWR | O_NOCTTY | O_CLOEXEC);
        termios raw;
        tcgetattr(out[1], &raw);
        cfmakeraw(&raw);  // no "\r\n" for "\n"
        tcsetattr(out[1], TCSANOW, &raw);
    } else {
        EXPECT_EQ(0, pipe2(out, O_CLOEXEC));
    }
    // Standard error goes to a file: no second pipe to drain.
    const int err = open("/var", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err, 2);
    pid_t pid = -1;
    EXPECT_EQ(0, posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ));
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    Result result;
    char buffer[4096];
    // The end of the pipe; EIO once the terminal's last user left.
    for (ssize_t n; (n = read(out[0], buffer, sizeof buffer)) > 0;) result.out.append(buffer, n);
    close(out[0]);
    int status = 0;
    EXPECT_EQ(pid, waitpid(pid, &status, 0));
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    for (ssize_t n; (n = pread(err, buffer, sizeof buffer, result.err.size())) > 0;) result.err.append(buffer, n);
    close(err);
    return result;
}

}  // namespace zarntest

#endif  // ZARNSEARCH_RUN_H
