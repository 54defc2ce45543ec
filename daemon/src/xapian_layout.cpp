#include "xapian_layout.h"

#include <cstdio>

#include "schema.h"

namespace zarnd {
namespace xap {

namespace {

constexpr Xapian::valueno kNoSlot = Xapian::BAD_VALUENO;

// The file name's words (from both name fields) share one prefix: a search
// by name should not depend on which of the two spellings it hits.
const FieldLayout kLayouts[] = {
    {field::kPath, 10, TermKind::kFreeText, "XP", false},
    {field::kFSName, 11, TermKind::kFreeText, "XN", false},
    {field::kExtension, 12, TermKind::kFreeText, "XE", false},
    {field::kIsDir, 13, TermKind::kExact, "XD", false},
    {field::kFSSize, 14, TermKind::kNone, "", true},
    {field::kFSCreationDate, 15, TermKind::kNone, "", true},
    {field::kFSContentChangeDate, 16, TermKind::kNone, "", true},
    {field::kAttributeChangeDate, 17, TermKind::kNone, "", true},
    {field::kOwnerUserID, 18, TermKind::kExact, "XU", false},
    {field::kOwnerGroupID, 19, TermKind::kExact, "XG", false},
    {field::kParent, 20, TermKind::kExact, "XF", false},
    {field::kSearchFileName, 21, TermKind::kFreeText, "XN", false},
    {field::kTextContent, kNoSlot, TermKind::kFreeText, "", false},
};

// Xapian refuses terms above 245 bytes.
constexpr size_t kMaxTermBytes = 240;

uint64_t Fnv1a(const std::string &text) {
    uint64_t hash = 14695981039346656037ull;
    for (unsigned char c : text) hash = (hash ^ c) * 1099511628211ull;
    return hash;
}

}  // namespace

const FieldLayout *FieldLayouts(size_t *count) {
    *count = sizeof kLayouts / sizeof kLayouts[0];
    return kLayouts;
}

const FieldLayout *FindLayout(const std::string &field) {
    for (const FieldLayout &layout : kLayouts)
        if (field == layout.field) return &layout;
    return nullptr;
}

std::string BoundedTerm(const std::string &prefix, const std::string &value) {
    if (prefix.size() + value.size() <= kMaxTermBytes) return prefix + value;
    char hash[24];
    std::snprintf(hash, sizeof hash, "#%016llx", static_cast<unsigned long long>(Fnv1a(value)));
    return prefix + value.substr(0, kMaxTermBytes - prefix.size() - 17) + hash;
}

}  // namespace xap
}  // namespace zarnd
