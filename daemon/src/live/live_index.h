// Keeps the index of every indexed folder current while the daemon runs: a
// thread of its own waits on the folders' watches, gathers the paths that
// changed until the changes pause, then rescans just those paths (a file, or
// a whole folder that was moved or given other permissions) and commits.
// When events are lost (the kernel's queue overflowed, or folders could not
// be watched) it rescans the whole share instead.  What could not be applied
// (an index that cannot be opened or written) stays pending and is retried,
// share by share, with a growing pause.
#ifndef ZARND_LIVE_INDEX_H
#define ZARND_LIVE_INDEX_H

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "folders.h"

namespace zarnd {

struct LiveOptions {
    std::string config_path = kFolderConfigPath;
    size_t max_watches = 0;  // a cap below the kernel's; 0 for none
    // A share with unwatched folders is rescanned this often, which also
    // tries their watches again.
    std::chrono::milliseconds rewatch_period = std::chrono::minutes(1);
};

class LiveIndex {
public:
    explicit LiveIndex(const LiveOptions &options);
    ~LiveIndex();  // stops the thread
    LiveIndex(const LiveIndex &) = delete;
    LiveIndex &operator=(const LiveIndex &) = delete;

    // Starts the thread: every share is rescanned and watched first.
    bool Start();
    // Returns at once when the thread is applying nothing, else once it
    // has committed what it applied so far (a rescan cut short is redone
    // whole at the next start).
    void Stop();

    class Loop;

private:
    const LiveOptions options_;
    std::unique_ptr<Loop> loop_;
    std::thread thread_;
    int stop_fd_ = -1;
    std::atomic<bool> stopping_{false};
};

}  // namespace zarnd

#endif  // ZARND_LIVE_INDEX_H
