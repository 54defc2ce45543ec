// Search latency against a running daemon: each query of a fixed mix, many
// times, one connection per search as the library makes them.
//
//   zarnelasticd_bench SHARE ROUNDS
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <json/value.h>

#include "daemon_socket.h"
#include "json_text.h"
#include "zarnplatform.h"

namespace {

struct Query {
    const char *name;
    const char *text;
    unsigned uid;
    const char *sort;  // natural sort on this field, or null
    bool highlight;
};

const Query kQueries[] = {
    {"common word", "copyright", 0, nullptr, false},
    {"two words", "license software", 0, nullptr, false},
    {"phrase", "\"free software\"", 0, nullptr, false},
    {"wildcard", "lib*", 0, nullptr, false},
    {"field", "ZARNMDExtension:gz", 0, nullptr, false},
    {"natural sort", "copyright", 0, "ZARNMDFSName", false},
    {"as a user", "copyright", 1000, nullptr, false},
    {"highlight", "license software", 0, nullptr, true},
    {"everything", "*", 1000, "ZARNMDPath", false},
};

// Runs one search; the number of hits received, or -1.
int Search(const std::string &request) {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    const sockaddr_un address = [] {
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        std::strcpy(a.sun_path, zarn::kDaemonSocketPath);
        return a;
    }();
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        !zarndaemon::io::PacketWrite(fd, request)) {
        close(fd);
        return -1;
    }
    int hits = -1;
    std::string text;
    while (zarndaemon::io::PacketRead(fd, text)) {
        Json::Value reply;
        if (!zarn::json::FromString(text, &reply)) break;
        if (reply.isMember("success")) break;
        ++hits;
    }
    close(fd);
    return hits;
}

std::string Request(const std::string &share, const Query &q) {
    Json::Value request;
    request["command"] = "search";
    Json::Value &data = request["data"];
    data["indice"].append("fileindex_" + share);
    data["query_string"]["query"] = q.text;
    data["from"] = 0;
    data["size"] = 50;
    data["filters"][0]["name"] = "permission";
    data["filters"][0]["data"] = q.uid;
    data["collector"]["agent"] = "bench";
    data["collector"]["uid"] = q.uid;
    for (const char *f : {"ZARNMDPath", "ZARNMDFSName", "ZARNMDExtension", "ZARNMDIsDir"}) data["fields"].append(f);
    if (q.sort != nullptr) {
        data["sorter"][0]["field"] = q.sort;
        data["sorter"][0]["direction"] = "asc";
        data["sorter"][0]["nature_sort"] = true;
    }
    if (q.highlight) {
        data["highlight"][0]["field"] = "ZARNMDTextContent";
        data["highlight"][0]["frag_length"] = 350;
    }
    return zarn::json::ToString(request);
}

double Percentile(std::vector<double> sorted, double p) {
    std::sort(sorted.begin(), sorted.end());
    const size_t at = std::min(sorted.size() - 1, static_cast<size_t>(p * sorted.size()));
    return sorted[at];
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s SHARE ROUNDS\n", argv[0]);
        return 2;
    }
    const int rounds = std::atoi(argv[2]);
    std::vector<double> all;
    std::printf("%-14s %8s %10s %10s\n", "query", "hits", "median ms", "p99 ms");
    for (const Query &q : kQueries) {
        const std::string request = Request(argv[1], q);
        std::vector<double> times;
        int hits = 0;
        for (int i = 0; i < rounds; ++i) {
            const auto start = std::chrono::steady_clock::now();
            hits = Search(request);
            times.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
            if (hits < 0) {
                std::fprintf(stderr, "search failed: %s\n", q.name);
                return 1;
            }
        }
        std::printf("%-14s %8d %10.2f %10.2f\n", q.name, hits, Percentile(times, 0.5), Percentile(times, 0.99));
        all.insert(all.end(), times.begin(), times.end());
    }
    std::printf("%-14s %8zu %10.2f %10.2f\n", "all searches", all.size(), Percentile(all, 0.5), Percentile(all, 0.99));
    return 0;
}
