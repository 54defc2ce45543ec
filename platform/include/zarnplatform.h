// Stand-in for the platform functions that the content-search library and
// its tools expect from the process that loads them: packet framing on a
// socket, the share service, "@eaDir" creation and the error slot.
#ifndef ZARNPLATFORM_H
#define ZARNPLATFORM_H

#ifdef __cplusplus
#include <string>

namespace zarndaemon {
namespace io {

// A packet is a 4-byte big-endian payload length followed by the payload.
constexpr unsigned kMaxPacketBytes = 16u * 1024 * 1024;

// Writes `text` as one packet; never raises SIGPIPE.  False with errno set
// when the whole packet could not be written (EMSGSIZE above the cap).
bool PacketWrite(int fd, const std::string &text);

// Reads exactly one packet into `text` (replacing its content) and nothing
// beyond it.  False with errno set on end of stream (0 bytes: ECONNRESET
// inside a packet, ENODATA before one), error, time-out (EAGAIN), or a
// declared length above kMaxPacketBytes (EMSGSIZE, nothing allocated).
bool PacketRead(int fd, std::string &text);

}  // namespace io
}  // namespace zarndaemon

extern "C" {
#endif

// One share as the share service describes it.  Released with ZARNShareFree.
typedef struct _tag_ZARNSHARE {
    char *szName;
    char *szPath; /* absolute path of the share's top directory */
} ZARNSHARE, *PZARNSHARE;

// Looks a share up in the share table: the file named by the environment
// variable ZARN_SHARE_TABLE, else ZARN_SHARE_TABLE_DEFAULT.  Each line of the
// table is "name<TAB>/absolute/path"; blank lines and lines starting with '#'
// are skipped.  0 with *ppShare set, or negative with the error slot set.
int ZARNShareGet(const char *szName, PZARNSHARE *ppShare);
void ZARNShareFree(PZARNSHARE pShare); /* null is fine */

// Creates the "@eaDir" directory at szPath (an existing one is success).
// 0, or -1 with errno set.
int ZARNEAMKDir(int flags, const char *szPath);

// The calling thread's error slot.
void KOREErrSetEx(int code, const char *szFile, int line);
int KOREErrGet(void);

#define ZARN_SHARE_TABLE_DEFAULT "/etc/zarnplatform/shares"
#define ZARN_ERR_SHARE_NOT_FOUND 0x1100 /* error-slot code of an unknown share */
#define ZARN_ERR_INVALID_ARGUMENT 0xD00 /* 3328 */

#ifdef __cplusplus
}
#endif

#endif  // ZARNPLATFORM_H
