// Documents made by their own libraries, for the tests and the benches:
// PDFs through cairo, zipped office documents and e-books through libarchive,
// web pages as text.  Every function writes `path` and returns false when
// it cannot.
#ifndef ZARND_BENCH_DOCUMENTS_H
#define ZARND_BENCH_DOCUMENTS_H

#include <string>
#include <utility>
#include <vector>

namespace zarnbench {

struct DocumentProperties {
    std::string title, author, subject, keywords, creator;
    std::string created, modified;  // ISO 8601, "2021-03-04T05:06:07Z"
};

// One page per element of `pages`.
bool WritePdf(const std::string &path, const DocumentProperties &properties, const std::vector<std::string> &pages);

// A zip holding `entries` (name, content) in that order, deflated.
bool WriteZip(const std::string &path, const std::vector<std::pair<std::string, std::string>> &entries);

// A document of `kind` (docx, xlsx, pptx, odt, ods, odp, epub, html) whose
// text is `body`.  Office and e-book kinds are zips made by WriteZip.
bool WriteDocument(const std::string &path, const std::string &kind, const DocumentProperties &properties,
                   const std::string &body);

// Frees what cairo and fontconfig keep for the life of the process, so that
// a leak checker sees nothing left at the end of a test.
void ReleaseFontCaches();

}  // namespace zarnbench

#endif  // ZARND_BENCH_DOCUMENTS_H
