// ZARNSearchQuerySend: one callback search on a fresh connection to the
// search daemon.  It logs nothing itself; the connection logs its failures.
#include <exception>
#include <string>

#include "daemon_socket.h"
#include "search_request.h"
#include "zarn_connection.h"
#include "zarncontentsearchutils.h"

namespace {

// Passes each hit on to the caller's callback and remembers whether an
// exception is on its way out of it: that one belongs to the caller and
// goes on, while the library's own failures become codes.
struct CallerCallback {
    ZARNSearchCallback callback;
    void *user_data;
    bool inside = false;

    static bool Call(const _tag_search_record *record, void *self) {
        CallerCallback *caller = static_cast<CallerCallback *>(self);
        caller->inside = true;
        const bool more = caller->callback(record, caller->user_data);
        caller->inside = false;
        return more;
    }
};

int Search(const char *share, const char *query, int page_size, int page, CallerCallback *caller,
           const char *agent, unsigned int uid, int *error_code) {
    const std::string agent_text = agent != nullptr ? agent : "";
    Json::Value request;
    if (!zarn::BuildSearchRequest(share, query, page, page_size, &request)) {
        *error_code = ZARN_ERR_INVALID;
        return 0;
    }
    // Closed by its destructor on every way out.
    ZARN::IR::DAEMON::Connection connection;
    if (!connection.Connect(zarn::kDaemonTimeoutSeconds, CONNECTION_FLAG_NONE)) {
        *error_code = connection.GetError();
        return 0;
    }
    // SendQuery completes the request again with the same user, agent and
    // flag, which gives the same request.
    request = ZARN::IR::DAEMON::Connection::RewriteSearchQuery(request, uid, agent_text.c_str(),
                                                               nullptr, 0, CONNECTION_FLAG_NONE);
    if (connection.SendQuery(request, &CallerCallback::Call, caller, agent_text, uid)) return 1;
    *error_code = connection.GetError();
    return 0;
}

}  // namespace

extern "C" int ZARNSearchQuerySend(const char *share, const char *query, int page_size, int page,
                                   ZARNSearchCallback callback, void *user_data, const char *agent,
                                   unsigned int uid, int *error_code) {
    if (error_code == nullptr) return 0;
    if (share == nullptr || query == nullptr || callback == nullptr || page_size < 0 || page < 0 ||
        !zarn::PageInRange(page, page_size)) {
        *error_code = ZARN_ERR_INVALID;
        return 0;
    }
    CallerCallback caller = {callback, user_data};
    try {
        return Search(share, query, page_size, page, &caller, agent, uid, error_code);
    } catch (const std::exception &) {
        if (caller.inside) throw;
        // The library's own exceptions all say that memory ran out:
        // std::bad_alloc, or JsonCpp's error when its malloc fails.
        *error_code = ZARN_ERR_NO_MEMORY;
        return 0;
    }
}
