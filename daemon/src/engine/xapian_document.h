// A FileRecord as a Xapian document: its fields (the text content left out)
// compact in its record slot (xapian_record.h), slot values for sorting and
// lookups, the terms that queries match, and its text content cut into
// chunks to be kept beside it.
#ifndef ZARND_XAPIAN_DOCUMENT_H
#define ZARND_XAPIAN_DOCUMENT_H

#include <string>
#include <vector>

#include <xapian.h>

#include "engine.h"
#include "stored_text.h"

namespace zarnd {
namespace xap {

// Term generator flags shared by indexing and snippets, so that both split
// text the same way.
constexpr unsigned kTermFlags = Xapian::TermGenerator::FLAG_CJK_NGRAM;

// The document of `record`; *text_chunks receives its text content, packed,
// chunk by chunk, for the writer to store under TextChunkKey.  A shard's
// document (`shard`) holds the hit value too.
Xapian::Document BuildDocument(const FileRecord &record, Xapian::TermGenerator *generator, const Xapian::Stem &stemmer,
                               ChunkPacker *packer, std::vector<std::string> *text_chunks, bool shard = false);

// A document holding nothing but the sort slots of `fields`, as
// BuildDocument fills them: what a key maker sorts by.
Xapian::Document SortValues(const Json::Value &fields);

// The fields of a record (integers and strings of the layout's fields, the
// text content left out) as compact bytes, and back; false for bytes that
// EncodeData did not make.  Bit i of `omit` leaves out layout i's field.
std::string EncodeData(const Json::Value &fields, uint64_t omit = 0);
bool DecodeData(const std::string &data, Json::Value *fields);

// The member `name` of the object `fields`, or a null value: no copy, unlike
// Json::Value::get.
const Json::Value &FieldOf(const Json::Value &fields, const char *name);

// The unique term that names the document of `path`.
std::string IdTerm(const std::string &path);

// Where a document's text chunks are kept: the database of its shard (the
// index itself when it has no shards), and the document's id there.
struct TextSource {
    const Xapian::Database *db;
    Xapian::docid doc_id;
};

// Chunk `chunk` of the text content of a document, or its first `limit`
// bytes; false when it cannot be read.
bool ReadTextChunk(const TextSource &source, size_t chunk, std::string *text, size_t limit = SIZE_MAX);

// The beginning of the text content of document `doc` (at most
// kReturnedTextBytes, cut between characters); false when it has none.
bool ReadTextStart(const TextSource &source, const Xapian::Document &doc, std::string *text);

}  // namespace xap
}  // namespace zarnd

#endif  // ZARND_XAPIAN_DOCUMENT_H
