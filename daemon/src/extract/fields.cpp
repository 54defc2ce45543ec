#include "extract/fields.h"

#include "schema.h"

namespace zarnd {
namespace extract {

namespace {

const ExtractedField kFields[] = {
    {field::kTitle, FieldType::kString},
    {field::kAuthors, FieldType::kString},
    {field::kKeywords, FieldType::kString},
    {field::kDescription, FieldType::kString},
    {field::kCreator, FieldType::kString},
    {field::kIdentifier, FieldType::kString},
    {field::kContentCreationDate, FieldType::kInt},
    {field::kContentModificationDate, FieldType::kInt},
    {field::kIsEncrypted, FieldType::kBool},
};

}  // namespace

const ExtractedField *FindExtractedField(const std::string &key) {
    for (const ExtractedField &entry : kFields)
        if (key == entry.key) return &entry;
    return nullptr;
}

}  // namespace extract
}  // namespace zarnd
