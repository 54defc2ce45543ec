// Sorting hits by stored fields: a Xapian KeyMaker that joins the requested
// sort keys into one composite key per document.
#ifndef ZARND_XAPIAN_SORT_H
#define ZARND_XAPIAN_SORT_H

#include <vector>

#include <xapian.h>

#include "engine.h"

namespace zarnd {
namespace xap {

class SortKeyMaker : public Xapian::KeyMaker {
public:
    // Failure kBadRequest for a field that is not kept for sorting.
    explicit SortKeyMaker(const std::vector<SortKey> &keys);
    std::string operator()(const Xapian::Document &doc) const override;

private:
    struct Part {
        Xapian::valueno slot;
        bool descending;
        bool natural;
    };
    std::vector<Part> parts_;
};

}  // namespace xap
}  // namespace zarnd

#endif  // ZARND_XAPIAN_SORT_H
