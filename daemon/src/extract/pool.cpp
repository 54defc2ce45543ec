#include "extract/pool.h"

#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "extract/channel.h"
#include "extract/sandbox.h"
#include "log.h"

namespace zarnd {
namespace extract {

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kWorkerName[] = "zarnelasticd-extract";

// The pool starts at its first use: the daemon forks into the background
// after main() has read its options, and threads do not survive a fork.
std::mutex g_mutex;
std::unique_ptr<PoolOptions> g_options;
std::unique_ptr<Pool> g_pool;

std::string HowItEnded(int status) {
    if (WIFSIGNALED(status)) {
        const int sig = WTERMSIG(status);
        if (sig == SIGXCPU) return "it used up its CPU time limit";
        return std::string("the worker died of signal ") + std::to_string(sig) + " (" + strsignal(sig) + ")";
    }
    if (WIFEXITED(status)) return "the worker exited with status " + std::to_string(WEXITSTATUS(status));
    return "the worker ended";
}

bool Executable(const std::string &path) { return !path.empty() && access(path.c_str(), X_OK) == 0; }

}  // namespace

Batch::Batch(Pool *pool) : pool_(pool) {}

Batch::~Batch() {
    while (pending_ > 0) Take(true);
}

void Batch::Submit(uint64_t tag, int fd, const Request &request) {
    ++pending_;
    pool_->Enqueue(Pool::Job{this, tag, fd, request});
}

std::vector<std::pair<uint64_t, Outcome>> Batch::Take(bool wait) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (wait && pending_ > 0) done_.wait(lock, [this] { return !finished_.empty(); });
    std::vector<std::pair<uint64_t, Outcome>> taken;
    taken.swap(finished_);
    pending_ -= taken.size();
    return taken;
}

void Batch::Finished(uint64_t tag, Outcome outcome) {
    std::lock_guard<std::mutex> lock(mutex_);
    finished_.emplace_back(tag, std::move(outcome));
    done_.notify_one();
}

Pool::Pool(const PoolOptions &options) : options_(options) {
    unsigned count = options.workers != 0 ? options.workers : std::thread::hardware_concurrency();
    if (count == 0) count = 1;
    for (unsigned i = 0; i < count; ++i) threads_.emplace_back([this] { Run(); });
}

Pool::~Pool() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    queued_.notify_all();
    for (std::thread &thread : threads_) thread.join();
}

void Pool::Enqueue(Job job) {
    std::unique_lock<std::mutex> lock(mutex_);
    room_.wait(lock, [this] { return queue_.size() < 2 * threads_.size(); });
    queue_.push_back(std::move(job));
    queued_.notify_one();
}

void Pool::Run() {
    Worker worker;
    std::string problem;  // the first file's outcome says it again
    if (options_.early) Spawn(&worker, &problem);
    for (;;) {
        // The worker finds its next file waiting when it replies; the pool
        // waits for work only with none in flight.
        Job job;
        while (worker.sent.size() < kInFlight && Next(&job, worker.sent.empty())) Send(&worker, std::move(job));
        if (worker.sent.empty()) break;
        Receive(&worker);
    }
    if (worker.pid > 0) Stop(&worker, false);
}

bool Pool::Next(Job *job, bool wait) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (wait) queued_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
    if (queue_.empty()) return false;
    *job = std::move(queue_.front());
    queue_.pop_front();
    room_.notify_one();
    return true;
}

void Pool::Finish(const Job &job, Outcome outcome) {
    close(job.fd);
    job.batch->Finished(job.tag, std::move(outcome));
}

void Pool::Send(Worker *worker, Job job) {
    Outcome outcome;
    if (worker->pid <= 0 && !Spawn(worker, &outcome.reason)) {
        outcome.failed = true;
        Finish(job, std::move(outcome));
        // Without a video worker the first one reads the other kinds still.
        worker->video = false;
        return;
    }
    if (worker->sent.empty()) worker->started = Clock::now();
    // A worker that is gone fails its first file in Receive.
    SendFrame(worker->sock, EncodeRequest(job.request), job.fd);
    worker->sent.push_back(std::move(job));
}

// The files sent behind the first go to a new worker.
void Pool::Resend(Worker *worker) {
    std::deque<Job> sent;
    sent.swap(worker->sent);
    for (Job &job : sent) Send(worker, std::move(job));
}

void Pool::Receive(Worker *worker) {
    Outcome outcome;
    std::string payload;
    const Received got = ReceiveFrame(worker->sock, &payload, nullptr, worker->started + options_.timeout);
    if (got == Received::kFrame && DecodeReply(payload, &outcome.reply)) {
        worker->started = Clock::now();
        if (outcome.reply.status == Status::kVideo && !worker->video) {
            // This thread's worker becomes the video worker for good.
            Stop(worker, true);
            worker->video = true;
            Resend(worker);
            return;
        }
        outcome.failed = outcome.reply.status == Status::kFailed;
        outcome.reason = outcome.reply.reason;
        const bool spent = outcome.reply.cpu_ms > kWorkerCpuSeconds * 500ull;
        Finish(worker->sent.front(), std::move(outcome));
        worker->sent.pop_front();
        // A worker past half its CPU time gives way before a file finds the
        // limit on its way.
        if (spent) {
            Stop(worker, true);
            Resend(worker);
        }
        return;
    }
    outcome.failed = true;
    if (got == Received::kTimeout) {
        Stop(worker, true);
        outcome.reason = "took longer than " + std::to_string(options_.timeout.count()) + " ms: the worker was stopped";
    } else if (got == Received::kFrame) {
        Stop(worker, true);
        outcome.reason = "the worker's reply was malformed";
    } else {
        outcome.reason = Stop(worker, false);
    }
    Finish(worker->sent.front(), std::move(outcome));
    worker->sent.pop_front();
    Resend(worker);
}

bool Pool::Spawn(Worker *worker, std::string *problem) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        *problem = std::string("cannot start a worker: ") + std::strerror(errno);
        return false;
    }
    // dup2 onto descriptor 3 clears close-on-exec, unless it is 3 already.
    int child_end = ends[1];
    if (child_end == 3) {
        child_end = fcntl(ends[1], F_DUPFD_CLOEXEC, 4);
        close(ends[1]);
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, child_end, 3);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    for (int sig : {SIGPIPE, SIGTERM, SIGINT, SIGHUP, SIGCHLD, SIGXCPU, SIGXFSZ}) sigaddset(&defaults, sig);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    const std::string uid = std::to_string(options_.uid), gid = std::to_string(options_.gid);
    const std::string program = worker->video ? VideoWorkerPath(options_.worker) : options_.worker;
    const char *argv[] = {program.c_str(), "--uid", uid.c_str(), "--gid", gid.c_str(), nullptr};
    pid_t pid = -1;
    const int error =
        posix_spawn(&pid, program.c_str(), &actions, &attributes, const_cast<char **>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    close(child_end);
    if (error != 0) {
        close(ends[0]);
        *problem = "cannot start " + program + ": " + std::strerror(error);
        return false;
    }
    worker->pid = pid;
    worker->sock = ends[0];
    return true;
}

std::string Pool::Stop(Worker *worker, bool kill_it) {
    if (kill_it) kill(worker->pid, SIGKILL);
    close(worker->sock);  // a worker that is well ends at the socket's end
    int status = 0;
    std::string how = "the worker ended";
    if (waitpid(worker->pid, &status, 0) == worker->pid) how = HowItEnded(status);
    worker->pid = -1;
    worker->sock = -1;
    return how;
}

std::string DefaultWorkerPath() {
    char self[4096];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) return std::string();
    std::string dir(self, static_cast<size_t>(n));
    dir.resize(dir.rfind('/') + 1);
    for (const std::string &candidate : {dir + kWorkerName, dir + "../libexec/" + kWorkerName})
        if (Executable(candidate)) return candidate;
    return std::string();
}

std::string VideoWorkerPath(const std::string &worker) { return worker + "-video"; }

Pool *ExtractionPool() {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (!g_pool && g_options) g_pool.reset(new Pool(*g_options));
    return g_pool.get();
}

bool StartExtraction(PoolOptions options) {
    if (!options.enabled) return false;
    if (options.worker.empty()) options.worker = DefaultWorkerPath();
    if (!Executable(options.worker)) {
        ZARN_LOG(LOG_WARNING, "no extraction worker (%s): documents are indexed without their content",
                 options.worker.empty() ? kWorkerName : options.worker.c_str());
        return false;
    }
    if (!Executable(VideoWorkerPath(options.worker)))
        ZARN_LOG(LOG_WARNING, "no video worker (%s): videos are indexed without their content",
                 VideoWorkerPath(options.worker).c_str());
    if (const passwd *nobody = getpwnam("nobody")) {
        options.uid = nobody->pw_uid;
        options.gid = nobody->pw_gid;
    }
    std::lock_guard<std::mutex> lock(g_mutex);
    g_options.reset(new PoolOptions(options));
    return true;
}

bool ParseExtractOption(int argc, char **argv, int *i, PoolOptions *options, bool *bad) {
    const bool workers = std::strcmp(argv[*i], "--extract-workers") == 0;
    if ((!workers && std::strcmp(argv[*i], "--extract-timeout") != 0) || *i + 1 >= argc) return false;
    char *end = nullptr;
    const double value = std::strtod(argv[++*i], &end);
    if (end == argv[*i] || *end != '\0') {
        *bad = true;
    } else if (workers) {
        *bad = !(value >= 0 && value <= 256 && value == static_cast<unsigned>(value));
        options->workers = static_cast<unsigned>(value);
        options->enabled = value != 0;
    } else {
        *bad = !(value >= 0.1 && value <= 3600);
        options->timeout = std::chrono::milliseconds(static_cast<long long>(value * 1000));
    }
    return true;
}

void StopExtraction() {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_pool.reset();
    g_options.reset();
}

}  // namespace extract
}  // namespace zarnd
