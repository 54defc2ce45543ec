#include "failpoint.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace zarnd {

namespace {

// Appends to `path` until the file system refuses.
void FillDisk(const std::string &path) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd < 0) return;
    static const char block[16384] = {};
    while (write(fd, block, sizeof block) > 0) {
    }
    while (write(fd, block, 1) > 0) {  // the last bytes of a block
    }
    close(fd);
}

}  // namespace

void FailPoint(const char *point, const std::string &dir) {
    static const char *const wanted = std::getenv("ZARN_FAILPOINT");
    if (wanted == nullptr) return;
    const size_t length = std::strlen(point);
    if (std::strncmp(wanted, point, length) != 0 || wanted[length] != ':') return;
    const char *action = wanted + length + 1;
    if (std::strcmp(action, "kill") == 0) raise(SIGKILL);
    if (std::strcmp(action, "fill") == 0) FillDisk(dir + ".filler");
}

}  // namespace zarnd
