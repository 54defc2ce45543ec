#include "search_request.h"

#include <cstdint>
#include <limits>

#include "zarncontentsearchutils.h"

namespace zarn {

namespace {
// What the library passes to FILEIDXGetIndexID, NUL included.
constexpr int kIndexIdStorage = 4097;
}  // namespace

bool PageInRange(int page, int page_size) {
    const int64_t from = static_cast<int64_t>(page) * page_size;
    return from >= std::numeric_limits<int>::min() && from <= std::numeric_limits<int>::max();
}

bool BuildSearchRequest(const char *share, const char *query, int page, int page_size,
                        Json::Value *request) {
    char index_id[kIndexIdStorage] = {};
    if (FILEIDXGetIndexID(share, index_id, kIndexIdStorage) <= 0) return false;

    Json::Value data(Json::objectValue);
    data["from"] = page * page_size;
    data["size"] = page_size;
    data["indice"].append(index_id);
    data["query_string"]["query"] = query;

    *request = Json::Value(Json::objectValue);
    (*request)["command"] = "search";
    (*request)["data"] = std::move(data);
    return true;
}

}  // namespace zarn
