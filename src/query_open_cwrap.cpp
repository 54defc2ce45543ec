// ZARNQueryConnectionOpen: sends one search on a connected query handle.
// Every outcome is told by the result alone; nothing is logged here.
#include <exception>
#include <string>

#include "json_text.h"
#include "search_request.h"
#include "zarn_connection.h"
#include "zarncontentsearchutils.h"
#include "zarnplatform.h"

namespace {

// The rewrite turns the agent and every sort key it reads into JSON strings;
// a null there is the caller's mistake, refused before anything is sent.
bool RewriteArgumentsValid(const ZARNQuerySorter *sorters, int sorter_count, const char *agent) {
    if (agent == nullptr) return false;
    if (sorter_count <= 0) return true;
    if (sorters == nullptr) return false;
    for (int i = 0; i < sorter_count; ++i)
        if (sorters[i].field == nullptr) return false;
    return true;
}

}  // namespace

extern "C" int ZARNQueryConnectionOpen(ZARNQueryHandle *handle, const char *share,
                                       const char *query, ZARNQuerySorter *sorters,
                                       int sorter_count, int page, int page_size,
                                       const char *agent, unsigned int uid,
                                       ConnectionFlag flags) {
    if (handle == nullptr || share == nullptr || query == nullptr || page < 0 || page_size < 1 ||
        !zarn::PageInRange(page, page_size) ||
        !RewriteArgumentsValid(sorters, sorter_count, agent)) {
        return ZARN_ERR_INVALID;
    }
    try {
        Json::Value request;
        if (!zarn::BuildSearchRequest(share, query, page, page_size, &request))
            return ZARN_ERR_INDEX_ID;
        const Json::Value completed = ZARN::IR::DAEMON::Connection::RewriteSearchQuery(
            request, uid, agent, sorters, sorter_count, flags);
        if (!zarndaemon::io::PacketWrite(handle->fd, zarn::json::ToString(completed)))
            return ZARN_ERR_WRITE;
        return ZARN_OK;
    } catch (const std::exception &) {
        // With the arguments checked, what is left to throw is memory running
        // out: std::bad_alloc, or JsonCpp's error when its malloc fails.
        return ZARN_ERR_NO_MEMORY;
    }
}
