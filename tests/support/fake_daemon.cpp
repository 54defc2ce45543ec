// A scripted stand-in for the search daemon, listening on the daemon's socket
// inside the test sandbox.
#include <errno.h>
#include <poll.h>
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

namespace {

constexpr int kPollSliceMillis = 20;
constexpr int kMaxWaitMillis = 60 * 1000;  // no connection outlives a minute

// Waits until fd is readable, in slices so that a stopping daemon notices.
// False when `stopping` became true or the wait ran out.
bool WaitReadable(int fd, const bool &stopping, std::mutex &mutex) {
    for (int waited = 0; waited < kMaxWaitMillis; waited += kPollSliceMillis) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (stopping) return false;
        }
        pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, kPollSliceMillis) > 0) return true;
    }
    return false;
}

}  // namespace

Step ReadRequest() { return {Step::kReadRequest, "", 0, nullptr}; }
Step Send(const std::string &json_text) { return {Step::kSend, json_text, 0, nullptr}; }
Step Send(const char *json_text) { return Send(std::string(json_text)); }
Step Send(const Json::Value &value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Send(Json::writeString(builder, value));
}
Step SendRaw(const std::string &bytes) { return {Step::kSendRaw, bytes, 0, nullptr}; }
Step Sleep(int millis) { return {Step::kSleep, "", millis, nullptr}; }
Step Close() { return {Step::kClose, "", 0, nullptr}; }
Step Respond(Responder responder) { return {Step::kRespond, "", 0, std::move(responder)}; }

namespace {

Json::Value Parse(const std::string &text) {
    Json::Value value;
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) return Json::Value();
    return value;
}

}  // namespace

Json::Value Hit(const std::string &path, int doc_id) {
    Json::Value hit(Json::objectValue);
    const size_t slash = path.rfind('/');
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    const size_t dot = name.rfind('.');
    hit["ZARNMDPath"] = path;
    hit["ZARNMDFSName"] = name;
    hit["ZARNMDExtension"] = dot == std::string::npos ? "" : name.substr(dot + 1);
    hit["ZARNMDIsDir"] = "n";
    hit["additional"]["doc_id"] = doc_id;
    return hit;
}

FakeDaemon::FakeDaemon(std::vector<Step> default_script)
    : default_script_(std::move(default_script)) {
    unlink(kDaemonSocket);
    listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address;
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, kDaemonSocket);
    if (listen_fd_ < 0 ||
        bind(listen_fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        listen(listen_fd_, 64) != 0) {
        throw std::runtime_error(std::string("fake daemon cannot listen: ") + strerror(errno));
    }
    acceptor_ = std::thread(&FakeDaemon::Serve, this);
}

FakeDaemon::~FakeDaemon() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
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
    while (WaitReadable(listen_fd_, stopping_, mutex_)) {
        const int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<Step> script = default_script_;
        if (!queued_.empty()) {
            script = std::move(queued_.front());
            queued_.pop_front();
        }
        seen_.emplace_back();
        workers_.emplace_back(&FakeDaemon::RunConnection, this, fd, seen_.size() - 1,
                              std::move(script));
        changed_.notify_all();
    }
}

void FakeDaemon::RunConnection(int fd, size_t index, std::vector<Step> script) {
    bool open = true;
    for (const Step &step : script) {
        if (step.kind == Step::kReadRequest || step.kind == Step::kRespond) {
            std::string text;
            open = WaitReadable(fd, stopping_, mutex_) && zarndaemon::io::PacketRead(fd, text);
            {
                std::lock_guard<std::mutex> lock(mutex_);
                if (open) seen_[index].requests.push_back(text);
                else seen_[index].peer_closed = true;
            }
            if (open && step.kind == Step::kRespond) {
                for (const std::string &packet : step.responder(Parse(text)))
                    if (!(open = zarndaemon::io::PacketWrite(fd, packet))) break;
            }
        } else if (step.kind == Step::kSend) {
            open = zarndaemon::io::PacketWrite(fd, step.data);
        } else if (step.kind == Step::kSendRaw) {
            open = send(fd, step.data.data(), step.data.size(), MSG_NOSIGNAL) ==
                   static_cast<ssize_t>(step.data.size());
        } else if (step.kind == Step::kSleep) {
            for (int slept = 0; slept < step.millis; slept += kPollSliceMillis) {
                std::lock_guard<std::mutex> lock(mutex_);
                if (stopping_) break;
                usleep(kPollSliceMillis * 1000);
            }
        } else {
            open = false;
        }
        if (!open) break;
    }
    if (!open) close(fd);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++finished_;
        changed_.notify_all();
    }
    if (!open) return;
    // Stay silent until the client closes.  A close that leaves our packets
    // unread shows up here as ECONNRESET.
    char byte;
    while (WaitReadable(fd, stopping_, mutex_)) {
        const ssize_t n = recv(fd, &byte, 1, 0);
        if (n > 0) continue;
        std::lock_guard<std::mutex> lock(mutex_);
        seen_[index].peer_closed = true;
        seen_[index].unread_at_close = n < 0 && errno == ECONNRESET;
        break;
    }
    close(fd);
}

std::vector<Seen> FakeDaemon::WaitFinished(size_t count, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, timeout, [&] { return finished_ >= count; });
    return seen_;
}

std::vector<Seen> FakeDaemon::WaitClosed(size_t count, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        std::vector<Seen> seen;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            seen = seen_;
        }
        size_t closed = 0;
        for (const Seen &s : seen) closed += s.peer_closed ? 1 : 0;
        if (closed >= count || std::chrono::steady_clock::now() >= deadline) return seen;
        usleep(kPollSliceMillis * 1000);
    }
}

Json::Value FakeDaemon::Request(size_t index) {
    std::string text;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (index >= seen_.size() || seen_[index].requests.empty()) return Json::Value();
        text = seen_[index].requests[0];
    }
    return Parse(text);
}

size_t FakeDaemon::Accepted() {
    std::lock_guard<std::mutex> lock(mutex_);
    return seen_.size();
}

}  // namespace zarntest
