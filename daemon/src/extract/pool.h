// The daemon's and the indexer's side of extraction: a pool of workers
// (zarnelasticd-extract), one thread each, that take files from a queue,
// hand each to the worker as an open descriptor and wait for its reply up
// to a time limit.  A worker that dies, hangs or answers wrongly is killed
// and replaced; that file's outcome says why.
#ifndef ZARND_EXTRACT_POOL_H
#define ZARND_EXTRACT_POOL_H

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "extract/wire.h"

namespace zarnd {
namespace extract {

struct PoolOptions {
    bool enabled = true;  // false: documents are indexed by name and metadata only
    std::string worker;  // the worker program; "" for DefaultWorkerPath()
    unsigned workers = 0;  // 0: one per core
    std::chrono::milliseconds timeout{30000};  // per file
    uid_t uid = 65534;  // where a worker started by root goes
    gid_t gid = 65534;
    // Workers start with the pool rather than at their first file: a batch
    // run, which has files for them at once.
    bool early = false;
};

struct Outcome {
    bool failed = false;
    std::string reason;  // failed: why, for the log
    Reply reply;         // the worker's reply when it gave one
};

class Pool;

// One caller's jobs and their outcomes (a walk of the indexer).  Used from
// one thread.
class Batch {
public:
    explicit Batch(Pool *pool);
    ~Batch();  // waits for the jobs it submitted
    Batch(const Batch &) = delete;
    Batch &operator=(const Batch &) = delete;

    // Hands the open file `fd` (closed by the pool) to a worker; waits
    // while the pool's queue is full.
    void Submit(uint64_t tag, int fd, const Request &request);
    // The outcomes of finished jobs: those ready, or, when `wait`, at least
    // one while any job is pending.
    std::vector<std::pair<uint64_t, Outcome>> Take(bool wait);
    size_t pending() const { return pending_; }

private:
    friend class Pool;
    void Finished(uint64_t tag, Outcome outcome);

    Pool *pool_;
    size_t pending_ = 0;  // the caller's count
    std::mutex mutex_;
    std::condition_variable done_;
    std::vector<std::pair<uint64_t, Outcome>> finished_;
};

class Pool {
public:
    explicit Pool(const PoolOptions &options);
    ~Pool();  // lets the workers finish their files, then stops them
    Pool(const Pool &) = delete;
    Pool &operator=(const Pool &) = delete;

    const PoolOptions &options() const { return options_; }

private:
    friend class Batch;
    struct Job {
        Batch *batch;
        uint64_t tag;
        int fd;
        Request request;
    };
    struct Worker {
        pid_t pid = -1;
        int sock = -1;
        // The video worker, once a video came: it reads every kind, and
        // starts slower.
        bool video = false;
        // Files sent and not answered, in the order the worker reads them;
        // the first's time runs from `started`.
        std::deque<Job> sent;
        std::chrono::steady_clock::time_point started;
    };
    // Files sent to a worker ahead of its replies.
    static constexpr size_t kInFlight = 2;

    void Enqueue(Job job);
    void Run();
    // The queue's next job; false when there is none (after waiting for
    // one, when `wait`, unless the pool stops).
    bool Next(Job *job, bool wait);
    void Send(Worker *worker, Job job);
    void Resend(Worker *worker);
    // The reply to the first file sent, or its failure.
    void Receive(Worker *worker);
    void Finish(const Job &job, Outcome outcome);
    bool Spawn(Worker *worker, std::string *problem);
    // Ends the worker: kills it when `kill`, and says how it ended.
    std::string Stop(Worker *worker, bool kill);

    const PoolOptions options_;
    std::mutex mutex_;
    std::condition_variable queued_;
    std::condition_variable room_;
    std::deque<Job> queue_;
    bool stopping_ = false;
    std::vector<std::thread> threads_;
};

// zarnelasticd-extract beside the running program, or in ../libexec from
// it (an installed tree); "" when neither exists.
std::string DefaultWorkerPath();
// The video worker's program, beside `worker`'s.
std::string VideoWorkerPath(const std::string &worker);

// The process's pool, set up by main() for the daemon and the indexer and
// started at its first use;
// null when extraction is off (no worker program, or never started).
Pool *ExtractionPool();
// False when extraction is not enabled, or, with a log line, when the
// worker program is missing.
bool StartExtraction(PoolOptions options);

// --extract-workers N (0: not enabled) and --extract-timeout SECONDS, as
// argv[*i] and its value, into *options (*i moves past the value).  False
// when argv[*i] is neither; *bad is set for a value out of range.
bool ParseExtractOption(int argc, char **argv, int *i, PoolOptions *options, bool *bad);
void StopExtraction();

}  // namespace extract
}  // namespace zarnd

#endif  // ZARND_EXTRACT_POOL_H
