// Measure 1: reading a search of N hits through each reader of the library,
// against the floor of reading the same packets with PacketRead and parsing
// them with JsonCpp.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <json/reader.h>
#include <json/value.h>

#include "bench.h"
#include "bench_server.h"
#include "heap_counter.h"
#include "replies.h"
#include "timing.h"
#include "zarncontentsearchutils.h"
#include "zarnplatform.h"

namespace zarnbench {
namespace {

constexpr char kShare[] = "bench";
constexpr char kAgent[] = "zarnbench";
constexpr unsigned kUid = 1026;
constexpr int kSmallN = 1000;
constexpr int kLargeN = 100000;

enum Reader { kGetNext, kFetchNext, kCallback, kFloor, kReaderCount };
const char *const kReaderNames[kReaderCount] = {
    "(a) ZARNQueryGetNextRecord", "(b) ZARNQueryFetchNext", "(c) ZARNSearchQuerySend",
    "(d) floor: PacketRead+JsonCpp"};

struct Case {
    int hits;
    HitSet set;
    std::string query;
    std::string request;  // what ZARNQueryConnectionOpen writes for it
};

std::vector<Case> &Cases() {
    static std::vector<Case> cases;
    return cases;
}

ConnectionFlag FlagsFor(HitSet set) {
    return set == HitSet::kHighlight ? CONNECTION_FLAG_HIGHLIGHT : CONNECTION_FLAG_NONE;
}

// Every reader touches what a caller would, so that no work can be skipped.
long sink = 0;
void Consume(const _tag_search_record *record) {
    sink += record->doc_id + record->path[0] + record->fs_name[0] + record->extension[0] +
            record->is_dir + (record->highlight != nullptr ? record->highlight[0] : 0);
}

// Each reader runs one whole search, connection included, and returns the
// number of hits it delivered (-1 on a failure).
long ReadWithGetNext(const Case &c) {
    ZARNQueryHandle *handle = nullptr;
    long hits = -1;
    if (ZARNQueryConnectionInit(&handle) == 0 &&
        ZARNQueryConnectionOpen(handle, kShare, c.query.c_str(), nullptr, 0, 0, c.hits, kAgent,
                                kUid, FlagsFor(c.set)) == 0)
        hits = DrainWithGetNext(handle, Consume);
    ZARNQueryConnectionClose(handle);
    return hits;
}

long ReadWithFetchNext(const Case &c) {
    ZARNQueryHandle *handle = nullptr;
    long hits = -1;
    if (ZARNQueryConnectionInit(&handle) == 0 &&
        ZARNQueryConnectionOpen(handle, kShare, c.query.c_str(), nullptr, 0, 0, c.hits, kAgent,
                                kUid, FlagsFor(c.set)) == 0) {
        const timeval wait = {20, 0};
        for (hits = 0;; ++hits) {
            _tag_search_record *record = ZARNQueryFetchNext(handle, wait);
            if (record == nullptr) break;
            Consume(record);
            ZARNQueryFreeRecord(record);
        }
    }
    ZARNQueryConnectionClose(handle);
    return hits;
}

bool CountHit(const _tag_search_record *record, void *hits) {
    Consume(record);
    ++*static_cast<long *>(hits);
    return true;
}

long ReadWithCallback(const Case &c) {
    long hits = 0;
    int error = 0;
    if (ZARNSearchQuerySend(kShare, c.query.c_str(), c.hits, 0, CountHit, &hits, kAgent, kUid,
                            &error) != 1)
        return -1;
    return hits;
}

// The floor: the same connection and request, then every packet read with
// PacketRead into one buffer and parsed with the library's reader settings
// into one value.  Nothing else.
long ReadFloor(const Case &c) {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["collectComments"] = false;
    builder["strictRoot"] = false;
    builder["skipBom"] = false;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    const int fd = ConnectToDaemon();
    if (fd < 0) return -1;
    long packets = -1;
    if (zarndaemon::io::PacketWrite(fd, c.request)) {
        std::string text;
        Json::Value value;
        packets = 0;
        while (zarndaemon::io::PacketRead(fd, text)) {
            if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) {
                packets = -1;
                break;
            }
            ++packets;
        }
    }
    close(fd);
    return packets < 2 ? -1 : packets - 2;  // less the header and the end packet
}

long Read(Reader reader, const Case &c) {
    switch (reader) {
        case kGetNext: return ReadWithGetNext(c);
        case kFetchNext: return ReadWithFetchNext(c);
        case kCallback: return ReadWithCallback(c);
        default: return ReadFloor(c);
    }
}

struct Measured {
    std::vector<double> rate[kReaderCount];   // hits per second, one per round
    std::vector<double> ratio[kReaderCount];  // to the floor of the same round
    HeapUse heap[kReaderCount];
};

// Rounds of every reader in turn, the order rotated each round; a reader's
// ratio is taken against the floor of its own round.
bool Measure(const Case &c, int rounds, int searches_per_sample, Measured *out) {
    for (int round = 0; round < rounds; ++round) {
        double seconds[kReaderCount];
        for (int k = 0; k < kReaderCount; ++k) {
            const Reader reader = static_cast<Reader>((k + round) % kReaderCount);
            const int64_t start = ThreadCpuNs();
            for (int s = 0; s < searches_per_sample; ++s) {
                const long got = Read(reader, c);
                if (got != c.hits) {
                    std::fprintf(stderr, "%s read %ld hits of %d\n", kReaderNames[reader], got,
                                 c.hits);
                    return false;
                }
            }
            seconds[reader] = static_cast<double>(ThreadCpuNs() - start) / 1e9;
        }
        for (int r = 0; r < kReaderCount; ++r) {
            out->rate[r].push_back(static_cast<double>(c.hits) * searches_per_sample / seconds[r]);
            out->ratio[r].push_back(seconds[kFloor] / seconds[r]);
        }
    }
    // Heap, in a pass of its own: counting costs a little on every allocation.
    for (int r = 0; r < kReaderCount; ++r) {
        ArmHeapCounter();
        const long got = Read(static_cast<Reader>(r), c);
        out->heap[r] = DisarmHeapCounter();
        if (got != c.hits) return false;
    }
    return true;
}

}  // namespace

long DrainWithGetNext(ZARNQueryHandle *handle, void (*consume)(const _tag_search_record *)) {
    for (long hits = 0;; ++hits) {
        _tag_search_record *record = nullptr;
        if (ZARNQueryGetNextRecord(handle, &record) != 0) return -1;
        if (record == nullptr) return hits;
        consume(record);
        ZARNQueryFreeRecord(record);
    }
}

void CaptureStreamRequests(const Options &options) {
    const int sizes[2] = {options.quick ? 100 : kSmallN, options.quick ? 2000 : kLargeN};
    for (int hits : sizes) {
        for (HitSet set : {HitSet::kPlain, HitSet::kHighlight}) {
            Case c{hits, set, SearchTag(hits, set), std::string()};
            c.request = CaptureRequest([&] {
                ZARNQueryHandle *handle = nullptr;
                if (ZARNQueryConnectionInit(&handle) == 0)
                    ZARNQueryConnectionOpen(handle, kShare, c.query.c_str(), nullptr, 0, 0, hits,
                                            kAgent, kUid, FlagsFor(set));
                ZARNQueryConnectionClose(handle);
            });
            Cases().push_back(c);
        }
    }
}

bool StreamThroughput(Report &report, const Options &options) {
    report.Section(
        "stream", "1. Streaming throughput",
        "A search of N hits is read whole, connection included, from a bench server (a child\n"
        "process on the daemon socket, replies serialised in advance: header, N hits, end).\n"
        "Plain hits carry a 60-120 byte path, name, extension, is_dir and additional.doc_id;\n"
        "highlight hits add a 350-byte highlight. Readers (a), (b), (c) consume every record;\n"
        "(d) is the floor: the library's request bytes, then PacketRead into one buffer and a\n"
        "JsonCpp parse with the library's reader settings, nothing else. Time is the client\n"
        "thread's CPU time (user + system, socket reads included), so other load on a shared\n"
        "machine does not count; hits/s is per CPU second. In each round every reader runs\n"
        "once (order rotated); ratio = floor time / reader time in that round, reported as\n"
        "the median (and range) over rounds. Heap: a counting malloc in the bench binary,\n"
        "peak bytes in use above the level before the search, in a separate pass.",
        {"set", "N", "reader", "hits/s", "ratio to floor", "ratio range", "peak heap B",
         "allocs/hit"});
    bool ok = true;
    const long rss_before = MaxRssKiB();
    long rss_after_small = 0, rss_after_large = 0;
    HeapUse peak_small[2][kReaderCount];
    for (const Case &c : Cases()) {
        if (c.request.empty()) {
            report.Note("no request captured for " + c.query);
            ok = false;
            continue;
        }
        const bool small = c.hits == Cases().front().hits;
        const int rounds = options.quick ? 2 : small ? 9 : 5;
        Measured m;
        if (!Measure(c, rounds, small ? 10 : 1, &m)) {
            ok = false;
            continue;
        }
        if (small) {
            rss_after_small = MaxRssKiB();
        } else {
            rss_after_large = MaxRssKiB();
        }
        const int set_index = c.set == HitSet::kPlain ? 0 : 1;
        for (int r = 0; r < kReaderCount; ++r) {
            const std::vector<double> &ratio = m.ratio[r];
            Json::Value row(Json::objectValue);
            row["set"] = HitSetName(c.set);
            row["N"] = c.hits;
            row["reader"] = kReaderNames[r];
            row["hits/s"] = Median(m.rate[r]);
            row["ratio to floor"] = Median(ratio);
            row["ratio range"] = Fixed(*std::min_element(ratio.begin(), ratio.end()), "%.2f") +
                                 "-" + Fixed(*std::max_element(ratio.begin(), ratio.end()), "%.2f");
            row["peak heap B"] = static_cast<Json::Int64>(m.heap[r].peak_bytes);
            row["allocs/hit"] = static_cast<double>(m.heap[r].allocations) / c.hits;
            report.Row(row);
            const std::string label = std::string(kReaderNames[r]).substr(0, 3) + " " +
                                      HitSetName(c.set) + " N=" + std::to_string(c.hits);
            if (r == kGetNext || r == kCallback)
                report.Target(label + ": at least 0.85 of the floor",
                              Fixed(Median(ratio), "%.3f"), Median(ratio) >= 0.85);
            if (small) {
                peak_small[set_index][r] = m.heap[r];
            } else if (r != kFloor) {
                // The peak must not follow N: a few hundred bytes of slack for
                // the allocator's rounding, nothing that scales.
                const int64_t before = peak_small[set_index][r].peak_bytes;
                const int64_t after = m.heap[r].peak_bytes;
                report.Target(label + ": peak heap does not grow from N=" +
                                  std::to_string(Cases().front().hits),
                              std::to_string(before) + " B -> " + std::to_string(after) + " B",
                              after <= before + 512);
            }
        }
    }
    report.Note("maxrss (whole bench process): " + std::to_string(rss_before) + " KiB before, " +
                std::to_string(rss_after_small) + " KiB after the small N, " +
                std::to_string(rss_after_large) + " KiB after the large N");
    report.EndSection();
    return ok;
}

}  // namespace zarnbench
