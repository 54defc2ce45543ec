// A scripted stand-in for the search daemon.  Destroying it shuts every
// socket down, which wakes each thread from its blocking call.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

#include <json/reader.h>
#include <json/writer.h>

#include "harness.h"
#include "zarnplatform.h"

namespace zarntest {

Step Send(const Json::Value &value) {
    Json::StreamWriterBuilder compact;
    compact["indentation"] = "";
    return Send(Json::writeString(compact, value));
}

Json::Value Hit(const std::string &path, int doc_id) {
    Json::Value hit(Json::objectValue);
    const std::string name = path.substr(path.rfind('/') + 1);  // npos + 1 is 0
    const size_t dot = name.rfind('.');
    hit["ZARNMDPath"] = path;
    hit["ZARNMDFSName"] = name;
    hit["ZARNMDExtension"] = dot == std::string::npos ? "" : name.substr(dot + 1);
    hit["ZARNMDIsDir"] = "n";
    hit["additional"]["doc_id"] = doc_id;
    return hit;
}

FakeDaemon::FakeDaemon(std::vector<Step> default_script) : default_script_(std::move(default_script)) {
    unlink(kDaemonSocket);
    listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {AF_UNIX, {}};
    std::strcpy(address.sun_path, kDaemonSocket);
    if (bind(listen_fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 || listen(listen_fd_, 64) != 0)
        throw std::runtime_error("fake daemon cannot listen");
    acceptor_ = std::thread(&FakeDaemon::Serve, this);
}

FakeDaemon::~FakeDaemon() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        for (int fd : fds_) shutdown(fd, SHUT_RDWR);
    }
    shutdown(listen_fd_, SHUT_RDWR);
    acceptor_.join();
    for (std::thread &worker : workers_) worker.join();
    close(listen_fd_);
    unlink(kDaemonSocket);
}

void FakeDaemon::Queue(std::vector<Step> script) {
    std::lock_guard<std::mutex> lock(mutex_);
    queued_.push_back(std::move(script));
}

void FakeDaemon::Serve() {
    for (;;) {
        const int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_ && fd >= 0) close(fd);
        if (stopping_) return;
        if (fd < 0) continue;
        const timeval minute = {60, 0};  // no wait lasts longer
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &minute, sizeof minute);
        std::vector<Step> script = queued_.empty() ? default_script_ : std::move(queued_.front());
        if (!queued_.empty()) queued_.erase(queued_.begin());
        seen_.emplace_back();
        fds_.push_back(fd);
        workers_.emplace_back(&FakeDaemon::Run, this, fd, fds_.size() - 1, std::move(script));
    }
}

// A connection whose script ends while open waits for the client to close
// it; its descriptor is closed under the lock, so that the destructor never
// shuts down a number already reused.
void FakeDaemon::Run(int fd, size_t index, std::vector<Step> script) {
    bool open = true, ours = false;  // ours: a Close step ended it
    for (auto step = script.begin(); open && step != script.end(); ++step) {
        std::string text;
        if (step->kind == Step::kSend) open = zarndaemon::io::PacketWrite(fd, step->data);
        if (step->kind == Step::kSendRaw)
            open = send(fd, step->data.data(), step->data.size(), MSG_NOSIGNAL) == ssize_t(step->data.size());
        if (step->kind == Step::kClose) open = !(ours = true);
        if (step->kind == Step::kReadRequest && (open = zarndaemon::io::PacketRead(fd, text))) {
            std::lock_guard<std::mutex> lock(mutex_);
            seen_[index].requests.push_back(text);
        }
    }
    std::unique_lock<std::mutex> lock(mutex_);
    ++finished_;
    changed_.notify_all();
    lock.unlock();
    char byte;
    while (open && recv(fd, &byte, 1, 0) > 0) {
    }
    lock.lock();
    seen_[index].peer_closed = !ours && !stopping_;
    close(fd);
    fds_[index] = -1;
    changed_.notify_all();
}

std::vector<Seen> FakeDaemon::Wait(size_t count, std::chrono::milliseconds timeout, bool closed) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, timeout, [&] {
        size_t n = 0;
        for (const Seen &s : seen_) n += s.peer_closed;
        return (closed ? n : finished_) >= count;
    });
    return seen_;
}

Json::Value FakeDaemon::Request(size_t index) {
    std::lock_guard<std::mutex> lock(mutex_);
    Json::Value value;
    if (index < seen_.size() && !seen_[index].requests.empty()) Json::Reader().parse(seen_[index].requests[0], value);
    return value;
}

size_t FakeDaemon::Accepted() { return WaitFinished(0).size(); }

}  // namespace zarntest
