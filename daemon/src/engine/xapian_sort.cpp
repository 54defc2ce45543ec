#include "xapian_sort.h"

#include "failure.h"
#include "xapian_layout.h"

namespace zarnd {
namespace xap {

namespace {

Xapian::valueno SlotOf(const SortKey &key) {
    const FieldLayout *layout = FindLayout(key.field);
    if (layout == nullptr || layout->slot == Xapian::BAD_VALUENO)
        throw Failure(kBadRequest, "cannot sort on field " + key.field);
    // Numbers already sort by value.
    return key.natural && layout->natural_slot != Xapian::BAD_VALUENO ? layout->natural_slot : layout->slot;
}

}  // namespace

void SetSortOrder(const std::vector<SortKey> &keys, Xapian::Enquire *enquire,
                  std::unique_ptr<Xapian::MultiValueKeyMaker> *maker) {
    if (keys.empty()) return;
    if (keys.size() == 1) {
        enquire->set_sort_by_value_then_relevance(SlotOf(keys[0]), keys[0].descending);
        return;
    }
    *maker = KeyMakerOf(keys);
    enquire->set_sort_by_key_then_relevance(maker->get(), false);
}

std::unique_ptr<Xapian::MultiValueKeyMaker> KeyMakerOf(const std::vector<SortKey> &keys) {
    std::unique_ptr<Xapian::MultiValueKeyMaker> maker(new Xapian::MultiValueKeyMaker);
    for (const SortKey &key : keys) maker->add_value(SlotOf(key), key.descending);
    return maker;
}

Xapian::valueno FirstSlot(const std::vector<SortKey> &keys) { return SlotOf(keys.at(0)); }

}  // namespace xap
}  // namespace zarnd
