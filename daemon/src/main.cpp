// zarnelasticd: the search daemon, and its indexer.
//
//   zarnelasticd [--foreground] [--workers N] [--search-budget SECONDS]
//                [--shard-timeout SECONDS] [--no-live] [--max-watches N] [--debug]
//                [--extract-workers N] [--extract-timeout SECONDS]
//   zarnelasticd index [--progress | --quiet] [--share NAME [--shards SHARD,...]]
//                [--extract-workers N] [--extract-timeout SECONDS]
//   zarnelasticd --help | --version
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "engine.h"

#include "extract/pool.h"
#include "index_run.h"
#include "process.h"

namespace {

// "a,b,c" as its items; false when one is empty.
bool SplitList(const std::string &list, std::vector<std::string> *items) {
    items->clear();
    size_t at = 0;
    for (size_t comma; (comma = list.find(',', at)) != std::string::npos; at = comma + 1)
        items->push_back(list.substr(at, comma - at));
    items->push_back(list.substr(at));
    for (const std::string &item : *items)
        if (item.empty()) return false;
    return true;
}

void PrintUsage(FILE *out) {
    std::fprintf(out,
                 "usage: zarnelasticd [--foreground] [--workers N] [--search-budget SECONDS]\n"
                 "                    [--shard-timeout SECONDS] [--no-live] [--max-watches N] [--debug]\n"
                 "           --workers N              searches served at once (1 to 256, default 4);\n"
                 "                                    one user other than root gets half of them\n"
                 "           --search-budget SECONDS  time a search may work before it fails with\n"
                 "                                    503 (default %g, 0 for no limit, at most 3600)\n"
                 "           --shard-timeout SECONDS  time a shard on another machine may take to\n"
                 "                                    answer before the search fails with 503\n"
                 "                                    (default %g, 0.01 to 600)\n"
                 "           --no-live                no live indexing: indexes change only through\n"
                 "                                    'zarnelasticd index'\n"
                 "           --max-watches N          folders watched for live indexing at most (default:\n"
                 "                                    as many as fs.inotify.max_user_watches allows)\n"
                 "           --extract-workers N      documents read at once by extraction workers\n"
                 "                                    (1 to 256, default: one per core; 0: documents\n"
                 "                                    are indexed by name and metadata only)\n"
                 "           --extract-timeout SECONDS  time a worker may spend on one file before it is\n"
                 "                                    stopped and the file indexed without content\n"
                 "                                    (default 30)\n"
                 "       zarnelasticd index [--progress | --quiet] [--share NAME [--shards SHARD,...]]\n"
                 "                          [--extract-workers N] [--extract-timeout SECONDS]\n"
                 "           --share NAME             index this share only\n"
                 "           --shards SHARD,...       spread its index over these shards from now on,\n"
                 "                                    each HOST:PORT of a xapian-tcpsrv --writable\n"
                 "                                    or the absolute path of a local database,\n"
                 "                                    then its replicas, each after a '+'\n"
                 "       zarnelasticd --help | --version\n",
                 zarnd::kDefaultSearchBudgetS, zarnd::kDefaultShardTimeoutMs / 1000.0);
}

// A wrong command line: the usage on standard error, exit 2.
int Usage() {
    PrintUsage(stderr);
    return 2;
}

// --help and --version are requests, answered on standard output; -1 when
// `arg` is neither.
int Request(const char *arg) {
    if (std::strcmp(arg, "--help") == 0 || std::strcmp(arg, "-h") == 0) {
        PrintUsage(stdout);
        return 0;
    }
    if (std::strcmp(arg, "--version") == 0) {
        std::printf("zarnelasticd %s\n", ZARN_VERSION);
        return 0;
    }
    return -1;
}

int Index(int argc, char **argv) {
    zarnd::IndexOptions options;
    zarnd::extract::PoolOptions extraction;
    options.progress = isatty(STDERR_FILENO) == 1;
    for (int i = 2; i < argc; ++i) {
        bool bad = false;
        if (const int status = Request(argv[i]); status >= 0)
            return status;
        else if (zarnd::extract::ParseExtractOption(argc, argv, &i, &extraction, &bad)) {
            if (bad) return Usage();
        }
        else if (std::strcmp(argv[i], "--progress") == 0)
            options.progress = true;
        else if (std::strcmp(argv[i], "--quiet") == 0)
            options.progress = false;
        else if (std::strcmp(argv[i], "--share") == 0 && i + 1 < argc && *argv[i + 1] != '\0')
            options.share = argv[++i];
        else if (std::strcmp(argv[i], "--shards") == 0 && i + 1 < argc && SplitList(argv[i + 1], &options.shards))
            ++i;
        else
            return Usage();
    }
    // A layout belongs to one share: two shares in one database would mix.
    if (!options.shards.empty() && options.share.empty()) return Usage();
    openlog("zarnelasticd", LOG_PID, LOG_DAEMON);
    zarnd::RaiseDescriptorLimit();
    // The workers start while the index opens.
    extraction.early = true;
    zarnd::extract::StartExtraction(extraction);
    zarnd::extract::ExtractionPool();
    const int status = zarnd::RunIndexer(options);
    zarnd::extract::StopExtraction();
    return status;
}

int Serve(int argc, char **argv) {
    zarnd::ServerOptions options;
    bool debug = false;
    zarnd::extract::PoolOptions extraction;
    for (int i = 1; i < argc; ++i) {
        bool bad = false;
        if (const int status = Request(argv[i]); status >= 0) {
            return status;
        } else if (zarnd::extract::ParseExtractOption(argc, argv, &i, &extraction, &bad)) {
            if (bad) return Usage();
        } else if (std::strcmp(argv[i], "--foreground") == 0) {
            options.foreground = true;
        } else if (std::strcmp(argv[i], "--debug") == 0) {
            debug = true;
        } else if (std::strcmp(argv[i], "--workers") == 0 && i + 1 < argc) {
            char *end = nullptr;
            const long workers = std::strtol(argv[++i], &end, 10);
            if (*end != '\0' || workers < 1 || workers > 256) return Usage();
            options.workers = static_cast<unsigned>(workers);
        } else if (std::strcmp(argv[i], "--no-live") == 0) {
            options.live = false;
        } else if (std::strcmp(argv[i], "--max-watches") == 0 && i + 1 < argc) {
            char *end = nullptr;
            const long watches = std::strtol(argv[++i], &end, 10);
            if (*end != '\0' || watches < 1) return Usage();
            options.live_options.max_watches = static_cast<size_t>(watches);
        } else if (std::strcmp(argv[i], "--search-budget") == 0 && i + 1 < argc) {
            char *end = nullptr;
            const double budget = std::strtod(argv[++i], &end);
            if (end == argv[i] || *end != '\0' || !(budget >= 0 && budget <= 3600)) return Usage();
            options.limits.search_budget_s = budget;
        } else if (std::strcmp(argv[i], "--shard-timeout") == 0 && i + 1 < argc) {
            char *end = nullptr;
            const double timeout = std::strtod(argv[++i], &end);
            if (end == argv[i] || *end != '\0' || !(timeout >= 0.01 && timeout <= 600)) return Usage();
            options.limits.engine.shard_timeout_ms = static_cast<unsigned>(timeout * 1000);
        } else {
            return Usage();
        }
    }
    // In the foreground every log line is copied to standard error.
    openlog("zarnelasticd", LOG_PID | (options.foreground ? LOG_PERROR : 0), LOG_DAEMON);
    setlogmask(LOG_UPTO(debug ? LOG_DEBUG : LOG_INFO));
    zarnd::RaiseDescriptorLimit();
    // Only live indexing reads files: without it no worker is needed.
    if (options.live) zarnd::extract::StartExtraction(extraction);
    const int status = zarnd::RunServer(options);
    zarnd::extract::StopExtraction();
    return status;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc >= 2 && std::strcmp(argv[1], "index") == 0) return Index(argc, argv);
    return Serve(argc, argv);
}
