#include "process.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "live_index.h"
#include "log.h"

namespace zarnd {

namespace {

// Logs and prints a reason not to start.
int CannotStart(const char *format, const std::string &path) {
    std::string message = std::string(format);
    ZARN_LOG(LOG_ERR, "%s %s: %m", message.c_str(), path.c_str());
    std::fprintf(stderr, "zarnelasticd: %s %s: %s\n", message.c_str(), path.c_str(), std::strerror(errno));
    return 1;
}

bool Daemonize() {
    const pid_t child = fork();
    if (child < 0) return false;
    if (child > 0) _exit(0);  // the socket is already live for the caller
    setsid();
    if (chdir("/") != 0) return false;
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null < 0) return false;
    for (int fd = 0; fd <= 2; ++fd) dup2(null, fd);
    if (null > 2) close(null);
    return true;
}

// Before any worker starts, so that every thread inherits the mask and
// only the listener's loop sees the signals: a descriptor readable once
// SIGTERM or SIGINT arrives, -1 on failure.
int CatchSignals() {
    signal(SIGPIPE, SIG_IGN);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    if (pthread_sigmask(SIG_BLOCK, &set, nullptr) != 0) return -1;
    return signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

}  // namespace

void RaiseDescriptorLimit() {
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

int RunServer(const ServerOptions &options) {
    Listener listener(options);
    if (const char *reason = listener.Open()) return CannotStart(reason, options.socket_path);
    if (!options.foreground && !Daemonize()) return CannotStart("cannot detach from", "the terminal");
    const int stop_fd = CatchSignals();
    if (stop_fd < 0) return CannotStart("cannot catch signals for", options.socket_path);
    listener.Start(stop_fd);
    LiveIndex live(options.live_options);
    if (options.live && !live.Start()) ZARN_LOG(LOG_ERR, "live indexing is off: %m");
    listener.Loop();
    live.Stop();
    listener.Shutdown();
    close(stop_fd);
    ZARN_LOG(LOG_INFO, "stopped");
    return 0;
}

}  // namespace zarnd
