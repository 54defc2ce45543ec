#include <errno.h>
#include <sys/stat.h>

#include "zarnplatform.h"

extern "C" int ZARNEAMKDir(int /*flags*/, const char *szPath) {
    if (szPath == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (mkdir(szPath, 0777) == 0) return 0;
    struct stat st;
    if (errno == EEXIST && stat(szPath, &st) == 0 && S_ISDIR(st.st_mode)) return 0;
    return -1;
}
