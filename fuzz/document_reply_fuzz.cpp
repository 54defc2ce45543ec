// A daemon reply fed to the document field lookup, with arbitrary field
// names.  Input: the reply text, then field names, separated by 0xFF bytes.
// Runs inside the test sandbox: it serves the daemon's socket itself.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "zarncontentsearchutils.h"
#include "zarnplatform.h"

namespace {

std::mutex reply_mutex;
std::string reply;

// Answers every connection with the current reply, forever.
void Serve(int listen_fd) {
    for (;;) {
        const int fd = accept(listen_fd, nullptr, nullptr);
        if (fd < 0) continue;
        std::string request;
        if (zarndaemon::io::PacketRead(fd, request)) {
            std::lock_guard<std::mutex> lock(reply_mutex);
            zarndaemon::io::PacketWrite(fd, reply);
        }
        close(fd);
    }
}

bool StartDaemon() {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address;
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/var/run/zarnelasticd.sock");
    unlink(address.sun_path);
    if (bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        listen(fd, 16) != 0)
        __builtin_trap();  // run me inside the test sandbox
    std::thread(Serve, fd).detach();
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool started = StartDaemon();
    (void)started;
    std::vector<std::string> parts(1);
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == 0xFF) parts.emplace_back();
        else parts.back() += static_cast<char>(data[i]);
    }
    {
        std::lock_guard<std::mutex> lock(reply_mutex);
        reply = parts[0];
    }
    std::vector<const char *> names;
    for (size_t i = 1; i < parts.size() && names.size() < 16; ++i) names.push_back(parts[i].c_str());
    std::vector<ZARNQueryDocumentFieldValue> values(names.size() + 1);
    const int code = ZARNQueryDocumentFieldGet("share", 7, names.data(),
                                               static_cast<int>(names.size()), values.data());
    for (const ZARNQueryDocumentFieldValue &value : values) {
        if (value.type < 0 || value.type > DOCUMENT_FIELD_TYPE_STRING) __builtin_trap();
        if (value.type == DOCUMENT_FIELD_TYPE_STRING &&
            strnlen(value.value.string_value, sizeof value.value.string_value) > 350)
            __builtin_trap();
    }
    if (code != 0 && code != -4) __builtin_trap();  // the daemon always answers
    return 0;
}
