// The metadata fields that an extraction worker may report, and the type
// each travels as.  The daemon refuses a reply that names any other field or
// gives one the wrong type.
#ifndef ZARND_EXTRACT_FIELDS_H
#define ZARND_EXTRACT_FIELDS_H

#include <cstdint>
#include <string>

namespace zarnd {
namespace extract {

enum class FieldType : uint8_t { kString = 1, kInt = 2, kBool = 3, kDouble = 4 };

struct ExtractedField {
    const char *key;  // a key of schema.h
    FieldType type;
};

// The field named `key`; null when workers may not report it.
const ExtractedField *FindExtractedField(const std::string &key);

// Bytes of one string field at most (a title, a list of authors...).
constexpr size_t kMaxFieldBytes = 4096;

}  // namespace extract
}  // namespace zarnd

#endif  // ZARND_EXTRACT_FIELDS_H
