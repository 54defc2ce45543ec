// Sorting hits by stored fields through the value slots filled when
// indexing: one key is Xapian's own sort by value, which every kind of
// database runs, remote ones too; several keys join through a
// MultiValueKeyMaker.
#ifndef ZARND_XAPIAN_SORT_H
#define ZARND_XAPIAN_SORT_H

#include <memory>
#include <vector>

#include <xapian.h>

#include "engine.h"

namespace zarnd {
namespace xap {

// Sets the order of `enquire`: by the keys, then by relevance.  Failure
// kBadRequest for a field that is not kept for sorting.  *maker receives the
// key maker of a sort on several keys; it must outlive the match.
void SetSortOrder(const std::vector<SortKey> &keys, Xapian::Enquire *enquire,
                  std::unique_ptr<Xapian::MultiValueKeyMaker> *maker);

// The key maker of the keys, whatever their number; Failure kBadRequest as
// above.
std::unique_ptr<Xapian::MultiValueKeyMaker> KeyMakerOf(const std::vector<SortKey> &keys);

// The slot that the first key sorts by.
Xapian::valueno FirstSlot(const std::vector<SortKey> &keys);

}  // namespace xap
}  // namespace zarnd

#endif  // ZARND_XAPIAN_SORT_H
