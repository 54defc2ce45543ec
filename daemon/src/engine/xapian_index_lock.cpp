#include "xapian_index_lock.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "failure.h"
#include "xapian_layout.h"

namespace zarnd {
namespace xap {

namespace {

constexpr off_t kWriterByte = 0;
constexpr off_t kReadersByte = 1;
// Passed by a reader on its way in, held by a writer while it waits for the
// readers' byte: readers that keep coming cannot starve the writer.
constexpr off_t kGateByte = 2;

// F_OFD_SETLK on one byte; false when another holds it (no wait) or on
// error.  A wait tries again after a pause that grows to 2 ms, rather than
// sleeping in F_OFD_SETLKW: valgrind does not know that call may block and
// runs no other thread meanwhile, so a search and a writer of one process
// would wait on each other for good.  Bytes are held for an open's time.
bool LockByte(int fd, short type, off_t byte, bool wait) {
    struct flock lock;
    std::memset(&lock, 0, sizeof lock);
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = byte;
    lock.l_len = 1;
    for (useconds_t pause = 50;;) {
        if (fcntl(fd, F_OFD_SETLK, &lock) == 0) return true;
        if (errno == EINTR) continue;
        if (!wait || (errno != EAGAIN && errno != EACCES)) return false;
        usleep(pause);
        pause = std::min<useconds_t>(2 * pause, 2000);
    }
}

std::string LockPath(const std::string &dir) { return dir + "/" + kLockFile; }

}  // namespace

std::unique_ptr<WriterLock> WriterLock::Take(const std::string &dir) {
    const int fd = open(LockPath(dir).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) throw Failure(kInternal, "cannot open " + LockPath(dir) + ": " + std::strerror(errno));
    if (LockByte(fd, F_WRLCK, kWriterByte, false)) return std::unique_ptr<WriterLock>(new WriterLock(fd));
    const int error = errno;
    close(fd);
    if (error == EAGAIN || error == EACCES) throw Failure(kLocked, "index " + dir + " is being written by another process");
    throw Failure(kInternal, "cannot lock " + LockPath(dir) + ": " + std::strerror(error));
}

WriterLock::~WriterLock() { close(fd_); }

bool WriterLock::WaitForReaders() {
    // A reader holds the byte for the time of an open only.
    const bool gate = LockByte(fd_, F_WRLCK, kGateByte, true);
    const bool waited = gate && LockByte(fd_, F_WRLCK, kReadersByte, true);
    if (waited) LockByte(fd_, F_UNLCK, kReadersByte, false);
    if (gate) LockByte(fd_, F_UNLCK, kGateByte, false);
    return waited;
}

OpeningLock::OpeningLock(const std::string &dir) {
    fd_ = open(LockPath(dir).c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd_ < 0) return;
    const bool gate = LockByte(fd_, F_RDLCK, kGateByte, true);
    const bool in = gate && LockByte(fd_, F_RDLCK, kReadersByte, true);
    if (gate) LockByte(fd_, F_UNLCK, kGateByte, false);
    if (!in) {
        close(fd_);
        fd_ = -1;
    }
}

OpeningLock::~OpeningLock() {
    if (fd_ >= 0) close(fd_);
}

}  // namespace xap
}  // namespace zarnd
