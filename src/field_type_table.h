// The field type table: which metadata keys a document field lookup accepts,
// and the type each one is delivered as.  Read-only, built at load time, so
// lookups from any thread need no lock.  Not exported from the library.
#ifndef ZARN_FIELD_TYPE_TABLE_H
#define ZARN_FIELD_TYPE_TABLE_H

#include <cstddef>

#include "zarncontentsearchutils.h"

namespace zarn {

struct FieldTypeEntry {
    const char *key;
    ZARNQueryDocumentFieldType type;
};

constexpr std::size_t kFieldTypeCount = 55;

// The constant list the table is built from, in ascending byte order.
extern const FieldTypeEntry kFieldTypeList[kFieldTypeCount];

// Exact, case-sensitive match.  False when key is null or not in the table;
// *type is then untouched.  May throw std::bad_alloc.
bool LookupFieldType(const char *key, ZARNQueryDocumentFieldType *type);

}  // namespace zarn

#endif  // ZARN_FIELD_TYPE_TABLE_H
