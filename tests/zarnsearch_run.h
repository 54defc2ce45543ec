// Runs a program through the shell, zarnsearch above all, and collects its
// exit status and output; for the tests of the command-line client and of
// the daemon.
#ifndef ZARNSEARCH_RUN_H
#define ZARNSEARCH_RUN_H

#include <sys/mount.h>

#include <fstream>

#include <gtest/gtest.h>

namespace zarntest {

struct Result {
    int status = -1;  // 128 + N for a death by signal N, as the shell says
    std::string out, err;
};

// Runs `command` through the shell; standard error goes to a file.
inline Result Shell(const std::string &command) {
    FILE *pipe = popen((command + " 2>/var/run.err; exit $?").c_str(), "r");
    Result result;
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) result.out.append(buffer, n);
    result.status = WEXITSTATUS(pclose(pipe));
    std::getline(std::ifstream("/var/run.err"), result.err, '\0');
    return result;
}

// zarnsearch with `args` (none holds a quote), behind ZARN_TEST_WRAPPER
// (valgrind) as for tests.  It logs through the syslog socket, if there is
// one: inside the sandbox that leads nowhere.
inline Result Zarnsearch(const std::vector<std::string> &args) {
    static const bool quiet = access("/dev/log", F_OK) != 0 || mount("/dev/null", "/dev/log", nullptr, MS_BIND, nullptr) == 0;
    EXPECT_TRUE(quiet);
    std::string command = "$ZARN_TEST_WRAPPER " ZARNSEARCH_PATH;
    for (const std::string &arg : args) command += " '" + arg + "'";
    return Shell(command);
}

}  // namespace zarntest

#endif  // ZARNSEARCH_RUN_H
