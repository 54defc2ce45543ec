// Highlight fragments of the text content, read from the chunks around the
// matches only: the term positions of the query's words in the document say
// which chunk holds the densest run of matches.
#ifndef ZARND_XAPIAN_HIGHLIGHT_H
#define ZARND_XAPIAN_HIGHLIGHT_H

#include <string>

#include <xapian.h>

#include "xapian_document.h"

namespace zarnd {
namespace xap {

// The fragment of document `doc_id`'s text content around its best matches
// with `query`, about twice frag_length bytes (for CutFragment), matches in
// kHighlightStart/End; "" when the text holds no match.  Term positions
// come from `db`, the text from `source`.
std::string HighlightText(const Xapian::MSet &mset, const Xapian::Database &db, Xapian::docid doc_id,
                          const Xapian::Document &doc, const TextSource &source, const Xapian::Query &query,
                          size_t frag_length);

// The same fragment over a text held whole (a field other than the text content).
std::string HighlightField(const Xapian::MSet &mset, const std::string &text, size_t frag_length);

}  // namespace xap
}  // namespace zarnd

#endif  // ZARND_XAPIAN_HIGHLIGHT_H
