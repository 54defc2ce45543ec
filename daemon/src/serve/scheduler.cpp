#include "scheduler.h"

#include <unistd.h>

#include <algorithm>

#include "log.h"

namespace zarnd {

bool Scheduler::Admit(uid_t uid) {
    if (uid == 0) return true;
    std::lock_guard<std::mutex> lock(mutex_);
    Held &held = held_[uid];
    if (held.open >= max_per_user_) {
        // Once per episode: a flood would otherwise flood the log too.
        if (!held.warned)
            ZARN_LOG(LOG_WARNING, "uid %u holds %zu connections: refusing more", static_cast<unsigned>(uid),
                     held.open);
        held.warned = true;
        return false;
    }
    ++held.open;
    return true;
}

void Scheduler::Close(const Connection &connection) {
    close(connection.fd);
    std::lock_guard<std::mutex> lock(mutex_);
    Release(connection.peer.uid, false);
}

bool Scheduler::Push(const Connection &connection) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopped_ || queue_.size() >= capacity_) return false;
    queue_.push_back(connection);
    ready_.notify_one();
    return true;
}

std::vector<Connection> Scheduler::Expired(Clock::time_point now) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Connection> expired;
    for (; !queue_.empty() && queue_.front().deadline <= now; queue_.pop_front())
        expired.push_back(queue_.front());
    return expired;
}

Clock::time_point Scheduler::NextExpiry() {
    std::lock_guard<std::mutex> lock(mutex_);
    return queue_.empty() ? Clock::time_point::max() : queue_.front().deadline;
}

bool Scheduler::Pop(Connection *connection) {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        if (stopped_) return false;
        if (TakeLocked(connection)) return true;
        ready_.wait(lock);
    }
}

bool Scheduler::TryPop(Connection *connection) {
    std::lock_guard<std::mutex> lock(mutex_);
    return !stopped_ && TakeLocked(connection);
}

void Scheduler::Finish(const Connection &connection) {
    close(connection.fd);
    std::lock_guard<std::mutex> lock(mutex_);
    Release(connection.peer.uid, true);
    ready_.notify_all();  // a request of this uid may now be taken
}

void Scheduler::Stop() {
    std::lock_guard<std::mutex> lock(mutex_);
    stopped_ = true;
    for (const Connection &connection : queue_) {
        close(connection.fd);
        Release(connection.peer.uid, false);
    }
    queue_.clear();
    ready_.notify_all();
}

// The oldest request whose uid is below its share; the lock is held.
bool Scheduler::TakeLocked(Connection *connection) {
    const auto next = std::find_if(queue_.begin(), queue_.end(), [this](const Connection &queued) {
        return queued.peer.uid == 0 || held_[queued.peer.uid].serving < share_;
    });
    if (next == queue_.end()) return false;
    *connection = *next;
    queue_.erase(next);
    if (connection->peer.uid != 0) ++held_[connection->peer.uid].serving;
    return true;
}

void Scheduler::Release(uid_t uid, bool served) {
    if (uid == 0) return;
    Held &held = held_[uid];
    if (served) --held.serving;
    if (--held.open == 0) held_.erase(uid);
}

}  // namespace zarnd
