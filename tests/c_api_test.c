/* The C header, compiled as strict C99, and every exported C function called
 * from C: argument errors, the paths without a daemon (none listens in the
 * sandbox), and the index locations and checks over a small share table. */
#define _POSIX_C_SOURCE 200809L

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "zarncontentsearchutils.h"

static int failures = 0;

#define CHECK(condition)                                                   \
    do {                                                                   \
        if (!(condition)) {                                                \
            fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #condition); \
            ++failures;                                                    \
        }                                                                  \
    } while (0)

static bool count_hit(const _tag_search_record *record, void *user_data) {
    (void)record;
    ++*(int *)user_data;
    return true;
}

static int write_file(const char *path, const char *text) {
    FILE *file = fopen(path, "w");
    if (file == NULL) return 0;
    fputs(text, file);
    return fclose(file) == 0;
}

static void layout(void) {
    ZARNQueryDocumentFieldValue value;
    CHECK(sizeof value.value.string_value == ZARN_FIELD_STRING_MAX + 1);
    CHECK(sizeof value.value.bool_value == 1);
    CHECK(sizeof(_tag_search_record) == 48);
    CHECK(sizeof(ConnectionFlag) == 4);
}

static void streaming(void) {
    ZARNQuerySorter sorter = {SORTER_OPTION_DESC | SORTER_OPTION_NATURE_SORT, "ZARNMDFSName"};
    struct timeval no_wait = {0, 0};
    _tag_search_record *record = NULL;
    ZARNQueryHandle *handle = NULL;

    CHECK(ZARNQueryConnectionInit(NULL) == ZARN_ERR_INVALID);
    /* Without a daemon the handle is stored all the same. */
    CHECK(ZARNQueryConnectionInit(&handle) == ZARN_ERR_CONNECT);
    CHECK(handle != NULL);
    if (handle == NULL) return;
    CHECK(handle->total == -1);

    CHECK(ZARNQueryConnectionOpen(NULL, "music", "q", NULL, 0, 0, 10, "a", 1, CONNECTION_FLAG_NONE) ==
          ZARN_ERR_INVALID);
    CHECK(ZARNQueryConnectionOpen(handle, "music", "q", NULL, 0, 0, 0, "a", 1, CONNECTION_FLAG_NONE) ==
          ZARN_ERR_INVALID);
    CHECK(ZARNQueryConnectionOpen(handle, "music", "q", &sorter, 1, 0, 10, "a", 1,
                                  CONNECTION_FLAG_HIGHLIGHT) == ZARN_ERR_WRITE);

    CHECK(ZARNQueryGetNextRecord(NULL, &record) == ZARN_ERR_INVALID);
    CHECK(ZARNQueryGetNextRecord(handle, NULL) == ZARN_ERR_INVALID);
    CHECK(ZARNQueryGetNextRecord(handle, &record) == ZARN_ERR_READ);
    CHECK(record == NULL);
    CHECK(ZARNQueryFetchNext(NULL, no_wait) == NULL);
    CHECK(ZARNQueryFetchNext(handle, no_wait) == NULL);
    CHECK(ZARNQueryCount(NULL) == 0);
    CHECK(ZARNQueryCount(handle) == 0);
    ZARNQueryFreeRecord(NULL);
    ZARNQueryConnectionClose(handle);
    ZARNQueryConnectionClose(NULL);
}

static void callback_search(void) {
    int hits = 0;
    int code = 12345;
    CHECK(ZARNSearchQuerySend("music", "q", 10, 0, count_hit, &hits, "a", 1, NULL) == 0);
    CHECK(ZARNSearchQuerySend("music", "q", 10, 0, NULL, &hits, "a", 1, &code) == 0);
    CHECK(code == ZARN_ERR_INVALID);
    CHECK(ZARNSearchQuerySend("music", "q", 10, 0, count_hit, &hits, NULL, 1, &code) == 0);
    CHECK(code == ZARN_ERR_CONNECT);
    CHECK(hits == 0);
}

static void document_fields(void) {
    const char *names[2] = {"ZARNMDFSName", "ZARNMDUnknown"};
    ZARNQueryDocumentFieldValue values[2];
    memset(values, 0xAB, sizeof values);
    CHECK(ZARNQueryDocumentFieldGet(NULL, 1, names, 2, values) == ZARN_ERR_INVALID);
    CHECK(ZARNQueryDocumentFieldGet("music", 1, NULL, 2, values) == ZARN_ERR_INVALID);
    /* The connection is refused, so the request cannot be written. */
    CHECK(ZARNQueryDocumentFieldGet("music", 1, names, 2, values) == ZARN_ERR_WRITE);
    CHECK(values[0].type == 0 && values[1].type == 0);
}

static void index_locations(void) {
    char out[128];
    const char *db = "/var/run/music/@eaDir/ZARN@.fileindexdb";
    const char *queue = "/var/run/music/@eaDir/ZARN@file_index_queue";
    struct stat st;

    CHECK(FILEIDXGetIndexID(NULL, out, sizeof out) == 0);
    CHECK(FILEIDXGetIndexID("music", out, 0) == 0);
    CHECK(FILEIDXGetIndexID("music", out, sizeof out) == 1 && strcmp(out, "fileindex_music") == 0);

    CHECK(FILEIDXDBPathCompose(NULL, out, sizeof out) == -1);
    CHECK(FILEIDXQueuePathCompose("/var/run/music", NULL, sizeof out) == -1);
    CHECK(FILEIDXDBPathGet("music", out, -1) == -1);
    CHECK(FILEIDXQueuePathGet(NULL, out, sizeof out) == -1);
    CHECK(FILEIDXDBPathGet("nosuchshare", out, sizeof out) == -1);

    CHECK(FILEIDXDBPathCompose("/var/run/music", out, sizeof out) == (int)strlen(db));
    CHECK(strcmp(out, db) == 0 && stat(db, &st) == 0 && S_ISDIR(st.st_mode));
    CHECK(FILEIDXQueuePathCompose("/var/run/music", out, sizeof out) == (int)strlen(queue));
    CHECK(strcmp(out, queue) == 0);
    CHECK(FILEIDXDBPathGet("music", out, sizeof out) == (int)strlen(db) && strcmp(out, db) == 0);
    CHECK(FILEIDXQueuePathGet("music", out, sizeof out) == (int)strlen(queue));
    CHECK(FILEIDXQueuePathGet("music", out, 10) == 9); /* cut to fit */
}

static void indexed_checks(void) {
    CHECK(FILEIDXIsShareIndexed(NULL) == 0);
    CHECK(FILEIDXIsPathIndexedEx(NULL, 0) == 0);
    CHECK(FILEIDXIsShareIndexed("music") == 1);
    CHECK(FILEIDXIsShareIndexedEx("movies", 1) == 0);
    CHECK(FILEIDXIsPathIndexed("/music/pop/song") == 1);
    CHECK(FILEIDXIsPathIndexedEx("/music/rock", 0) == 0);
    CHECK(FILEIDXIsFullPathIndexed("/var/run/music/pop") == 1);
    CHECK(FILEIDXIsFullPathIndexedEx("/var/run/music", 0) == 0);
    CHECK(FILEIDXIsPathContainIndexed("/music") == 1);
    CHECK(FILEIDXIsPathContainIndexedEx("/music/rock", 1) == 0);
}

int main(void) {
    if (getenv("ZARN_TEST_SANDBOX") == NULL) {
        fputs("run me inside tests/support/sandbox.sh\n", stderr);
        return 1;
    }
    if (mkdir("/var/run/music", 0755) != 0 ||
        !write_file("/var/run/shares", "music\t/var/run/music\n") ||
        setenv("ZARN_SHARE_TABLE", "/var/run/shares", 1) != 0 ||
        !write_file("/var/packages/Norvex/etc/fileindex.folders", "[{\"path\": \"/music/pop\"}]")) {
        perror("setting up the sandbox");
        return 1;
    }
    layout();
    streaming();
    callback_search();
    document_fields();
    index_locations();
    indexed_checks();
    if (failures != 0) return 1;
    puts("C interface: ok");
    return 0;
}
