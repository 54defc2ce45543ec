// How the Xapian engine keeps a document: its fields as JSON data, value
// slots for sorting (plain and natural order, computed when indexing), terms
// through which queries name fields and through which the permission filter
// works, and the text content in chunks kept as metadata beside it.
#ifndef ZARND_XAPIAN_LAYOUT_H
#define ZARND_XAPIAN_LAYOUT_H

#include <cstdint>
#include <string>

#include <xapian.h>

#include "perm.h"

namespace zarnd {
namespace xap {

constexpr Xapian::valueno kAccessSlot = 0;      // EncodeAccessChain, for document lookups
constexpr Xapian::valueno kRecordSlot = 1;      // EncodeRecordValue (xapian_record.h)
constexpr Xapian::valueno kTextLayoutSlot = 2;  // EncodeChunkStarts of the text content
constexpr Xapian::valueno kHitSlot = 3;         // EncodeHitValue, in a sharded index only

constexpr char kIdPrefix[] = "Q";  // one unique term per document: its path
constexpr char kDocIdPrefix[] = "XI";  // a shard's documents: DocIdTerm
// One term per restriction of the document's access chain (perm.h).
constexpr char kRestrictionPrefix[] = "XR";

// Bumped whenever what a document holds changes shape; an index of another
// format is rebuilt by the indexer and refused by searches until then.
constexpr char kFormatKey[] = "zarnelasticd.format";
constexpr char kFormat[] = "5";

// A share's index directory holds a stub file naming the generation that
// is current, "glass gen-N", and that generation's database in gen-N: a
// rewritten index is put in place by replacing the stub, while searches go
// on in the generation they opened.  An index directory that holds a
// database itself is of the first format.
constexpr char kStubFile[] = "XAPIANDB";
constexpr char kPlainDatabaseFile[] = "iamglass";
constexpr char kGenerationPrefix[] = "gen-";
// A new stub is written under this prefix and a unique end, then renamed.
constexpr char kStubTempPrefix[] = "XAPIANDB.new-";
// The lock that writers and readers share (xapian_index_lock.h).
constexpr char kLockFile[] = "zarnelasticd.lock";

// How a query refers to a field's terms.
enum class TermKind {
    kNone,      // not searchable by terms (numbers: ranges over the slot)
    kFreeText,  // words, through the term generator, under `prefix`
    kExact,     // the whole value as one term under `prefix`
};

struct FieldLayout {
    const char *field;
    Xapian::valueno slot;          // Xapian::BAD_VALUENO when not kept in a slot
    Xapian::valueno natural_slot;  // the natural-order key; BAD_VALUENO for numbers
    TermKind terms;
    const char *prefix;  // "" for the text content: the default field
    bool numeric;        // slot holds Xapian::sortable_serialise of the number
    bool bare = false;   // its words are also found without the field's name
};

// Every stored field, in a fixed order; `count` receives their number.
const FieldLayout *FieldLayouts(size_t *count);
const FieldLayout *FindLayout(const std::string &field);

// A 64-bit hash of `text` that is the same on every machine and in every
// build, unlike std::hash: what the index keeps must not depend on them.
uint64_t Fnv1a(const std::string &text);

// prefix + value, or, when that would pass Xapian's limit on term length, a
// shortened form that stays unique through a hash of the whole value.
std::string BoundedTerm(const std::string &prefix, const std::string &value);
// What the BoundedTerm of every value that begins with `start` begins with.
std::string BoundedTermStart(const std::string &prefix, const std::string &start);

// The natural-order sort key of a text: its NaturalKey, then the text itself,
// so that texts equal in natural order still sort in one fixed order.
std::string NaturalSortValue(const std::string &text);

std::string RestrictionTerm(const Restriction &restriction);
// False for a term that RestrictionTerm did not make.
bool ParseRestrictionTerm(const std::string &term, Restriction *restriction);

// The metadata key of chunk `chunk` of the text content of document `doc_id`.
std::string TextChunkKey(Xapian::docid doc_id, unsigned chunk);
// What every TextChunkKey begins with.
constexpr char kTextChunkPrefix[] = "t";

}  // namespace xap
}  // namespace zarnd

#endif  // ZARND_XAPIAN_LAYOUT_H
