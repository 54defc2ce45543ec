// Who may see what.  A document carries the owner, group and mode of its file
// and of every folder above it inside the share; a user may see it when the
// mode bits let the user read the file and search (x) each of those folders.
#ifndef ZARND_PERM_H
#define ZARND_PERM_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace zarnd {

struct Access {
    uint32_t uid;
    uint32_t gid;
    uint32_t mode;  // st_mode; only the permission bits are read
};

// The file's own Access first, then its folder, its folder's folder, and so
// on up to the share's top folder.
using AccessChain = std::vector<Access>;

// Compact form kept with each document: 12 bytes per entry.
std::string EncodeAccessChain(const AccessChain &chain);

// A user as the permission check sees it.
struct Credentials {
    uint32_t uid = 0;
    std::vector<uint32_t> groups;  // primary and supplementary, sorted, unique
};

// The user's groups from the user database (getgrouplist).  A uid that the
// database does not know gets no group at all: only "other" bits and its own
// files apply to it.
Credentials LookupCredentials(uint32_t uid);

// Whether the permission bits grant every bit of `wanted` (4 read, 2 write,
// 1 search) through the one class that applies: owner, else group, else other.
bool Grants(const Credentials &user, const Access &access, unsigned wanted);

// Whether the user may read the document whose encoded chain is `encoded`.
// uid 0 reads everything; a damaged chain reads as refused.
bool MayRead(const Credentials &user, const std::string &encoded);

// A peer other than root may act only as itself.
inline bool PeerMayActAs(uid_t peer_uid, uint32_t uid) { return peer_uid == 0 || peer_uid == uid; }

}  // namespace zarnd

#endif  // ZARND_PERM_H
