// The requests that clients send, read from their JSON form into plain
// structures.  Anything malformed is a Failure kBadRequest naming the member.
#ifndef ZARND_REQUEST_H
#define ZARND_REQUEST_H

#include <cstdint>
#include <string>

#include <json/value.h>

#include "engine.h"

namespace zarnd {

constexpr uint32_t kDefaultPageSize = 10;
constexpr uint32_t kMaxPageSize = 10000;
constexpr size_t kDefaultFragLength = 350;
constexpr size_t kMaxFragLength = 65536;
constexpr size_t kMaxListEntries = 64;  // fields, sort keys, highlights, filters

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
