// A program built outside the source tree against the installed library:
// the headers compile, the library and what it needs from its host load,
// and a few calls give their documented results without a daemon.
#include <string.h>

#include "zarn_connection.h"
#include "zarncontentsearchutils.h"
#include "zarnplatform.h"

int main() {
    char index_id[64] = {0};
    ZARNQueryHandle *handle = nullptr;
    const char *field = "ZARNMDTitle";  // the request is built with JsonCpp, which this program brings
    ZARNQueryDocumentFieldValue value;
    const bool ok = FILEIDXGetIndexID("music", index_id, sizeof index_id) == 1 && !strcmp(index_id, "fileindex_music") &&
                    ZARNQueryConnectionInit(&handle) == ZARN_ERR_CONNECT && handle != nullptr &&
                    ZARNQueryDocumentFieldGet("music", 1, &field, 1, &value) == ZARN_ERR_WRITE;
    ZARNQueryConnectionClose(handle);
    return ok ? 0 : 1;
}
