// Measures 2 and 3: one short search, and one document lookup, each from
// connect to close, against a bare client that connects, writes the same
// request bytes and reads the same reply until the server closes.
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "bench.h"
#include "bench_server.h"
#include "replies.h"
#include "timing.h"
#include "zarncontentsearchutils.h"

namespace zarnbench {
namespace {

constexpr char kShare[] = "bench";
constexpr int kPageHits = 20;
constexpr int kDocId = 4242;

std::string page_request;      // what ZARNQueryConnectionOpen writes for the page
std::string document_request;  // what ZARNQueryDocumentFieldGet writes

std::string PageQuery() { return SearchTag(kPageHits, HitSet::kPlain); }

bool SearchPage() {
    const std::string query = PageQuery();
    ZARNQueryHandle *handle = nullptr;
    long hits = -1;
    if (ZARNQueryConnectionInit(&handle) == 0 &&
        ZARNQueryConnectionOpen(handle, kShare, query.c_str(), nullptr, 0, 0, kPageHits,
                                "zarnbench", 1026, CONNECTION_FLAG_NONE) == 0 &&
        ZARNQueryCount(handle) == kPageHits)
        hits = DrainWithGetNext(handle, [](const _tag_search_record *) {});
    ZARNQueryConnectionClose(handle);
    return hits == kPageHits;
}

bool LookUpDocument() {
    ZARNQueryDocumentFieldValue values[kDocumentFieldCount];
    if (ZARNQueryDocumentFieldGet(kShare, kDocId, kDocumentFields, kDocumentFieldCount, values) != 0)
        return false;
    for (const ZARNQueryDocumentFieldValue &value : values)
        if (value.type == 0) return false;
    return true;
}

struct Latencies {
    std::vector<double> library;  // microseconds
    std::vector<double> bare;
};

// The library's operation and the bare exchange alternate, one call each,
// after a warm-up; every call is timed on its own.
bool Alternate(const std::function<bool()> &library, const std::string &framed, int samples,
               Latencies *out) {
    for (int i = 0; i < 50; ++i)
        if (!library() || BareExchange(framed) <= 0) return false;
    for (int i = 0; i < samples; ++i) {
        int64_t start = NowNs();
        if (!library()) return false;
        out->library.push_back(static_cast<double>(NowNs() - start) / 1e3);
        start = NowNs();
        if (BareExchange(framed) <= 0) return false;
        out->bare.push_back(static_cast<double>(NowNs() - start) / 1e3);
    }
    return true;
}

Json::Value LatencyRow(const std::string &what, const std::vector<double> &samples,
                       const Latencies &both) {
    Json::Value row(Json::objectValue);
    row["operation"] = what;
    row["median us"] = Median(samples);
    row["p99 us"] = Quantile(samples, 0.99);
    row["calls/s"] = 1e6 / Median(samples);
    row["median ratio"] = Median(samples) / Median(both.bare);
    row["p99 ratio"] = Quantile(samples, 0.99) / Quantile(both.bare, 0.99);
    return row;
}

constexpr char kMethodTail[] =
    "Calls alternate with the bare exchange (one each, after 50 warm-up pairs) and each\n"
    "is timed on its own; ratio = library time / bare time (median to median, p99 to\n"
    "p99), so 1.0 is no overhead. calls/s = 1 / median.";

bool RunLatencies(Report &report, const std::string &label, const std::function<bool()> &library,
                  const std::string &request, int samples) {
    Latencies latencies;
    if (request.empty() || !Alternate(library, Framed(request), samples, &latencies)) {
        report.Note("the library call or the bare exchange failed");
        report.EndSection();
        return false;
    }
    report.Row(LatencyRow(label, latencies.library, latencies));
    report.Row(LatencyRow("bare connect+write+read", latencies.bare, latencies));
    report.Note(std::to_string(samples) + " samples each");
    report.EndSection();
    return true;
}

}  // namespace

void CaptureRoundTripRequests() {
    const std::string query = PageQuery();
    page_request = CaptureRequest([&] {
        ZARNQueryHandle *handle = nullptr;
        if (ZARNQueryConnectionInit(&handle) == 0)
            ZARNQueryConnectionOpen(handle, kShare, query.c_str(), nullptr, 0, 0, kPageHits,
                                    "zarnbench", 1026, CONNECTION_FLAG_NONE);
        ZARNQueryConnectionClose(handle);
    });
    document_request = CaptureRequest([] { LookUpDocument(); });
}

bool RoundTrip(Report &report, const Options &options) {
    const int samples = options.quick ? 200 : 3000;
    const std::vector<std::string> columns = {"operation", "median us", "p99 us", "calls/s",
                                              "median ratio", "p99 ratio"};
    report.Section("roundtrip", "2. Round trip",
                   "Init + Open + Count + 20 plain hits read with GetNextRecord + Close, against\n"
                   "the bench server, and a bare client sending the same request bytes and\n"
                   "reading the same reply. " + std::string(kMethodTail),
                   columns);
    bool ok = RunLatencies(report, "Init+Open+Count+20 hits+Close", SearchPage, page_request,
                           samples);
    report.Section("document", "3. Document lookup",
                   "ZARNQueryDocumentFieldGet for 10 fields (int, double, bool and string) of a\n"
                   "document of 18 fields with a 1 KiB text content, against a bare client\n"
                   "sending the same request bytes and reading the same reply. " +
                       std::string(kMethodTail),
                   columns);
    ok = RunLatencies(report, "ZARNQueryDocumentFieldGet x10", LookUpDocument, document_request,
                      samples) && ok;
    return ok;
}

}  // namespace zarnbench
