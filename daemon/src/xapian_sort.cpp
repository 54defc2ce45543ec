#include "xapian_sort.h"

#include "failure.h"
#include "sort_key.h"
#include "xapian_layout.h"

namespace zarnd {
namespace xap {

SortKeyMaker::SortKeyMaker(const std::vector<SortKey> &keys) {
    for (const SortKey &key : keys) {
        const FieldLayout *layout = FindLayout(key.field);
        if (layout == nullptr || layout->slot == Xapian::BAD_VALUENO)
            throw Failure(kBadRequest, "cannot sort on field " + key.field);
        // Numbers already sort by value.
        parts_.push_back({layout->slot, key.descending, key.natural && !layout->numeric});
    }
}

std::string SortKeyMaker::operator()(const Xapian::Document &doc) const {
    std::string key;
    for (const Part &part : parts_) {
        const std::string value = doc.get_value(part.slot);
        // Texts equal under natural order ("a01", "a1", "A1") still get one
        // fixed order: by their bytes.
        if (part.natural) AppendKeyComponent(&key, NaturalKey(value), part.descending);
        AppendKeyComponent(&key, value, part.descending);
    }
    return key;
}

}  // namespace xap
}  // namespace zarnd
