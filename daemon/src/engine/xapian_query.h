// Query-string syntax on Xapian's query parser: words, "phrases", AND, OR,
// NOT, +/-, field:word with the metadata keys as field names, word*
// wildcards, and ranges over the number fields (ZARNMDFSSize:100..2000).
// Bare words search the file name and the text content, in every form
// (stems), without regard to case or accents; the last word, while it is
// being typed, as a prefix too.  A quoted phrase and a field's word match
// exactly.
#ifndef ZARND_XAPIAN_QUERY_H
#define ZARND_XAPIAN_QUERY_H

#include <string>

#include <xapian.h>

namespace zarnd {
namespace xap {

// Wildcards, and the word being typed, expand to at most this many terms
// (the most frequent ones).
constexpr Xapian::termcount kMaxWildcardTerms = 1000;

// How much a hit in the file name, and a word as typed (neither another
// form nor a longer word), weigh beside the match's own weight: the
// ranking tuned on the judged query set (daemon/bench/judged).
constexpr double kNameWeight = 2.0;
constexpr double kExactWeight = 1.0;

// Failure kBadRequest when the text does not parse.  "" and "*" match every
// document.  `ranked`: the hits go out by relevance, so the name and
// exact-word weights are worth adding (they never change what matches).
Xapian::Query ParseQuery(const std::string &text, const Xapian::Database &db, const Xapian::Stem &stemmer,
                         bool ranked);

}  // namespace xap
}  // namespace zarnd

#endif  // ZARND_XAPIAN_QUERY_H
