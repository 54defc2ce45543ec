// A reply stream fed to the streaming readers.  The input is a list of
// packets separated by a 0xFF byte (which JSON text never holds); the first
// byte chooses the reader mix.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "zarncontentsearchutils.h"
#include "zarnplatform.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    const uint8_t mode = data[0];
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) return 0;
    // Everything is written before anything is read: a stream larger than
    // the socket's buffer is cut where the buffer is full, not waited on.
    fcntl(fds[0], F_SETFL, O_NONBLOCK);
    const std::string input(reinterpret_cast<const char *>(data + 1), size - 1);
    for (size_t start = 0; start <= input.size();) {
        size_t end = input.find('\xff', start);
        if (end == std::string::npos) end = input.size();
        if (!zarndaemon::io::PacketWrite(fds[0], input.substr(start, end - start))) break;
        start = end + 1;
    }
    close(fds[0]);

    auto *handle = static_cast<ZARNQueryHandle *>(malloc(sizeof(ZARNQueryHandle)));
    handle->fd = fds[1];
    handle->total = -1;
    FD_ZERO(&handle->read_fds);
    if (mode & 1) ZARNQueryCount(handle);
    for (int reads = 0; reads < 10000; ++reads) {
        _tag_search_record *record = nullptr;
        if (mode & 2) {
            record = ZARNQueryFetchNext(handle, timeval{0, 0});
            if (record == nullptr) break;
        } else {
            const int code = ZARNQueryGetNextRecord(handle, &record);
            if (code != 0 || record == nullptr) break;
        }
        ZARNQueryFreeRecord(record);
        if (mode & 4) ZARNQueryCount(handle);
    }
    ZARNQueryConnectionClose(handle);
    return 0;
}
