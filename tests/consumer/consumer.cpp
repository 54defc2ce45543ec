// A program built outside the source tree against the installed library:
// the headers compile, the library and what it needs from its host load,
// and a few calls give their documented results without a daemon.
#include <stdio.h>
#include <string.h>

#include "zarn_connection.h"
#include "zarncontentsearchutils.h"
#include "zarnplatform.h"

int main() {
    int failures = 0;
    char index_id[64] = {0};
    if (FILEIDXGetIndexID("music", index_id, sizeof index_id) != 1 ||
        strcmp(index_id, "fileindex_music") != 0) {
        fprintf(stderr, "FILEIDXGetIndexID gave '%s'\n", index_id);
        ++failures;
    }
    // No daemon listens: Init keeps the handle and reports the connection.
    ZARNQueryHandle *handle = nullptr;
    if (ZARNQueryConnectionInit(&handle) != ZARN_ERR_CONNECT || handle == nullptr) {
        fprintf(stderr, "ZARNQueryConnectionInit did not report the missing daemon\n");
        ++failures;
    }
    ZARNQueryConnectionClose(handle);
    // Builds its request with JsonCpp, which must come from this program.
    const char *field = "ZARNMDTitle";
    ZARNQueryDocumentFieldValue value;
    if (ZARNQueryDocumentFieldGet("music", 1, &field, 1, &value) != ZARN_ERR_WRITE) {
        fprintf(stderr, "ZARNQueryDocumentFieldGet did not fail to write\n");
        ++failures;
    }
    if (failures == 0) printf("consumer: ok\n");
    return failures == 0 ? 0 : 1;
}
