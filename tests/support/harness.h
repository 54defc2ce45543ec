// Test harness: a private sandbox for the library's fixed paths, a scripted
// fake search daemon, and capture of the library's syslog lines.
#ifndef ZARN_TEST_HARNESS_H
#define ZARN_TEST_HARNESS_H

#include <syslog.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <json/value.h>

namespace zarntest {

constexpr char kDaemonSocket[] = "/var/run/zarnelasticd.sock";
constexpr char kFolderConfig[] = "/var/packages/Norvex/etc/fileindex.folders";

// ---- syslog capture ------------------------------------------------------
// syslog, vsyslog and their fortified forms are replaced in every test
// executable; each line is kept with its priority, "%m" already expanded.
struct LogLine {
    int priority;
    std::string text;
};
std::vector<LogLine> Logs();
void ClearLogs();
// Lines whose text matches the ECMAScript regular expression `pattern`.
std::vector<LogLine> LogsMatching(const std::string &pattern);
// Expects no log line at all when `pattern` is null, else exactly one, which
// matches `pattern` and has `priority`.
void ExpectOneLog(const char *pattern, int priority = LOG_ERR);

// ---- files ---------------------------------------------------------------
void WriteFile(const std::string &path, const std::string &content);
// Writes a share table ("name\tpath" lines) to a private file and points the
// platform stand-in at it.
void SetShareTable(const std::vector<std::pair<std::string, std::string>> &shares);

// ---- fake daemon ---------------------------------------------------------
// One step of what the daemon does on a connection.
struct Step {
    enum Kind { kReadRequest, kSend, kSendRaw, kClose } kind;
    std::string data;  // packet text (kSend) or raw bytes (kSendRaw)
};
Step ReadRequest();                       // read one packet and record it
Step Send(const std::string &json_text);  // one framed packet
Step Send(const char *json_text);
Step Send(const Json::Value &value);
Step SendRaw(const std::string &bytes);  // bytes as they are, unframed
Step Close();                            // close the connection now

// A connection as the daemon saw it: the raw texts of the packets read.
struct Seen {
    std::vector<std::string> requests;
};

// Listens on kDaemonSocket (inside the sandbox).  Each accepted connection
// runs the next queued script, or the default script when none is queued.
// After its last step a connection stays open, silent, until the client
// closes it or the daemon is destroyed.  No wait lasts beyond a minute.
class FakeDaemon {
public:
    explicit FakeDaemon(std::vector<Step> default_script = {ReadRequest()});
    ~FakeDaemon();
    FakeDaemon(const FakeDaemon &) = delete;
    FakeDaemon &operator=(const FakeDaemon &) = delete;

    void Queue(std::vector<Step> script);
    // Waits (at most `timeout`) until `count` connections have finished
    // their scripts, then returns what every connection saw so far.
    std::vector<Seen> WaitFinished(size_t count,
                                   std::chrono::milliseconds timeout = std::chrono::seconds(30));
    // The first request of connection `index` as JSON (null when none).
    Json::Value Request(size_t index = 0);
    size_t Accepted();

private:
    void Serve();
    void RunConnection(int fd, size_t index, std::vector<Step> script);
    void CloseConnection(size_t index);

    int listen_fd_ = -1;
    std::vector<Step> default_script_;
    std::deque<std::vector<Step>> queued_;
    std::vector<Seen> seen_;
    std::vector<int> fds_;  // of the connections, -1 once closed
    size_t finished_ = 0;
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
