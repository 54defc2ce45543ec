// ZARN::IR::DAEMON::Connection: one connection to the search daemon that
// sends one search and hands every hit to a callback.
//
// Ownership: the object owns its socket (Close and the destructor close it)
// and nothing else.  Records built by BuildRecordFromJson belong to the caller
// and are released only with FreeRecord (null is a no-op).  Records handed to
// a search callback are freed by the object when the callback returns.
// An object serves one thread at a time.
#ifndef ZARN_CONNECTION_H
#define ZARN_CONNECTION_H

#include <string>

#include <json/value.h>

#include "zarncontentsearchutils.h"

namespace ZARN {
namespace IR {
namespace DAEMON {

class ZARN_EXPORT Connection {
public:
    // Both leave the object without a socket and without error; the integer
    // has no meaning.
    Connection();
    explicit Connection(int unused);
    virtual ~Connection();

    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    // Connects to the daemon with send and receive time-outs of `timeout`
    // seconds (0: no limit) and keeps `flag` for later searches.  On failure
    // the error becomes CONNECTION_ERROR_CONNECT and any socket created stays
    // held until Close.  Call Close before connecting again.
    bool Connect(long timeout, ConnectionFlag flag);
    void Close();

    // The last failure of any operation; a later success does not reset it.
    _tag_connection_error GetError() const;
    void SetError(_tag_connection_error value);

    // Completes and sends one search request, then reads the reply, handing
    // each hit to callback(record, user_data) until the stream ends, "total"
    // hits were delivered or the callback returns false.  A request that is
    // not an object, a null callback or an object without a socket give
    // CONNECTION_ERROR_INVALID with nothing written.  An exception from the
    // callback passes through, as does std::bad_alloc (or JsonCpp's error)
    // when memory runs out; the record is freed all the same.
    bool SendQuery(const Json::Value &query, ZARNSearchCallback callback, void *user_data,
                   const std::string &agent, unsigned int uid);
    bool ProcessRepsonse(ZARNSearchCallback callback, void *user_data);

    // Keeps the header's "total" (0 when absent).
    void ProcessSearchResultHeader(const Json::Value &header);

    // A new record from one hit packet; never null.  Throws std::bad_alloc
    // when memory runs out, having freed whatever it had allocated.
    static _tag_search_record *BuildRecordFromJson(const Json::Value &hit);
    static void FreeRecord(_tag_search_record *record);

    // A copy of `request` completed with the permission filter, the
    // collector, the returned fields, the sort keys and, with
    // CONNECTION_FLAG_HIGHLIGHT, the highlight request.
    static Json::Value RewriteSearchQuery(const Json::Value &request, unsigned int uid,
                                          const char *agent, ZARNQuerySorter *sorters,
                                          int sorter_count, ConnectionFlag flags);

private:
    int fd;
    _tag_connection_error error;
    int total;
    ConnectionFlag flag;
};

}  // namespace DAEMON
}  // namespace IR
}  // namespace ZARN

#endif  // ZARN_CONNECTION_H
