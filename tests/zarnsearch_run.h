// Runs a program through the shell, zarnsearch above all, and collects its
// exit status and output; for the tests of the command-line client and the
// daemon.
#ifndef ZARNSEARCH_RUN_H
#define ZARNSEARCH_RUN_H

#include <fcntl.h>
#include <sys/mount.h>
#include <termios.h>

#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

namespace zarntest {

struct Result {
    int status = -1;  // 128 + N for a death by signal N, as the shell says
    std::string out, err;
};

// Standard output is a pipe, or a terminal when `terminal`; standard error
// goes to a file.
inline Result Shell(std::string command, bool terminal = false) {
    int pty = -1;
    if (terminal) {
        pty = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        termios raw;
        EXPECT_TRUE(grantpt(pty) == 0 && unlockpt(pty) == 0 && tcgetattr(pty, &raw) == 0);
        cfmakeraw(&raw);  // no "\r\n" for "\n"; set on the master, it holds for the terminal
        tcsetattr(pty, TCSANOW, &raw);
        command += std::string(" >") + ptsname(pty);
    }
    FILE *pipe = popen((command + " 2>/var/run.err; exit $?").c_str(), "r");
    Result result;
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) result.out.append(buffer, n);
    result.status = WEXITSTATUS(pclose(pipe));
    // What the terminal holds stays readable after its last user left, then EIO.
    for (ssize_t n; terminal && (n = read(pty, buffer, sizeof buffer)) > 0;) result.out.append(buffer, n);
    close(pty);
    std::ostringstream err;
    err << std::ifstream("/var/run.err").rdbuf();
    result.err = err.str();
    return result;
}

// zarnsearch with `args` (none holds a quote), behind ZARN_TEST_WRAPPER
// (valgrind) as for tests.  It logs through the syslog socket, if there is
// one: inside the sandbox that leads nowhere.
inline Result Zarnsearch(const std::vector<std::string> &args, bool terminal = false) {
    static const bool quiet = access("/dev/log", F_OK) != 0 || mount("/dev/null", "/dev/log", nullptr, MS_BIND, nullptr) == 0;
    EXPECT_TRUE(quiet);
    std::string command = "$ZARN_TEST_WRAPPER " ZARNSEARCH_PATH;
    for (const std::string &arg : args) command += " '" + arg + "'";
    return Shell(command, terminal);
}

}  // namespace zarntest

#endif  // ZARNSEARCH_RUN_H
