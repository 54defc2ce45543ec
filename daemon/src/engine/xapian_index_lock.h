// The lock of a share's index directory, which writers and readers share.
// It is one file with byte-range locks of the open file (so threads of
// one process exclude each other as processes do):
// - the writer's byte, held by the one writer of the index for its whole
//   life: choosing the generation, writing, compacting, swapping the stub
//   and changing the shard list all happen under it;
// - the readers' byte, held shared by a search from the moment it reads the
//   stub until the files that the stub names are open, and taken alone by a
//   writer before it removes a generation that a stub used to name.  Open
//   files outlive their names, so a generation removed after that wait can
//   no longer be opened by anyone, and nobody who opened it loses it;
// - a gate byte that a reader passes on its way in and that a waiting writer
//   holds, so that a stream of readers cannot keep a writer waiting.
#ifndef ZARND_XAPIAN_INDEX_LOCK_H
#define ZARND_XAPIAN_INDEX_LOCK_H

#include <memory>
#include <string>

namespace zarnd {
namespace xap {

class WriterLock {
public:
    // Takes the writer's byte of `dir`'s lock; Failure kLocked while
    // another writer holds it, kInternal when the lock cannot be made.
    static std::unique_ptr<WriterLock> Take(const std::string &dir);
    ~WriterLock();
    WriterLock(const WriterLock &) = delete;
    WriterLock &operator=(const WriterLock &) = delete;

    // Returns once no reader is between reading a stub and opening what it
    // names: a stub written before the call then names all that can be
    // opened.  False when the lock failed; nothing may be removed then.
    bool WaitForReaders();

private:
    explicit WriterLock(int fd) : fd_(fd) {}
    const int fd_;
};

// A reader's hold on the readers' byte of `dir`, for the time it opens the
// index.  Where no lock file can be made (no such directory) it holds nothing.
class OpeningLock {
public:
    explicit OpeningLock(const std::string &dir);
    ~OpeningLock();
    OpeningLock(const OpeningLock &) = delete;
    OpeningLock &operator=(const OpeningLock &) = delete;

private:
    int fd_ = -1;
};

}  // namespace xap
}  // namespace zarnd

#endif  // ZARND_XAPIAN_INDEX_LOCK_H
