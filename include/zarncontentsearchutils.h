/*
 * libzarncontentsearchutils: client library of the content-search package.
 *
 *  - Streaming search:  ZARNQueryConnectionInit, ZARNQueryConnectionOpen, then
 *    ZARNQueryCount / ZARNQueryGetNextRecord / ZARNQueryFetchNext, and finally
 *    ZARNQueryConnectionClose.
 *  - Callback search:   ZARNSearchQuerySend.
 *  - Document fields:   ZARNQueryDocumentFieldGet.
 *  - Index locations and indexed-folder checks: the FILEIDX functions.
 *
 * Ownership at a glance:
 *  - A ZARNQueryHandle belongs to the caller from ZARNQueryConnectionInit until
 *    ZARNQueryConnectionClose (which accepts null).  Init stores the handle even
 *    when it then fails to connect (-2): close it all the same.
 *  - A record returned by ZARNQueryGetNextRecord or ZARNQueryFetchNext belongs
 *    to the caller until ZARNQueryFreeRecord (which accepts null).  Never free()
 *    a record or its texts.
 *  - A record handed to a search callback belongs to the library and is freed
 *    as soon as the callback returns: copy what you want to keep.
 *  - Every output buffer, sorter array and value array passed in belongs to the
 *    caller; the library only reads or fills it during the call.
 *
 * Threads: the library starts none.  A handle serves one thread at a time; the
 * indexed-folder checks share process-wide caches and are for one thread at a
 * time.  ZARNQueryConnectionInit sets SIGPIPE to be ignored, process-wide.
 *
 * The header compiles as C99 and as C++.
 */
#ifndef ZARNCONTENTSEARCHUTILS_H
#define ZARNCONTENTSEARCHUTILS_H

#include <stdint.h>
#include <sys/select.h>
#include <sys/time.h>

#ifndef __cplusplus
#include <stdbool.h>
#endif

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define ZARN_EXPORT __attribute__((visibility("default")))
#else
#define ZARN_EXPORT
#endif

/* Result codes of the int-returning search and document functions.
 * No function returns -3. */
#define ZARN_OK 0                 /* success; for GetNextRecord also end of hits */
#define ZARN_ERR_INVALID (-1)     /* missing or out-of-range argument, null handle */
#define ZARN_ERR_CONNECT (-2)     /* daemon socket not created, connected or configured */
#define ZARN_ERR_FORMAT (-4)      /* reply not JSON, not an object, lacks a member, or reports failure */
#define ZARN_ERR_INDEX_ID (-5)    /* no index identifier could be formed for the share */
#define ZARN_ERR_WRITE (-6)       /* the request packet could not be written */
#define ZARN_ERR_READ (-7)        /* a reply packet could not be read (time-out included) */
#define ZARN_ERR_NO_MEMORY (-8)   /* memory could not be allocated */

/* The same numbers, as the connection class reports them. */
typedef enum _tag_connection_error {
    CONNECTION_ERROR_NONE = 0,
    CONNECTION_ERROR_INVALID = -1,
    CONNECTION_ERROR_CONNECT = -2,
    CONNECTION_ERROR_FORMAT = -4,
    CONNECTION_ERROR_WRITE = -6,
    CONNECTION_ERROR_READ = -7
} _tag_connection_error;

/* Options of a search, a set of bits.  Only bit 0 has a meaning. */
typedef enum ConnectionFlag {
    CONNECTION_FLAG_NONE = 0,
    CONNECTION_FLAG_HIGHLIGHT = 1 /* return text content and a highlighted fragment */
} ConnectionFlag;

/* One sort key.  The caller owns the array and the field texts. */
#define SORTER_OPTION_DESC 1u        /* descending; clear means ascending */
#define SORTER_OPTION_NATURE_SORT 2u /* numbers inside texts compare by value */
typedef struct ZARNQuerySorter {
    uint32_t options;
    const char *field; /* must not be null */
} ZARNQuerySorter;

/* One search hit.  Built by the library; released only with
 * ZARNQueryFreeRecord (or by the library itself for callback searches).
 * Texts are cut by bytes, never rejected, and always NUL-terminated. */
#define ZARN_RECORD_PATH_MAX 4096      /* path and fs_name: at most 4095 bytes of text */
#define ZARN_RECORD_EXTENSION_MAX 16   /* extension: at most 15 bytes of text */
#define ZARN_RECORD_HIGHLIGHT_MAX 350  /* highlight: at most 349 bytes of text */
typedef struct _tag_search_record {
    char *path;        /* owned array of 4097 bytes */
    char *fs_name;     /* owned array of 4097 bytes */
    char extension[ZARN_RECORD_EXTENSION_MAX];
    int is_dir;        /* 1 when the hit is a directory */
    int doc_id;        /* internal document id; 0 when the hit carries none */
    char *highlight;   /* owned array of 351 bytes, or null without highlight */
} _tag_search_record;

/* Handle of the streaming API.  Allocated by ZARNQueryConnectionInit, freed by
 * ZARNQueryConnectionClose.  Callers read it but should not change it. */
typedef struct ZARNQueryHandle {
    int fd;          /* socket to the daemon; negative when none was created */
    fd_set read_fds; /* set used by ZARNQueryFetchNext to wait */
    int total;       /* total of the search; -1 until the header was read */
} ZARNQueryHandle;

/* Types of metadata fields; 0 in a value record means "no value". */
typedef enum ZARNQueryDocumentFieldType {
    DOCUMENT_FIELD_TYPE_INT = 1,
    DOCUMENT_FIELD_TYPE_DOUBLE = 2,
    DOCUMENT_FIELD_TYPE_BOOL = 3,
    DOCUMENT_FIELD_TYPE_STRING = 4
} ZARNQueryDocumentFieldType;

#define ZARN_FIELD_STRING_MAX 350 /* bytes of text in string_value, NUL excluded */

/* One output record of ZARNQueryDocumentFieldGet.  Holds no pointers: the
 * caller owns the array and nothing in it needs releasing. */
typedef struct ZARNQueryDocumentFieldValue {
    ZARNQueryDocumentFieldType type; /* 0 when no value was delivered */
    union {
        int64_t int_value;
        double double_value;
        bool bool_value;
        char string_value[ZARN_FIELD_STRING_MAX + 1];
    } value; /* all zero when type is 0 */
} ZARNQueryDocumentFieldValue;

/* A search callback: called once per hit; return false to stop the search.
 * The record is freed when the callback returns. */
typedef bool (*ZARNSearchCallback)(const _tag_search_record *record, void *user_data);

/* ---- Streaming search ---------------------------------------------------- */

/* Allocates a handle, stores it through *handle (even on -2), connects it to
 * the search daemon with 20-second time-outs.  0, -2, or -8 (*handle null);
 * -1 when handle itself is null. */
ZARN_EXPORT int ZARNQueryConnectionInit(ZARNQueryHandle **handle);

/* Closes the socket and frees the handle.  Null is a no-op. */
ZARN_EXPORT void ZARNQueryConnectionClose(ZARNQueryHandle *handle);

/* Sends one search for the share's index.  0, -1, -5, -6 or -8. */
ZARN_EXPORT int ZARNQueryConnectionOpen(ZARNQueryHandle *handle, const char *share,
                                        const char *query, ZARNQuerySorter *sorters,
                                        int sorter_count, int page, int page_size,
                                        const char *agent, unsigned int uid,
                                        ConnectionFlag flags);

/* Reads the next reply packet.  0 with *record set for a hit, 0 with *record
 * untouched at the end of the hits; -1, -4, -7 or -8 on failure. */
ZARN_EXPORT int ZARNQueryGetNextRecord(ZARNQueryHandle *handle, _tag_search_record **record);

/* Waits up to timeout for a packet, then reads like ZARNQueryGetNextRecord.
 * Returns the next hit, or null at the end, on time-out or on failure
 * (memory running out included). */
ZARN_EXPORT _tag_search_record *ZARNQueryFetchNext(ZARNQueryHandle *handle, struct timeval timeout);

/* The total of the search, reading the header if needed; 0 when unknown
 * (the header could not be read or parsed, or memory ran out). */
ZARN_EXPORT int ZARNQueryCount(ZARNQueryHandle *handle);

/* Releases a record from the readers above.  Null is a no-op. */
ZARN_EXPORT void ZARNQueryFreeRecord(_tag_search_record *record);

/* ---- Callback search ----------------------------------------------------- */

/* Runs one search on a fresh connection and hands each hit to callback.
 * 1 on success; 0 on failure with the code stored in *error_code
 * (untouched on success; nothing stored when error_code is null).
 * A null agent is sent as the empty string.  An exception thrown by a C++
 * callback passes through to the caller, after the record was freed and the
 * connection closed; nothing of the library's own escapes (-8 when memory
 * runs out). */
ZARN_EXPORT int ZARNSearchQuerySend(const char *share, const char *query, int page_size,
                                    int page, ZARNSearchCallback callback, void *user_data,
                                    const char *agent, unsigned int uid, int *error_code);

/* ---- Document fields ----------------------------------------------------- */

/* Fetches document doc_id of the share's index and fills values[i] with the
 * typed value of field_names[i].  Every call opens (and closes) its own
 * connection to the daemon, even one that is then refused.
 *  0   the reply was accepted, even if no record received a value;
 *  -1  share is null, or field_count > 0 with values or field_names null
 *      (nothing is sent);
 *  -4  the reply is not a JSON object, reports failure or lacks "data";
 *  -5  no index identifier; -6 the request could not be written;
 *  -7  no reply could be read (20-second time-out included);
 *  -8  memory ran out (the handle, or while building the request or reading
 *      the reply); no exception leaves this function.
 * Records are zeroed first and stay zeroed on any failure; a record with
 * type 0 received no value: a key unknown to the library (a null entry of
 * field_names counts as one), a field absent or null in the document, or a
 * value of the wrong JSON type. */
ZARN_EXPORT int ZARNQueryDocumentFieldGet(const char *share, int doc_id,
                                          const char *const *field_names, int field_count,
                                          ZARNQueryDocumentFieldValue *values);

/* ---- Index locations ----------------------------------------------------- */

/* Writes "fileindex_<share>" (cut to cbOutLen).  1, or 0 on an argument error. */
ZARN_EXPORT int FILEIDXGetIndexID(const char *szShareName, char *szIndexID, int cbOutLen);

/* "<share path>/@eaDir/ZARN@.fileindexdb", creating both directories.
 * Returns the length written, or -1. */
ZARN_EXPORT int FILEIDXDBPathCompose(const char *szSharePath, char *szOutDBPath, int cbOutLen);
ZARN_EXPORT int FILEIDXDBPathGet(const char *szName, char *szOutDBPath, int cbOutLen);

/* "<share path>/@eaDir/ZARN@file_index_queue" (the queue is not created).
 * Returns the length written, or -1. */
ZARN_EXPORT int FILEIDXQueuePathCompose(const char *szSharePath, char *szOutQueuePath, int cbOutLen);
ZARN_EXPORT int FILEIDXQueuePathGet(const char *szName, char *szOutQueuePath, int cbOutLen);

/* ---- Indexed-folder checks: 1 yes, 0 no (failures answer 0) --------------- */
/* bReload: exactly 1 re-reads the folder list; exactly 0 lets cached share
 * locations answer.  The forms without Ex pass 1. */
ZARN_EXPORT int FILEIDXIsShareIndexedEx(const char *szShareName, int bReload);
ZARN_EXPORT int FILEIDXIsShareIndexed(const char *szShareName);
ZARN_EXPORT int FILEIDXIsPathIndexedEx(const char *szPath, int bReload);
ZARN_EXPORT int FILEIDXIsPathIndexed(const char *szPath);
ZARN_EXPORT int FILEIDXIsFullPathIndexedEx(const char *szFullPath, int bReload);
ZARN_EXPORT int FILEIDXIsFullPathIndexed(const char *szFullPath);
ZARN_EXPORT int FILEIDXIsPathContainIndexedEx(const char *szPath, int bReload);
ZARN_EXPORT int FILEIDXIsPathContainIndexed(const char *szPath);

#ifdef __cplusplus
}
#endif

#endif /* ZARNCONTENTSEARCHUTILS_H */
