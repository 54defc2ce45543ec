// The requests that clients send, read from their JSON form into plain
// structures.  Anything malformed is a Failure kBadRequest naming the member.
#ifndef ZARND_REQUEST_H
#define ZARND_REQUEST_H

#include <cstdint>
#include <string>

#include <json/value.h>

#include "engine.h"

namespace zarnd {

// Caps on what one request may ask for.  The engine keeps from + size
// entries of a page in memory, and every sort key, highlight and wildcard
// multiplies the work per document, so each is bounded well above what a
// person or the library asks for.
constexpr uint32_t kDefaultPageSize = 10;
constexpr uint32_t kMaxPageSize = 10000;
constexpr uint32_t kMaxPageEnd = 100000;  // from + size
constexpr size_t kDefaultFragLength = 350;
constexpr size_t kMaxFragLength = 65536;
constexpr size_t kMaxFields = 32;  // the schema has 13; repeats are harmless
constexpr size_t kMaxSortKeys = 8;
constexpr size_t kMaxHighlights = 4;
constexpr size_t kMaxFilters = 4;
constexpr size_t kMaxQueryBytes = 4096;
constexpr size_t kMaxQueryWildcards = 32;  // each may expand to many terms

// "data" of a "search".
struct SearchRequest {
    std::string index_id;
    SearchPlan plan;  // reader left null: the caller decides who reads
    bool has_permission_uid = false;
    uint32_t permission_uid = 0;  // "filters": [{"name": "permission", "data": uid}]
    std::string agent;            // "collector"
    bool has_collector_uid = false;
    uint32_t collector_uid = 0;
};

// "data" of a "document_get_by_internal_id".
struct DocumentRequest {
    std::string index_id;
    uint32_t doc_id = 0;
};

SearchRequest ParseSearchRequest(const Json::Value &data);
DocumentRequest ParseDocumentRequest(const Json::Value &data);

}  // namespace zarnd

#endif  // ZARND_REQUEST_H
