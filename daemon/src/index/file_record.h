// One walked file or folder, and the record the engine stores for it.
#ifndef ZARND_FILE_RECORD_H
#define ZARND_FILE_RECORD_H

#include <sys/stat.h>

#include <cstdint>
#include <string>

#include "engine.h"
#include "perm.h"

namespace zarnd {

struct Entry {
    std::string path;    // share-relative, "/share/sub/name"
    std::string parent;  // share-relative folder that holds it
    std::string name;
    struct statx st;
    AccessChain access;  // the entry's own first, then its folders
};

// Changes when anything that the record holds may have changed: size,
// modification and attribute-change times, inode, and the permissions of
// the entry and of its folders.
std::string EntrySignature(const Entry &entry);

// The record of `entry`.  `content_fd`, when not -1, is the open regular
// file whose text goes into the text content; *bytes_read, when not null,
// receives how many bytes of it were read.
FileRecord MakeRecord(const Entry &entry, int content_fd, uint64_t *bytes_read = nullptr);

// The file name as words: every ASCII character other than a letter or a
// digit becomes a blank, so "annual_report-2020.pdf" reads
// "annual report 2020 pdf".
std::string SearchFileName(const std::string &name);

// The extension without its dot: what follows the last dot of a name that
// has something before and after it ("a.tar.gz" gives "gz", ".profile"
// gives "").
std::string Extension(const std::string &name);

}  // namespace zarnd

#endif  // ZARND_FILE_RECORD_H
