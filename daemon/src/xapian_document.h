// A FileRecord as a Xapian document: its fields as JSON data, slot values
// for sorting and permissions, and the terms that queries match.
#ifndef ZARND_XAPIAN_DOCUMENT_H
#define ZARND_XAPIAN_DOCUMENT_H

#include <xapian.h>

#include "engine.h"

namespace zarnd {
namespace xap {

// Term generator flags shared by indexing and snippets, so that both split
// text the same way.
constexpr unsigned kTermFlags = Xapian::TermGenerator::FLAG_CJK_NGRAM;

Xapian::Document BuildDocument(const FileRecord &record, Xapian::TermGenerator *generator);

// A document's data: the JSON object of its stored fields without the text
// content, then a newline and the text content as it is.  Most hits need
// only the fields, and reading them then costs no parse of a long text.
std::string EncodeData(const Json::Value &fields);
// False when `data` holds no JSON object.  The text content is put back
// into *fields only when `with_text`.
bool DecodeData(const std::string &data, bool with_text, Json::Value *fields);

// The unique term that names the document of `path`.
std::string IdTerm(const std::string &path);

}  // namespace xap
}  // namespace zarnd

#endif  // ZARND_XAPIAN_DOCUMENT_H
