/* The C header, compiled as strict C99, and the C interface called from C. */
#include <stdio.h>
#include <string.h>

#include "zarncontentsearchutils.h"

static bool count_hit(const _tag_search_record *record, void *user_data) {
    (void)record;
    ++*(int *)user_data;
    return true;
}

int main(void) {
    ZARNSearchCallback callback = count_hit;
    ZARNQuerySorter sorter = {SORTER_OPTION_DESC | SORTER_OPTION_NATURE_SORT, "ZARNMDFSName"};
    ZARNQueryDocumentFieldValue value;
    ZARNQueryHandle *handle = NULL;
    int code;

    memset(&value, 0, sizeof value);
    (void)callback;
    (void)sorter;
    if (sizeof value.value.string_value != 351 || sizeof value.value.bool_value != 1) return 1;
    if (sizeof(_tag_search_record) != 48 || sizeof(ConnectionFlag) != 4) return 1;

    /* No daemon listens in the sandbox: the handle is stored all the same. */
    code = ZARNQueryConnectionInit(&handle);
    if (code != ZARN_ERR_CONNECT || handle == NULL) {
        fprintf(stderr, "ZARNQueryConnectionInit: %d\n", code);
        return 1;
    }
    ZARNQueryConnectionClose(handle);
    ZARNQueryConnectionClose(NULL);
    puts("C interface: ok");
    return 0;
}
