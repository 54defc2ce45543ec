// The fairness rule of the listener (server.h): which complete request a
// free worker takes.  Each uid other than root may hold a bounded number of
// connections, and at most its share of the workers at once; a worker takes
// the oldest request whose uid is below its share, so that one user's flood
// leaves the other workers to everybody else.  Root is never limited.
#ifndef ZARND_SCHEDULER_H
#define ZARND_SCHEDULER_H

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <map>
#include <mutex>
#include <vector>

#include "protocol.h"

namespace zarnd {

using Clock = std::chrono::steady_clock;

struct Connection {
    int fd;
    Peer peer;
    Clock::time_point deadline;  // for the whole request, then for a worker
    bool partial;  // some bytes of the request are there, not all
};

// What the connections hold, under one lock shared by the loop and the
// workers: the complete requests waiting for a worker, and for each uid
// other than root its open connections (waiting, queued or served) and its
// requests in service.  Closing a connection closes its descriptor.
class Scheduler {
public:
    // `capacity` requests may wait for a worker; a uid holds at most
    // `max_per_user` connections and `share` requests in service.
    Scheduler(size_t capacity, size_t max_per_user, unsigned share)
        : capacity_(capacity), max_per_user_(max_per_user), share_(share) {}

    // Counts a new connection; false when its uid holds its cap already.
    bool Admit(uid_t uid);
    // Closes a connection that is not in service.
    void Close(const Connection &connection);
    // Queues in order of deadline, all being the same wait from now; false
    // when the queue is full or stopped.
    bool Push(const Connection &connection);
    // Takes out the requests that waited for a worker until their deadline.
    std::vector<Connection> Expired(Clock::time_point now);
    Clock::time_point NextExpiry();
    // The request that the rule picks, waiting for one; false once stopped.
    bool Pop(Connection *connection);
    // The same without waiting: false when no queued request may be taken.
    bool TryPop(Connection *connection);
    // Closes a connection that a worker has served.
    void Finish(const Connection &connection);
    // Wakes every worker; connections not yet served are closed unanswered.
    void Stop();

private:
    struct Held {
        size_t open = 0;
        unsigned serving = 0;
        bool warned = false;
    };

    bool TakeLocked(Connection *connection);
    void Release(uid_t uid, bool served);

    const size_t capacity_;
    const size_t max_per_user_;
    const unsigned share_;
    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<Connection> queue_;
    std::map<uid_t, Held> held_;
    bool stopped_ = false;
};

}  // namespace zarnd

#endif  // ZARND_SCHEDULER_H
