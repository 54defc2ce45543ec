// A stand-in search daemon for the benchmarks, on the daemon's socket (inside
// the sandbox).  It answers every connection from packets serialised before
// the clock starts, so that the client's cost is what is measured:
//  - a request whose text holds SearchTag(n, set): a header {"total": n},
//    n hits of that set and an end packet {"success": true};
//  - a document request: DocumentReplyText();
//  - anything else: {"success": false}.
// After the reply it closes the connection.  It runs as a child process (this
// executable started again with --serve), so the client's heap, resident set
// and instruction counts are its own.
#ifndef ZARN_BENCH_SERVER_H
#define ZARN_BENCH_SERVER_H

#include <sys/types.h>

#include <functional>
#include <string>

namespace zarnbench {

constexpr char kServeFlag[] = "--serve";

// The body of `--serve`: listens and answers, one connection at a time, until
// killed or its parent exits.
int ServeMain();

class BenchServer {
public:
    BenchServer();  // starts the child and waits until it accepts
    ~BenchServer();
    BenchServer(const BenchServer &) = delete;
    BenchServer &operator=(const BenchServer &) = delete;
    bool Running() const { return pid_ > 0; }

private:
    pid_t pid_ = -1;
};

// Listens on the daemon socket for one connection, runs `client`, and returns
// the text of the first packet that the client wrote (empty when none came).
// The client gets {"success": false} back.
std::string CaptureRequest(const std::function<void()> &client);

// A bare client: connects to the daemon socket, writes `framed` with one
// write, reads until the server closes.  The bytes read, or -1.
long BareExchange(const std::string &framed);

// `text` with its 4-byte big-endian length in front, as one packet.
std::string Framed(const std::string &text);

// A connected stream socket to the daemon socket, or -1.
int ConnectToDaemon();

}  // namespace zarnbench

#endif  // ZARN_BENCH_SERVER_H
