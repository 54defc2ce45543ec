// "search" and "count": full-text searches through the streaming API, or
// through the callback search.
#include <limits.h>
#include <stdio.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "cli.h"
#include "hit_output.h"
#include "zarncontentsearchutils.h"

namespace zarncli {

namespace {

const char kDefaultAgent[] = "zarnsearch";

struct HandleCloser {
    void operator()(ZARNQueryHandle *handle) const { ZARNQueryConnectionClose(handle); }
};
using HandlePtr = std::unique_ptr<ZARNQueryHandle, HandleCloser>;

struct RecordFreer {
    void operator()(_tag_search_record *record) const { ZARNQueryFreeRecord(record); }
};
using RecordPtr = std::unique_ptr<_tag_search_record, RecordFreer>;

struct Search {
    const char *share = nullptr;
    const char *query = nullptr;
    long page = 0;
    long size = 20;
    std::vector<std::string> sort_fields;
    std::vector<ZARNQuerySorter> sorters;  // fields point into sort_fields
    long timeout = -1;                     // seconds; -1 waits on each read
    ConnectionFlag flags = CONNECTION_FLAG_NONE;
    unsigned int uid = 0;
    const char *agent = kDefaultAgent;
};

// --uid and --agent, shared by both commands.
bool ParseIdentity(const Args &args, Search *search) {
    long uid = (long)getuid();
    if (!NumberOption(args, "uid", 0, UINT_MAX, &uid)) return false;
    search->uid = (unsigned int)uid;
    if (const std::string *agent = args.Value("agent")) search->agent = agent->c_str();
    return true;
}

// FIELD[:asc|:desc][:natural]
bool ParseSorter(const std::string &text, std::string *field, ZARNQuerySorter *sorter) {
    const size_t colon = text.find(':');
    if (colon == 0 || text.empty()) return false;
    *field = text.substr(0, colon);
    sorter->options = 0;
    for (size_t at = colon; at != std::string::npos;) {
        const size_t next = text.find(':', at + 1);
        const std::string modifier = text.substr(at + 1, next == std::string::npos
                                                             ? std::string::npos
                                                             : next - at - 1);
        if (modifier == "desc")
            sorter->options |= SORTER_OPTION_DESC;
        else if (modifier == "natural")
            sorter->options |= SORTER_OPTION_NATURE_SORT;
        else if (modifier != "asc")
            return false;
        at = next;
    }
    return true;
}

int ParseSearch(const Args &args, Search *search) {
    search->share = args.words[0].c_str();
    search->query = args.words[1].c_str();
    if (!NumberOption(args, "page", 0, INT_MAX, &search->page) ||
        !NumberOption(args, "size", 1, INT_MAX, &search->size) ||
        !NumberOption(args, "timeout", 0, 86400, &search->timeout) || !ParseIdentity(args, search))
        return kExitUsage;
    // The first hit's index travels as a signed 32-bit number.
    if (search->page > INT_MAX / search->size)
        return UsageError(args, "--page times --size exceeds " + std::to_string(INT_MAX));
    auto sorts = args.options.find("sort");
    if (sorts != args.options.end()) {
        for (const std::string &text : sorts->second) {
            std::string field;
            ZARNQuerySorter sorter;
            if (!ParseSorter(text, &field, &sorter))
                return UsageError(args, "--sort needs FIELD[:asc|:desc][:natural], not '" +
                                            text + "'");
            search->sort_fields.push_back(field);
            search->sorters.push_back(sorter);
        }
        // Both vectors are complete: the field texts stay put from here on.
        for (size_t i = 0; i < search->sorters.size(); ++i)
            search->sorters[i].field = search->sort_fields[i].c_str();
    }
    if (args.Has("highlight")) search->flags = CONNECTION_FLAG_HIGHLIGHT;
    return kExitOk;
}

// Init and Open on a fresh handle; *handle owns it whatever happens.
int OpenSearch(const Args &args, const Search &search, HandlePtr *handle) {
    ZARNQueryHandle *raw = nullptr;
    int code = ZARNQueryConnectionInit(&raw);
    handle->reset(raw);
    if (code != ZARN_OK) return LibraryFailure(args, "connecting to the search daemon", code);
    code = ZARNQueryConnectionOpen(raw, search.share, search.query,
                                   const_cast<ZARNQuerySorter *>(search.sorters.data()),
                                   (int)search.sorters.size(), (int)search.page,
                                   (int)search.size, search.agent, search.uid, search.flags);
    if (code != ZARN_OK) return LibraryFailure(args, "sending the search", code);
    return kExitOk;
}

// A reply that opens with an error instead of the total reads as a total of
// 0 followed by a failed read: say what that most likely means.
int ReadFailure(const Args &args, const char *what, int code, int total, size_t hits) {
    LibraryFailure(args, what, code);
    if (total == 0 && hits == 0 && code == ZARN_ERR_READ)
        Failure(args, "the daemon's answer held no total: it refused the request "
                      "(-v shows its answer)");
    return kExitFailure;
}

int StreamHits(const Args &args, const Search &search, HitPrinter *printer) {
    HandlePtr handle;
    const int status = OpenSearch(args, search, &handle);
    if (status != kExitOk) return status;
    const int total = ZARNQueryCount(handle.get());
    printer->Total(total);

    if (search.timeout >= 0) {
        // The end, a time-out and a failure all look alike here.
        const struct timeval wait = {search.timeout, 0};
        while (RecordPtr record{ZARNQueryFetchNext(handle.get(), wait)}) printer->Add(*record);
        printer->Finish();
        const long from = search.page * search.size;
        const long expected = total > from ? std::min<long>(search.size, total - from) : 0;
        if ((long)printer->count() < expected)
            fprintf(stderr,
                    "zarnsearch search: warning: %zu of %ld hits arrived; the wait ran out, "
                    "or the daemon stopped early\n",
                    printer->count(), expected);
        return kExitOk;
    }
    for (;;) {
        _tag_search_record *raw = nullptr;
        const int code = ZARNQueryGetNextRecord(handle.get(), &raw);
        RecordPtr record(raw);
        if (code != ZARN_OK) {
            printer->Finish();
            return ReadFailure(args, "reading the hits", code, total, printer->count());
        }
        if (!record) break;
        printer->Add(*record);
    }
    printer->Finish();
    return kExitOk;
}

struct CallbackState {
    HitPrinter *printer;
    bool out_of_memory;
};

bool OnHit(const _tag_search_record *record, void *user_data) {
    CallbackState *state = static_cast<CallbackState *>(user_data);
    try {
        state->printer->Add(*record);
        return true;
    } catch (const std::bad_alloc &) {
        state->out_of_memory = true;  // no exception may cross the library
        return false;
    }
}

int CallbackHits(const Args &args, const Search &search, HitPrinter *printer) {
    CallbackState state = {printer, false};
    int code = ZARN_OK;
    const int ok = ZARNSearchQuerySend(search.share, search.query, (int)search.size,
                                       (int)search.page, OnHit, &state, search.agent,
                                       search.uid, &code);
    printer->Finish();
    if (state.out_of_memory) return LibraryFailure(args, "keeping the hits", ZARN_ERR_NO_MEMORY);
    if (!ok) return LibraryFailure(args, "the search", code);
    return kExitOk;
}

int RunSearch(const Args &args) {
    Search search;
    const int status = ParseSearch(args, &search);
    if (status != kExitOk) return status;
    const bool json = args.Has("json");
    // A terminal gets a table as wide as it is; elsewhere the texts stay whole.
    const bool terminal = !json && isatty(STDOUT_FILENO);
    HitPrinter printer(json, terminal, terminal ? TerminalWidth() : 0);
    if (!args.Has("callback")) return StreamHits(args, search, &printer);
    // The callback search asks for no order, highlight or time-out.
    for (const char *option : {"sort", "highlight", "timeout"})
        if (args.Has(option))
            return UsageError(args, std::string("--") + option + " does not go with --callback");
    return CallbackHits(args, search, &printer);
}

int RunCount(const Args &args) {
    Search search;
    search.share = args.words[0].c_str();
    search.query = args.words[1].c_str();
    search.size = 1;
    if (!ParseIdentity(args, &search)) return kExitUsage;
    HandlePtr handle;
    const int status = OpenSearch(args, search, &handle);
    if (status != kExitOk) return status;
    const int total = ZARNQueryCount(handle.get());
    if (total == 0) {
        // Count answers 0 for a failed read as well: an empty result must be
        // followed by the end of the hits.
        _tag_search_record *raw = nullptr;
        const int code = ZARNQueryGetNextRecord(handle.get(), &raw);
        RecordPtr record(raw);
        if (code != ZARN_OK) return ReadFailure(args, "reading the total", code, total, 0);
        if (record) return Failure(args, "the daemon's reply carried no total");
    }
    printf("%d\n", total);
    return kExitOk;
}

}  // namespace

const Command kSearchCommand = {
    "search",
    "search a share's full-text index",
    "Usage: zarnsearch search SHARE QUERY [options]\n"
    "\n"
    "Searches the full-text index of SHARE for QUERY and prints the total and\n"
    "the hits of one page: a table (document id, type, name, path, and the\n"
    "highlighted fragment below when asked for), or with --json one JSON object\n"
    "per line: {\"total\":N} first (not with --callback), then one per hit with\n"
    "\"path\", \"fs_name\", \"extension\", \"is_dir\", \"doc_id\" and \"highlight\".\n"
    "\n"
    "Options:\n"
    "  --page N          page to show, from 0 (default 0)\n"
    "  --size N          hits per page, 1 or more (default 20)\n"
    "  --sort FIELD[:asc|:desc][:natural]\n"
    "                    sort key, repeatable; natural compares numbers in texts\n"
    "                    by value\n"
    "  --highlight       ask for the highlighted fragment of each hit's text\n"
    "  --uid UID         search with the permissions of UID (default: yours)\n"
    "  --agent NAME      name the search is logged under (default zarnsearch)\n"
    "  --timeout SEC     wait at most SEC seconds for each hit; ends the list\n"
    "                    quietly when the wait runs out (a warning tells when\n"
    "                    fewer hits came than the total promises)\n"
    "  --callback        run the search through the callback interface (no\n"
    "                    total, no --sort, --highlight or --timeout)\n"
    "  --json            one JSON object per line\n"
    "  -v, --verbose     also print the library's log lines on stderr\n",
    {{"page", true, false},
     {"size", true, false},
     {"sort", true, true},
     {"highlight", false, false},
     {"uid", true, false},
     {"agent", true, false},
     {"timeout", true, false},
     {"callback", false, false},
     {"json", false, false}},
    2,
    2,
    RunSearch,
};

const Command kCountCommand = {
    "count",
    "count the hits of a search",
    "Usage: zarnsearch count SHARE QUERY [--uid UID] [--agent NAME]\n"
    "\n"
    "Prints the number of hits of QUERY in the full-text index of SHARE.\n"
    "\n"
    "Options:\n"
    "  --uid UID         count with the permissions of UID (default: yours)\n"
    "  --agent NAME      name the search is logged under (default zarnsearch)\n"
    "  -v, --verbose     also print the library's log lines on stderr\n",
    {{"uid", true, false}, {"agent", true, false}},
    2,
    2,
    RunCount,
};

}  // namespace zarncli
