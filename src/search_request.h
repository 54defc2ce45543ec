// The "search" request as the library's own entry points build it, before
// the rewrite completes it.
#ifndef ZARN_SEARCH_REQUEST_H
#define ZARN_SEARCH_REQUEST_H

#include <json/value.h>

namespace zarn {

// True when page * page_size fits the request's signed 32-bit "from".
bool PageInRange(int page, int page_size);

// {"command": "search", "data": {"from", "size", "indice": [the share's index
// identifier], "query_string": {"query"}}}.  `share` and `query` are not
// null and the page is in range.  False when no index identifier could be
// formed for the share.  Throws std::bad_alloc only.
bool BuildSearchRequest(const char *share, const char *query, int page, int page_size,
                        Json::Value *request);

}  // namespace zarn

#endif  // ZARN_SEARCH_REQUEST_H
