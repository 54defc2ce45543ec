// Test harness: a private sandbox for the library's fixed paths, a scripted
// fake search daemon, and capture of the library's syslog lines.
#ifndef ZARN_TEST_HARNESS_H
#define ZARN_TEST_HARNESS_H

#include <syslog.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include <json/value.h>

namespace zarntest {

constexpr char kDaemonSocket[] = "/var/run/zarnelasticd.sock";
constexpr char kFolderConfig[] = "/var/packages/Norvex/etc/fileindex.folders";

// syslog and its fortified forms are replaced in every test executable; each
// line is kept with its priority, "%m" already expanded.
struct LogLine { int priority; std::string text; };
std::vector<LogLine> Logs();
void ClearLogs();
// Lines whose text matches the ECMAScript regular expression `pattern`.
std::vector<LogLine> LogsMatching(const std::string &pattern);
// Expects no log line when `pattern` is null, else exactly one, matching it,
// of `priority`.
void ExpectOneLog(const char *pattern, int priority = LOG_ERR);

void WriteFile(const std::string &path, const std::string &content);
// Writes a share table ("name\tpath" lines) and points the platform stand-in at it.
void SetShareTable(const std::vector<std::pair<std::string, std::string>> &shares);

// One step of what the fake daemon does on a connection: read a packet and
// keep it, send a framed packet or raw bytes, or close now.
struct Step { enum Kind { kReadRequest, kSend, kSendRaw, kClose } kind; std::string data; };
inline Step ReadRequest() { return {Step::kReadRequest, ""}; }
inline Step Send(const std::string &json_text) { return {Step::kSend, json_text}; }
inline Step Send(const char *json_text) { return {Step::kSend, json_text}; }
Step Send(const Json::Value &value);
inline Step SendRaw(const std::string &bytes) { return {Step::kSendRaw, bytes}; }
inline Step Close() { return {Step::kClose, ""}; }

// A connection as the daemon saw it: the raw texts of the packets read, and
// whether the client closed the connection.
struct Seen { std::vector<std::string> requests; bool peer_closed = false; };

// Listens on kDaemonSocket (inside the sandbox).  Each connection runs the
// next queued script, or the default one; after its last step it stays open,
// silent, until the client closes it.  No wait lasts beyond a minute.
class FakeDaemon {
public:
    static constexpr std::chrono::seconds kMinute{60};
    explicit FakeDaemon(std::vector<Step> default_script = {ReadRequest()});
    ~FakeDaemon();
    void Queue(std::vector<Step> script);
    // Wait (at most `timeout`) until `count` connections have finished their
    // scripts, or have been closed by the client; return what all saw so far.
    std::vector<Seen> WaitFinished(size_t count, std::chrono::milliseconds timeout = kMinute) { return Wait(count, timeout, 0); }
    std::vector<Seen> WaitClosed(size_t count, std::chrono::milliseconds timeout = kMinute) { return Wait(count, timeout, 1); }
    // The first request of connection `index` as JSON (null when none).
    Json::Value Request(size_t index = 0);
    size_t Accepted();

private:
    void Serve();
    void Run(int fd, size_t index, std::vector<Step> script);
    std::vector<Seen> Wait(size_t count, std::chrono::milliseconds timeout, bool closed);

    int listen_fd_ = -1;
    std::vector<Step> default_script_;
    std::vector<std::vector<Step>> queued_;
    std::vector<Seen> seen_;
    std::vector<int> fds_;  // of the connections, -1 once closed
    size_t finished_ = 0;  // connections through their scripts
    bool stopping_ = false;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::thread> workers_;
    std::thread acceptor_;
};

// A hit packet as the daemon sends it.
Json::Value Hit(const std::string &path, int doc_id);

}  // namespace zarntest

#endif  // ZARN_TEST_HARNESS_H
