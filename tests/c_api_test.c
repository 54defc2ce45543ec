/* The C header compiled as strict C99, and every exported C function called
 * once from C (no daemon listens in the sandbox; the C++ tests pin what the
 * calls answer, this one only the answers a C caller depends on). */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "zarncontentsearchutils.h"

static int failures = 0;

#define CHECK(condition) ((condition) ? (void)0 : (void)(++failures, fprintf(stderr, "line %d: %s\n", __LINE__, #condition)))

static bool count_hit(const _tag_search_record *record, void *user_data) { return record && ++*(int *)user_data; }

int main(void) {
    ZARNQuerySorter sorter = {SORTER_OPTION_DESC | SORTER_OPTION_NATURE_SORT, "ZARNMDFSName"};
    _tag_search_record *record = NULL;
    ZARNQueryHandle *handle = NULL;
    ZARNQueryDocumentFieldValue values[1];
    int hits = 0, code = 12345;
    char out[128];

    if (getenv("ZARN_TEST_SANDBOX") == NULL) return 1; /* it creates directories under /var */
    CHECK(sizeof values[0].value.string_value == ZARN_FIELD_STRING_MAX + 1 && sizeof(_tag_search_record) == 48);
    CHECK(ZARNQueryConnectionInit(&handle) == ZARN_ERR_CONNECT && handle != NULL &&
          ZARNQueryConnectionOpen(handle, "music", "q", &sorter, 1, 0, 10, "a", 1, CONNECTION_FLAG_HIGHLIGHT) == ZARN_ERR_WRITE &&
          ZARNQueryGetNextRecord(handle, &record) == ZARN_ERR_READ && record == NULL &&
          ZARNQueryFetchNext(handle, (struct timeval){0, 0}) == NULL && ZARNQueryCount(handle) == 0);
    ZARNQueryFreeRecord(NULL), ZARNQueryConnectionClose(handle);
    CHECK(ZARNSearchQuerySend("music", "q", 10, 0, count_hit, &hits, "a", 1, &code) == 0 && code == ZARN_ERR_CONNECT);
    CHECK(ZARNQueryDocumentFieldGet("music", 1, (const char *[]){"ZARNMDFSName"}, 1, values) == ZARN_ERR_WRITE && values[0].type == 0);
    CHECK(FILEIDXGetIndexID("music", out, sizeof out) == 1 && strcmp(out, "fileindex_music") == 0);
    CHECK(FILEIDXDBPathCompose("/var/run", out, sizeof out) == 33 && FILEIDXQueuePathCompose("/var/run", out, 9) == 8 &&
          FILEIDXDBPathGet("nosuch", out, 9) == -1 && FILEIDXQueuePathGet("nosuch", out, 9) == -1);
    CHECK(FILEIDXIsShareIndexed("music") + FILEIDXIsShareIndexedEx("music", 0) + FILEIDXIsPathIndexed("/music/a") +
          FILEIDXIsPathIndexedEx("/music/a", 0) + FILEIDXIsFullPathIndexed("/a") + FILEIDXIsFullPathIndexedEx("/a", 0) +
          FILEIDXIsPathContainIndexed("/music") + FILEIDXIsPathContainIndexedEx("/music", 0) == 0);
    return failures == 0 ? 0 : 1;
}
