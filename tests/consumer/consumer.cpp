// A program built outside the source tree against the installed library:
// the headers compile, the library and what it needs from its host load,
// and a few calls give their documented results without a daemon.
#include <stdio.h>
#include <string.h>

#include "zarn_connection.h"
#include "zarncontentsearchutils.h"
#include "zarnplatform.h"

int main() {
    char index_id[64] = {0};
    const bool id_ok = FILEIDXGetIndexID("music", index_id, sizeof index_id) == 1 &&
                       strcmp(index_id, "fileindex_music") == 0;
    // No daemon listens: Init keeps the handle and reports the connection.
    ZARNQueryHandle *handle = nullptr;
    const bool init_ok = ZARNQueryConnectionInit(&handle) == ZARN_ERR_CONNECT && handle != nullptr;
    ZARNQueryConnectionClose(handle);
    // Builds its request with JsonCpp, which must come from this program.
    const char *field = "ZARNMDTitle";
    ZARNQueryDocumentFieldValue value;
    const bool get_ok = ZARNQueryDocumentFieldGet("music", 1, &field, 1, &value) == ZARN_ERR_WRITE;
    printf("consumer: index id %d, init %d, field get %d (1 is ok)\n", id_ok, init_ok, get_ok);
    return id_ok && init_ok && get_ok ? 0 : 1;
}
