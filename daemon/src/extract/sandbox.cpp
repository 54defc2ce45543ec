#include "extract/sandbox.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>

#include <seccomp.h>

namespace zarnd {
namespace extract {

namespace {

bool DropCapabilities() {
    for (int cap = 0; cap <= CAP_LAST_CAP; ++cap)
        if (prctl(PR_CAPBSET_DROP, cap, 0, 0, 0) != 0 && errno != EINVAL) return false;
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    return syscall(SYS_capset, &header, data) == 0;
}

// Root goes to `uid` without groups.  Inside a user namespace that does not
// map `uid` (the tests' sandbox), root stays root of that namespace only,
// without any capability.
bool DropPrivileges(uid_t uid, gid_t gid, std::string *problem) {
    if (geteuid() != 0) return true;  // unprivileged already: nothing to give up
    if (setgroups(0, nullptr) != 0 && errno != EPERM) {
        *problem = std::string("setgroups: ") + std::strerror(errno);
        return false;
    }
    if (setresgid(gid, gid, gid) == 0 && setresuid(uid, uid, uid) == 0) return true;
    if (errno != EINVAL) {
        *problem = std::string("cannot switch to uid ") + std::to_string(uid) + ": " + std::strerror(errno);
        return false;
    }
    if (!DropCapabilities()) {
        *problem = std::string("cannot drop capabilities: ") + std::strerror(errno);
        return false;
    }
    return true;
}

bool SetLimit(int resource, rlim_t value, std::string *problem) {
    const rlimit limit = {value, value};
    if (setrlimit(resource, &limit) == 0) return true;
    *problem = std::string("setrlimit: ") + std::strerror(errno);
    return false;
}

bool SetLimits(std::string *problem) {
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    // The sanitizers reserve terabytes of address space up front.
    if (!SetLimit(RLIMIT_AS, kWorkerMemoryBytes, problem)) return false;
#endif
    const rlimit cpu = {kWorkerCpuSeconds, kWorkerCpuSeconds + 10};  // SIGXCPU, then SIGKILL
    if (setrlimit(RLIMIT_CPU, &cpu) != 0) {
        *problem = std::string("setrlimit: ") + std::strerror(errno);
        return false;
    }
    return SetLimit(RLIMIT_FSIZE, kWorkerFileBytes, problem) && SetLimit(RLIMIT_CORE, 0, problem) &&
           SetLimit(RLIMIT_NOFILE, 16, problem);
}

// What parsing needs: reading and writing held descriptors, memory, time,
// signals to end.  Opening a path fails with EACCES, anything else with
// EPERM: the libraries see an error they handle, and nothing happens.
bool InstallFilter(std::string *problem) {
    scmp_filter_ctx filter = seccomp_init(SCMP_ACT_ERRNO(EPERM));
    if (filter == nullptr) {
        *problem = "seccomp_init failed";
        return false;
    }
    static const int kAllowed[] = {
        SCMP_SYS(read),          SCMP_SYS(write),         SCMP_SYS(readv),           SCMP_SYS(writev),
        SCMP_SYS(pread64),       SCMP_SYS(lseek),         SCMP_SYS(close),           SCMP_SYS(fstat),
        SCMP_SYS(mmap),          SCMP_SYS(munmap),        SCMP_SYS(mremap),          SCMP_SYS(mprotect),
        SCMP_SYS(brk),           SCMP_SYS(madvise),       SCMP_SYS(futex),           SCMP_SYS(exit),
        SCMP_SYS(exit_group),    SCMP_SYS(rt_sigreturn),  SCMP_SYS(rt_sigprocmask),  SCMP_SYS(rt_sigaction),
        SCMP_SYS(sigaltstack),   SCMP_SYS(clock_gettime), SCMP_SYS(clock_getres),    SCMP_SYS(gettimeofday),
        SCMP_SYS(getrusage),     SCMP_SYS(getpid),        SCMP_SYS(gettid),          SCMP_SYS(sched_yield),
        SCMP_SYS(getrandom),     SCMP_SYS(recvmsg),       SCMP_SYS(sendmsg),         SCMP_SYS(fcntl),
        SCMP_SYS(nanosleep),     SCMP_SYS(clock_nanosleep), SCMP_SYS(sysinfo),       SCMP_SYS(getuid),
        SCMP_SYS(geteuid),       SCMP_SYS(getgid),        SCMP_SYS(getegid),         SCMP_SYS(getgroups),
        SCMP_SYS(tgkill),        SCMP_SYS(restart_syscall), SCMP_SYS(poll),         SCMP_SYS(ppoll), SCMP_SYS(dup),          SCMP_SYS(dup2),
        SCMP_SYS(dup3),
    };
    int status = 0;
    for (int call : kAllowed) status |= seccomp_rule_add(filter, SCMP_ACT_ALLOW, call, 0);
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    // The sanitizers test whether memory is readable by writing it to a
    // pipe; refused, they report every object as invalid.
    status |= seccomp_rule_add(filter, SCMP_ACT_ALLOW, SCMP_SYS(pipe2), 0);
#endif
    // fstat through fstatat on a descriptor only, never a path.
    status |= seccomp_rule_add(filter, SCMP_ACT_ALLOW, SCMP_SYS(newfstatat), 1,
                               SCMP_A3(SCMP_CMP_MASKED_EQ, AT_EMPTY_PATH, AT_EMPTY_PATH));
    // Limits read, never set.
    status |= seccomp_rule_add(filter, SCMP_ACT_ALLOW, SCMP_SYS(prlimit64), 1, SCMP_A2(SCMP_CMP_EQ, 0));
    for (int call : {SCMP_SYS(open), SCMP_SYS(openat), SCMP_SYS(creat), SCMP_SYS(openat2)})
        status |= seccomp_rule_add(filter, SCMP_ACT_ERRNO(EACCES), call, 0);
    status |= seccomp_load(filter);
    seccomp_release(filter);
    if (status != 0) *problem = std::string("seccomp: ") + std::strerror(-status);
    return status == 0;
}

std::string Limit(int resource) {
    rlimit limit;
    if (getrlimit(resource, &limit) != 0) return "?";
    return limit.rlim_cur == RLIM_INFINITY ? "none" : std::to_string(limit.rlim_cur);
}

std::string Outcome(int result) { return result >= 0 ? "ok" : std::strerror(errno); }

}  // namespace

bool EnterSandbox(uid_t uid, gid_t gid, std::string *problem) {
    return DropPrivileges(uid, gid, problem) && prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) == 0 && SetLimits(problem) && InstallFilter(problem);
}

std::string ProbeSandbox() {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    syscall(SYS_capget, &header, data);
    const int groups = getgroups(0, nullptr);
    const int file = open("/etc/passwd", O_RDONLY);
    const std::string opened = Outcome(file);
    const int sock = socket(AF_INET, SOCK_STREAM, 0);
    const std::string socketed = Outcome(sock);
    return "uid=" + std::to_string(getuid()) + " gid=" + std::to_string(getgid()) + " groups=" + std::to_string(groups) +
           " caps=" + std::to_string(data[0].effective | data[0].permitted | data[1].effective | data[1].permitted) +
           " open=" + opened + " socket=" + socketed + " fsize=" + Limit(RLIMIT_FSIZE) + " as=" + Limit(RLIMIT_AS) +
           " cpu=" + Limit(RLIMIT_CPU);
}

}  // namespace extract
}  // namespace zarnd
