// The FILEIDX functions: where a share's file index lives (its identifier for
// the daemon, its database directory and its queue inside the share's
// "@eaDir"), and whether a share or a path is in the indexed-folder list.
#include <sys/stat.h>
#include <sys/types.h>

#include <cstdio>
#include <cstring>

#include "log.h"
#include "zarncontentsearchutils.h"
#include "zarnplatform.h"

namespace {

constexpr char kEaDirName[] = "@eaDir";
constexpr char kDBLeafName[] = "ZARN@.fileindexdb";
constexpr char kQueueLeafName[] = "ZARN@file_index_queue";
constexpr size_t kEaDirPathBytes = 4096;

// An argument error is logged with the text of the failed condition and
// recorded in the platform's error slot, both with this file and line.
#define FILEIDX_CHECK_ARG(condition, failure)                                      \
    do {                                                                           \
        if (!(condition)) {                                                        \
            ZARN_LOG(LOG_ERR, "Invaild Argument (%s)=[%d]\n", #condition, 0);      \
            KOREErrSetEx(ZARN_ERR_INVALID_ARGUMENT, __FILE_NAME__, __LINE__);      \
            return (failure);                                                      \
        }                                                                          \
    } while (0)

// Writes "<share path>/@eaDir/<leaf>" into the caller's buffer, cut to fit,
// after making sure "@eaDir" exists; the database variant also creates the
// leaf directory.  Failures to create are not ours to report: the caller
// gets the path either way.  The arguments have been checked.
int ComposeEaDirPath(const char *share_path, const char *leaf, bool create_leaf, char *out,
                     int out_len) {
    char ea_dir[kEaDirPathBytes];
    std::memset(ea_dir, 0, sizeof ea_dir);
    std::snprintf(ea_dir, sizeof ea_dir, "%s/%s", share_path, kEaDirName);
    ZARNEAMKDir(0, ea_dir);

    std::snprintf(out, static_cast<size_t>(out_len), "%s/%s/%s", share_path, kEaDirName, leaf);
    if (create_leaf) mkdir(out, 0777);
    return static_cast<int>(std::strlen(out));
}

// Looks share `name` up and composes with its path.  -1 when the share
// service does not know it; the output buffer is then untouched.
int ComposeForShare(const char *name, int (*compose)(const char *, char *, int), char *out,
                    int out_len) {
    PZARNSHARE share = nullptr;
    int result;
    if (ZARNShareGet(name, &share) < 0) {
        ZARN_LOG(LOG_ERR, "ZARNShareGet failed, name=%s, code=%d", name, KOREErrGet());
        result = -1;
    } else {
        result = compose(share->szPath, out, out_len);
    }
    if (share != nullptr) ZARNShareFree(share);
    return result;
}

}  // namespace

extern "C" int FILEIDXGetIndexID(const char *szShareName, char *szIndexID, int cbOutLen) {
    FILEIDX_CHECK_ARG(__null != szShareName, 0);
    FILEIDX_CHECK_ARG(__null != szIndexID, 0);
    FILEIDX_CHECK_ARG(cbOutLen > 0, 0);
    std::snprintf(szIndexID, static_cast<size_t>(cbOutLen), "fileindex_%s", szShareName);
    return 1;
}

extern "C" int FILEIDXDBPathCompose(const char *szSharePath, char *szOutDBPath, int cbOutLen) {
    FILEIDX_CHECK_ARG(__null != szSharePath, -1);
    FILEIDX_CHECK_ARG(__null != szOutDBPath, -1);
    FILEIDX_CHECK_ARG(cbOutLen > 0, -1);
    return ComposeEaDirPath(szSharePath, kDBLeafName, true, szOutDBPath, cbOutLen);
}

extern "C" int FILEIDXQueuePathCompose(const char *szSharePath, char *szOutQueuePath,
                                       int cbOutLen) {
    FILEIDX_CHECK_ARG(__null != szSharePath, -1);
    FILEIDX_CHECK_ARG(__null != szOutQueuePath, -1);
    FILEIDX_CHECK_ARG(cbOutLen > 0, -1);
    return ComposeEaDirPath(szSharePath, kQueueLeafName, false, szOutQueuePath, cbOutLen);
}

extern "C" int FILEIDXDBPathGet(const char *szName, char *szOutDBPath, int cbOutLen) {
    FILEIDX_CHECK_ARG(__null != szName, -1);
    FILEIDX_CHECK_ARG(__null != szOutDBPath, -1);
    FILEIDX_CHECK_ARG(cbOutLen > 0, -1);
    return ComposeForShare(szName, FILEIDXDBPathCompose, szOutDBPath, cbOutLen);
}

extern "C" int FILEIDXQueuePathGet(const char *szName, char *szOutQueuePath, int cbOutLen) {
    FILEIDX_CHECK_ARG(__null != szName, -1);
    FILEIDX_CHECK_ARG(__null != szOutQueuePath, -1);
    FILEIDX_CHECK_ARG(cbOutLen > 0, -1);
    return ComposeForShare(szName, FILEIDXQueuePathCompose, szOutQueuePath, cbOutLen);
}
