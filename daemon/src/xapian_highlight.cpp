#include "xapian_highlight.h"

#include <algorithm>
#include <map>
#include <utility>
#include <vector>

#include "fragment.h"
#include "stored_text.h"
#include "xapian_document.h"
#include "xapian_layout.h"

namespace zarnd {
namespace xap {

namespace {

constexpr char kOmit[] = "\xE2\x80\xA6";
// Positions gathered per document at most: a text of 256 KiB holds far
// fewer words than this, so only a damaged index is cut short.
constexpr size_t kMaxPositions = 1u << 17;

bool HasWildcard(const Xapian::Query &query) {
    if (query.get_type() == Xapian::Query::OP_WILDCARD) return true;
    for (size_t i = 0; i < query.get_num_subqueries(); ++i)
        if (HasWildcard(query.get_subquery(i))) return true;
    return false;
}

// (position, which term) of every occurrence of the query's words in the
// text content; words of other fields carry an upper-case prefix.
std::vector<std::pair<Xapian::termpos, unsigned>> MatchPositions(const Xapian::Database &db, Xapian::docid doc_id,
                                                                 const Xapian::Query &query) {
    std::vector<std::pair<Xapian::termpos, unsigned>> positions;
    unsigned index = 0;
    for (Xapian::TermIterator t = query.get_unique_terms_begin(); t != query.get_unique_terms_end(); ++t) {
        const std::string term = *t;
        if (term.empty() || (term[0] >= 'A' && term[0] <= 'Z')) continue;
        for (Xapian::PositionIterator p = db.positionlist_begin(doc_id, term);
             p != db.positionlist_end(doc_id, term) && positions.size() < kMaxPositions; ++p)
            positions.emplace_back(*p, index);
        ++index;
    }
    std::sort(positions.begin(), positions.end());
    return positions;
}

// The first position of the window of `width` positions that holds the most
// different words, the earliest of equals.
Xapian::termpos DensestWindow(const std::vector<std::pair<Xapian::termpos, unsigned>> &positions,
                              Xapian::termpos width) {
    std::map<unsigned, size_t> inside;
    size_t best = 0;
    Xapian::termpos anchor = positions.front().first;
    for (size_t begin = 0, end = 0; end < positions.size(); ++end) {
        ++inside[positions[end].second];
        while (positions[end].first - positions[begin].first >= width) {
            if (--inside[positions[begin].second] == 0) inside.erase(positions[begin].second);
            ++begin;
        }
        if (inside.size() > best) {
            best = inside.size();
            anchor = positions[begin].first;
        }
    }
    return anchor;
}

// Snippet over chunks [first, last] of the text, marked as cut where the
// chunks do not reach the text's ends.
std::string SnippetOfChunks(const Xapian::MSet &mset, const Xapian::Database &db, Xapian::docid doc_id, size_t first,
                            size_t last, size_t chunk_count, size_t frag_length) {
    std::string text, chunk;
    for (size_t k = first; k <= last; ++k) {
        if (!UnpackChunk(db.get_metadata(TextChunkKey(doc_id, static_cast<unsigned>(k))), &chunk)) return "";
        text += chunk;
    }
    std::string fragment = HighlightField(mset, text, frag_length);
    if (fragment.empty()) return fragment;
    if (first > 0 && fragment.compare(0, sizeof kOmit - 1, kOmit) != 0) fragment = kOmit + fragment;
    if (last + 1 < chunk_count &&
        (fragment.size() < sizeof kOmit - 1 || fragment.compare(fragment.size() - (sizeof kOmit - 1), std::string::npos, kOmit) != 0))
        fragment += kOmit;
    return fragment;
}

}  // namespace

std::string HighlightField(const Xapian::MSet &mset, const std::string &text, size_t frag_length) {
    return mset.snippet(text, frag_length, Xapian::Stem(), Xapian::MSet::SNIPPET_EMPTY_WITHOUT_MATCH | kTermFlags,
                        kHighlightStart, kHighlightEnd, kOmit);
}

std::string HighlightText(const Xapian::MSet &mset, const Xapian::Database &db, Xapian::docid doc_id,
                          const Xapian::Document &doc, const Xapian::Query &query, size_t frag_length) {
    std::vector<uint32_t> starts;
    if (!DecodeChunkStarts(doc.get_value(kTextLayoutSlot), &starts) || starts.empty()) return "";
    const size_t count = starts.size();
    // Chunks on each side that a fragment of this length may need.
    const size_t reach = frag_length / kTextChunkBytes + 1;
    const auto positions = MatchPositions(db, doc_id, query);
    if (positions.empty()) {
        // Only a wildcard can still match here, and its words are not known:
        // look through the text from its start until one shows.
        if (!HasWildcard(query)) return "";
        for (size_t first = 0; first < count; first += reach + 1) {
            const std::string fragment =
                SnippetOfChunks(mset, db, doc_id, first, std::min(count - 1, first + reach), count, frag_length);
            if (!fragment.empty()) return fragment;
        }
        return "";
    }
    // About six bytes a word: the words a fragment can show.
    const Xapian::termpos width = static_cast<Xapian::termpos>(std::max<size_t>(8, frag_length / 6));
    const Xapian::termpos anchor = DensestWindow(positions, width);
    const size_t k = static_cast<size_t>(std::upper_bound(starts.begin(), starts.end(), anchor - 1) - starts.begin());
    const size_t chunk = k == 0 ? 0 : k - 1;
    // A neighbour is read only when the window comes near its side.
    const bool near_start = anchor - starts[chunk] <= width;
    const bool near_end = chunk + 1 < count && starts[chunk + 1] - anchor <= 2 * width;
    const size_t first = near_start ? chunk - std::min(chunk, reach) : chunk;
    const size_t last = near_end ? std::min(count - 1, chunk + reach) : chunk;
    return SnippetOfChunks(mset, db, doc_id, first, last, count, frag_length);
}

}  // namespace xap
}  // namespace zarnd
