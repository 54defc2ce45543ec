// Query-string syntax on Xapian's query parser: words, "phrases", AND, OR,
// NOT, +/-, field:word with the metadata keys as field names, word*
// wildcards, and ranges over the number fields (ZARNMDFSSize:100..2000).
// Bare words search the file name and the text content.
#ifndef ZARND_XAPIAN_QUERY_H
#define ZARND_XAPIAN_QUERY_H

#include <string>

#include <xapian.h>

namespace zarnd {
namespace xap {

// Wildcards expand to at most this many terms (the most frequent ones).
constexpr Xapian::termcount kMaxWildcardTerms = 1000;

// Failure kBadRequest when the text does not parse.  "" and "*" match every
// document.
Xapian::Query ParseQuery(const std::string &text, const Xapian::Database &db);

}  // namespace xap
}  // namespace zarnd

#endif  // ZARND_XAPIAN_QUERY_H
