/* The C header, compiled as strict C99, and every exported C function called
 * from C: argument errors, the paths without a daemon (none listens in the
 * sandbox), and the index locations and checks over a one-share table. */
#define _POSIX_C_SOURCE 200809L

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "zarncontentsearchutils.h"

static int failures = 0;

#define CHECK(condition) \
    ((condition) ? (void)0 : (void)(++failures, fprintf(stderr, "line %d: %s\n", __LINE__, #condition)))

static bool count_hit(const _tag_search_record *record, void *user_data) {
    return record != NULL && ++*(int *)user_data > 0;
}

static int write_file(const char *path, const char *text) {
    FILE *file = fopen(path, "w");
    return file != NULL && fputs(text, file) >= 0 && fclose(file) == 0;
}

int main(void) {
    ZARNQuerySorter sorter = {SORTER_OPTION_DESC | SORTER_OPTION_NATURE_SORT, "ZARNMDFSName"};
    struct timeval no_wait = {0, 0};
    _tag_search_record *record = NULL;
    ZARNQueryHandle *handle = NULL;
    const char *names[2] = {"ZARNMDFSName", "ZARNMDUnknown"};
    ZARNQueryDocumentFieldValue values[2];
    int hits = 0, code = 12345;
    char out[128];

    if (getenv("ZARN_TEST_SANDBOX") == NULL || mkdir("/var/run/music", 0755) != 0 ||
        !write_file("/var/run/shares", "music\t/var/run/music\n") || setenv("ZARN_SHARE_TABLE", "/var/run/shares", 1) != 0 ||
        !write_file("/var/packages/Norvex/etc/fileindex.folders", "[{\"path\": \"/music/pop\"}]")) {
        fputs("run me inside tests/support/sandbox.sh\n", stderr);
        return 1;
    }
    CHECK(sizeof values[0].value.string_value == ZARN_FIELD_STRING_MAX + 1 && sizeof values[0].value.bool_value == 1);
    CHECK(sizeof(_tag_search_record) == 48 && sizeof(ConnectionFlag) == 4);

    CHECK(ZARNQueryConnectionInit(NULL) == ZARN_ERR_INVALID);
    CHECK(ZARNQueryConnectionInit(&handle) == ZARN_ERR_CONNECT && handle != NULL && handle->total == -1);
    CHECK(ZARNQueryConnectionOpen(handle, "music", "q", NULL, 0, 0, 0, "a", 1, CONNECTION_FLAG_NONE) == ZARN_ERR_INVALID);
    CHECK(ZARNQueryConnectionOpen(NULL, "music", "q", NULL, 0, 0, 10, "a", 1, CONNECTION_FLAG_NONE) == ZARN_ERR_INVALID);
    CHECK(ZARNQueryConnectionOpen(handle, "music", "q", &sorter, 1, 0, 10, "a", 1, CONNECTION_FLAG_HIGHLIGHT) ==
          ZARN_ERR_WRITE);
    CHECK(ZARNQueryGetNextRecord(handle, NULL) == ZARN_ERR_INVALID && ZARNQueryGetNextRecord(NULL, &record) == ZARN_ERR_INVALID);
    CHECK(ZARNQueryGetNextRecord(handle, &record) == ZARN_ERR_READ && record == NULL);
    CHECK(ZARNQueryFetchNext(handle, no_wait) == NULL && ZARNQueryFetchNext(NULL, no_wait) == NULL);
    CHECK(ZARNQueryCount(handle) == 0 && ZARNQueryCount(NULL) == 0);
    ZARNQueryFreeRecord(NULL);
    ZARNQueryConnectionClose(handle);
    ZARNQueryConnectionClose(NULL);

    CHECK(ZARNSearchQuerySend("music", "q", 10, 0, count_hit, &hits, "a", 1, NULL) == 0);
    CHECK(ZARNSearchQuerySend("music", "q", 10, 0, NULL, &hits, "a", 1, &code) == 0 && code == ZARN_ERR_INVALID);
    CHECK(ZARNSearchQuerySend("music", "q", 10, 0, count_hit, &hits, NULL, 1, &code) == 0 && code == ZARN_ERR_CONNECT);
    CHECK(hits == 0);

    memset(values, 0xAB, sizeof values);
    CHECK(ZARNQueryDocumentFieldGet("music", 1, NULL, 2, values) == ZARN_ERR_INVALID);
    CHECK(ZARNQueryDocumentFieldGet(NULL, 1, names, 2, values) == ZARN_ERR_INVALID && values[1].type == 0);
    CHECK(ZARNQueryDocumentFieldGet("music", 1, names, 2, values) == ZARN_ERR_WRITE && values[0].type == 0);

    CHECK(FILEIDXGetIndexID("music", out, sizeof out) == 1 && strcmp(out, "fileindex_music") == 0);
    CHECK(FILEIDXQueuePathCompose("/var/run/music", NULL, sizeof out) == -1 && FILEIDXDBPathGet("nosuch", out, 9) == -1);
    CHECK(FILEIDXDBPathCompose("/var/run/music", out, sizeof out) == 39 &&
          strcmp(out, "/var/run/music/@eaDir/ZARN@.fileindexdb") == 0);
    CHECK(FILEIDXQueuePathGet("music", out, 10) == 9 && strcmp(out, "/var/run/") == 0); /* cut to fit */
    CHECK(FILEIDXIsShareIndexed("music") == 1 && FILEIDXIsShareIndexedEx("movies", 1) == 0);
    CHECK(FILEIDXIsPathIndexed("/music/pop/song") == 1 && FILEIDXIsPathIndexedEx("/music/rock", 0) == 0);
    CHECK(FILEIDXIsFullPathIndexed("/var/run/music/pop") == 1 && FILEIDXIsFullPathIndexedEx("/var/run/music", 0) == 0);
    CHECK(FILEIDXIsPathContainIndexed("/music") == 1 && FILEIDXIsPathContainIndexedEx("/music/rock", 1) == 0);
    return failures == 0 ? 0 : 1;
}
