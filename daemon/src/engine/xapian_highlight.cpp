#include "xapian_highlight.h"

#include <algorithm>
#include <cstring>
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
                                                                 const Xapian::Query &query, unsigned *words) {
    std::vector<std::pair<Xapian::termpos, unsigned>> positions;
    unsigned &index = *words = 0;
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
Xapian::termpos DensestWindow(const std::vector<std::pair<Xapian::termpos, unsigned>> &positions, unsigned words,
                              Xapian::termpos width) {
    std::vector<size_t> inside(words);
    size_t different = 0, best = 0;
    Xapian::termpos anchor = positions.front().first;
    for (size_t begin = 0, end = 0; end < positions.size(); ++end) {
        if (inside[positions[end].second]++ == 0) ++different;
        while (positions[end].first - positions[begin].first >= width)
            if (--inside[positions[begin++].second] == 0) --different;
        if (different > best) {
            best = different;
            anchor = positions[begin].first;
        }
    }
    return anchor;
}

bool EndsWith(const std::string &text, const char *tail) {
    const size_t n = std::strlen(tail);
    return text.size() >= n && text.compare(text.size() - n, n, tail) == 0;
}

// The snippet of `text`, a window of the whole text content, marked as cut
// where the window does not reach the text's ends.
std::string SnippetOfWindow(const Xapian::MSet &mset, const std::string &text, bool cut_before, bool cut_after,
                            size_t frag_length) {
    std::string fragment = HighlightField(mset, text, frag_length);
    if (fragment.empty()) return fragment;
    if (cut_before && fragment.compare(0, std::strlen(kOmit), kOmit) != 0) fragment = kOmit + fragment;
    if (cut_after && !EndsWith(fragment, kOmit)) fragment += kOmit;
    return fragment;
}

// Chunks [first, last] of the text content, one after the other; false when
// one cannot be read.
bool ReadChunks(const TextSource &source, size_t first, size_t last, std::string *text) {
    text->clear();
    std::string chunk;
    for (size_t k = first; k <= last; ++k) {
        if (!ReadTextChunk(source, k, &chunk)) return false;
        *text += chunk;
    }
    return true;
}

// Where in `text` the word after the first `words` words begins, counting
// words as runs of word bytes: close to what the engine counts, which is
// enough to place a window around it.
size_t OffsetOfWord(const std::string &text, size_t words) {
    size_t at = 0;
    for (size_t seen = 0; at < text.size(); ++seen) {
        while (at < text.size() && !IsWordByte(text[at])) ++at;
        if (seen == words) break;
        while (at < text.size() && IsWordByte(text[at])) ++at;
    }
    return at;
}

bool IsContinuationByte(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

}  // namespace

// The engine's snippet tends to start at a match: asked for twice the
// length, it holds context on both sides, and CutFragment then keeps the
// match in the middle.
std::string HighlightField(const Xapian::MSet &mset, const std::string &text, size_t frag_length) {
    return mset.snippet(text, 2 * frag_length, Xapian::Stem(), Xapian::MSet::SNIPPET_EMPTY_WITHOUT_MATCH | kTermFlags,
                        kHighlightStart, kHighlightEnd, kOmit);
}

std::string HighlightText(const Xapian::MSet &mset, const Xapian::Database &db, Xapian::docid doc_id,
                          const Xapian::Document &doc, const TextSource &source, const Xapian::Query &query,
                          size_t frag_length) {
    std::vector<uint32_t> starts;
    if (!DecodeChunkStarts(doc.get_value(kTextLayoutSlot), &starts) || starts.empty()) return "";
    const size_t count = starts.size();
    // Chunks on each side that a fragment of this length may need.
    const size_t reach = frag_length / kTextChunkBytes + 1;
    unsigned words = 0;
    const auto positions = MatchPositions(db, doc_id, query, &words);
    if (positions.empty()) {
        // Only a wildcard can still match here, and its words are not known:
        // look through the text from its start until one shows.
        if (!HasWildcard(query)) return "";
        std::string text;
        for (size_t first = 0; first < count; first += reach + 1) {
            const size_t last = std::min(count - 1, first + reach);
            if (!ReadChunks(source, first, last, &text)) break;
            const std::string fragment = SnippetOfWindow(mset, text, first > 0, last + 1 < count, frag_length);
            if (!fragment.empty()) return fragment;
        }
        return "";
    }
    // About six bytes a word: the words a fragment can show.
    const Xapian::termpos width = static_cast<Xapian::termpos>(std::max<size_t>(8, frag_length / 6));
    const Xapian::termpos anchor = DensestWindow(positions, words, width);
    // The chunk that holds the anchor: the last one starting below it (the
    // first, should a damaged layout start above it).
    const size_t above = static_cast<size_t>(std::upper_bound(starts.begin(), starts.end(), anchor - 1) - starts.begin());
    const size_t chunk = above == 0 ? 0 : above - 1;
    // The window: a fragment's length before the anchor, one and a half
    // after it, reaching into the neighbouring chunks only where it must.
    std::string text;
    if (!ReadChunks(source, chunk, chunk, &text)) return "";
    size_t offset = OffsetOfWord(text, anchor > starts[chunk] ? anchor - starts[chunk] - 1 : 0);
    size_t first = chunk, last = chunk;
    std::string more;
    while (offset < frag_length && first > 0 && ReadChunks(source, first - 1, first - 1, &more)) {
        text.insert(0, more);
        offset += more.size();
        --first;
    }
    while (text.size() - offset < frag_length + frag_length / 2 && last + 1 < count && ReadChunks(source, last + 1, last + 1, &more)) {
        text += more;
        ++last;
    }
    size_t begin = offset > frag_length ? offset - frag_length : 0;
    while (begin < text.size() && IsContinuationByte(text[begin])) ++begin;
    size_t end = std::min(text.size(), offset + frag_length + frag_length / 2);
    while (end < text.size() && IsContinuationByte(text[end])) ++end;
    return SnippetOfWindow(mset, text.substr(begin, end - begin), first > 0 || begin > 0, last + 1 < count || end < text.size(),
                           frag_length);
}

}  // namespace xap
}  // namespace zarnd
