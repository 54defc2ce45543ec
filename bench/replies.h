// The daemon replies that the benchmarks read: search hits shaped like the
// daemon's (a path of 60 to 120 bytes, file name, extension, directory flag,
// document id; optionally a 350-byte highlight) and one document.
#ifndef ZARN_BENCH_REPLIES_H
#define ZARN_BENCH_REPLIES_H

#include <string>

namespace zarnbench {

enum class HitSet { kPlain, kHighlight };
const char *HitSetName(HitSet set);
bool HitSetFromName(const std::string &name, HitSet *set);

// Hit number `index` of a set, as one JSON text; the same index gives the
// same text.
std::string HitText(HitSet set, int index);

// The query text that makes the bench server answer with a header of
// `count`, `count` hits of `set` and an end packet.
std::string SearchTag(int count, HitSet set);

// The document the bench server returns for any document request, and the
// ten fields the lookup benchmark asks for (all present, of every type).
std::string DocumentReplyText();
constexpr int kDocumentFieldCount = 10;
extern const char *const kDocumentFields[kDocumentFieldCount];

}  // namespace zarnbench

#endif  // ZARN_BENCH_REPLIES_H
