#include "perm.h"

#include <errno.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>

namespace zarnd {

namespace {

constexpr size_t kEntryBytes = 12;

void PutWord(std::string *out, uint32_t word) {
    for (int shift = 0; shift < 32; shift += 8) out->push_back(static_cast<char>(word >> shift));
}

uint32_t GetWord(const char *in) {
    const auto *b = reinterpret_cast<const unsigned char *>(in);
    return uint32_t{b[0]} | uint32_t{b[1]} << 8 | uint32_t{b[2]} << 16 | uint32_t{b[3]} << 24;
}

bool InGroups(const Credentials &user, uint32_t gid) {
    return std::binary_search(user.groups.begin(), user.groups.end(), gid);
}

Access EntryAt(const std::string &encoded, size_t at) {
    return {GetWord(&encoded[at]), GetWord(&encoded[at + 4]), GetWord(&encoded[at + 8])};
}

}  // namespace

std::string EncodeAccessChain(const AccessChain &chain) {
    std::string out;
    out.reserve(chain.size() * kEntryBytes);
    for (const Access &a : chain) {
        PutWord(&out, a.uid);
        PutWord(&out, a.gid);
        PutWord(&out, a.mode);
    }
    return out;
}

Credentials LookupCredentials(uint32_t uid) {
    Credentials user;
    user.uid = uid;
    long size = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(size > 0 ? static_cast<size_t>(size) : 16384);
    passwd entry;
    passwd *found = nullptr;
    while (getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) == ERANGE &&
           buffer.size() < (1u << 20))
        buffer.resize(buffer.size() * 2);
    if (found == nullptr) return user;
    std::vector<gid_t> groups(64);
    int count = static_cast<int>(groups.size());
    while (getgrouplist(found->pw_name, found->pw_gid, groups.data(), &count) < 0 &&
           count > static_cast<int>(groups.size()) && groups.size() < 65536)
        groups.resize(static_cast<size_t>(count));
    count = std::min(count, static_cast<int>(groups.size()));
    user.groups.assign(groups.begin(), groups.begin() + std::max(count, 0));
    user.groups.push_back(found->pw_gid);
    std::sort(user.groups.begin(), user.groups.end());
    user.groups.erase(std::unique(user.groups.begin(), user.groups.end()), user.groups.end());
    return user;
}

bool Grants(const Credentials &user, const Access &access, unsigned wanted) {
    unsigned bits;
    if (user.uid == access.uid)
        bits = access.mode >> 6;
    else if (InGroups(user, access.gid))
        bits = access.mode >> 3;
    else
        bits = access.mode;
    return (bits & wanted & 7u) == (wanted & 7u);
}

bool MayRead(const Credentials &user, const std::string &encoded) {
    if (user.uid == 0) return true;
    if (encoded.empty() || encoded.size() % kEntryBytes != 0) return false;
    for (size_t at = 0; at < encoded.size(); at += kEntryBytes)
        if (!Grants(user, EntryAt(encoded, at), at == 0 ? 4u : 1u)) return false;
    return true;
}

bool RestrictionsOf(const std::string &encoded, std::vector<Restriction> *restrictions) {
    restrictions->clear();
    if (encoded.empty() || encoded.size() % kEntryBytes != 0) return false;
    for (size_t at = 0; at < encoded.size(); at += kEntryBytes) {
        const Access access = EntryAt(encoded, at);
        // The wanted bit of each class, moved to bits 2, 1 and 0.
        const unsigned shift = at == 0 ? 2 : 0;
        const unsigned classes = ((access.mode >> (6 + shift)) & 1u) << 2 | ((access.mode >> (3 + shift)) & 1u) << 1 |
                                 ((access.mode >> shift) & 1u);
        if (classes == 7) continue;
        Restriction restriction;
        restriction.classes = classes;
        if (classes != 0) {
            restriction.uid = access.uid;
            // When members and others fare alike, who is a member does not matter.
            restriction.gid = ((classes >> 1) & 1u) == (classes & 1u) ? 0 : access.gid;
        }
        restrictions->push_back(restriction);
    }
    std::sort(restrictions->begin(), restrictions->end());
    restrictions->erase(std::unique(restrictions->begin(), restrictions->end()), restrictions->end());
    return true;
}

bool Passes(const Credentials &user, const Restriction &restriction) {
    // A canonical gid of 0 stands for "any": the group class and the others'
    // class agree there, so membership cannot change the answer.
    if (user.uid == 0) return true;
    const unsigned bit = user.uid == restriction.uid ? 2 : InGroups(user, restriction.gid) ? 1 : 0;
    return (restriction.classes >> bit) & 1u;
}

}  // namespace zarnd
