// How the Xapian engine keeps the stored fields: value slots for sorting and
// for the permission check, term prefixes through which queries name fields.
#ifndef ZARND_XAPIAN_LAYOUT_H
#define ZARND_XAPIAN_LAYOUT_H

#include <string>

#include <xapian.h>

namespace zarnd {
namespace xap {

constexpr Xapian::valueno kAccessSlot = 0;     // EncodeAccessChain
constexpr Xapian::valueno kSignatureSlot = 1;  // change detection of the indexer

constexpr char kIdPrefix[] = "Q";  // one unique term per document: its path

// How a query refers to a field's terms.
enum class TermKind {
    kNone,      // not searchable by terms (numbers: ranges over the slot)
    kFreeText,  // words, through the term generator, under `prefix`
    kExact,     // the whole value as one term under `prefix`
};

struct FieldLayout {
    const char *field;
    Xapian::valueno slot;  // Xapian::BAD_VALUENO when not kept in a slot
    TermKind terms;
    const char *prefix;  // "" for the text content: the default field
    bool numeric;        // slot holds Xapian::sortable_serialise of the integer
};

// Every stored field, in a fixed order; `count` receives their number.
const FieldLayout *FieldLayouts(size_t *count);
const FieldLayout *FindLayout(const std::string &field);

// prefix + value, or, when that would pass Xapian's limit on term length, a
// shortened form that stays unique through a hash of the whole value.
std::string BoundedTerm(const std::string &prefix, const std::string &value);

}  // namespace xap
}  // namespace zarnd

#endif  // ZARND_XAPIAN_LAYOUT_H
