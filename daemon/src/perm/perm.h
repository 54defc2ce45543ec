// Who may see what.  A document carries the owner, group and mode of its file
// and of every folder above it inside the share; a user may see it when the
// mode bits let the user read the file and search (x) each of those folders.
//
// This unit holds the rule; it is enforced in three places: the indexer
// records each file's chain (index/file_record.cpp), a search filters its
// hits by restriction terms (HiddenFrom, engine/xapian_search.cpp), and a
// document fetch checks MayRead, as does the choice of whose permissions a
// search uses (Reader and DocumentGet, serve/protocol.cpp).
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

// One entry of a chain as the permission filter of a search sees it: which
// classes of users the entry lets through (bit 2 the owner, bit 1 the
// group's members, bit 0 everybody else) for the bit the entry must grant
// (read on the file, search on a folder).  A user passes it through the one
// class that applies to the user, as in Grants.
struct Restriction {
    uint32_t uid = 0;
    uint32_t gid = 0;  // 0 whenever the group's class and the others' class agree
    unsigned classes = 0;

    bool operator<(const Restriction &o) const {
        return classes != o.classes ? classes < o.classes : uid != o.uid ? uid < o.uid : gid < o.gid;
    }
    bool operator==(const Restriction &o) const { return !(*this < o) && !(o < *this); }
};

// The entries of `chain` that do not let every user through, each once, in
// a canonical form (an entry that lets nobody through is {0, 0, 0}).  A user
// may read the document exactly when the user passes all of them.  False
// for a damaged encoding.
bool RestrictionsOf(const std::string &encoded_chain, std::vector<Restriction> *restrictions);

// Whether `user` passes `restriction`.
bool Passes(const Credentials &user, const Restriction &restriction);

// A peer other than root may act only as itself.
inline bool PeerMayActAs(uid_t peer_uid, uint32_t uid) { return peer_uid == 0 || peer_uid == uid; }

}  // namespace zarnd

#endif  // ZARND_PERM_H
