// The platform's error slot: the last code recorded on this thread, with
// where it was raised.
#include "zarnplatform.h"

namespace {

struct ErrorSlot {
    int code = 0;
    const char *file = nullptr;
    int line = 0;
};

thread_local ErrorSlot slot;

}  // namespace

extern "C" void KOREErrSetEx(int code, const char *szFile, int line) {
    slot.code = code;
    slot.file = szFile;
    slot.line = line;
}

extern "C" int KOREErrGet(void) { return slot.code; }
