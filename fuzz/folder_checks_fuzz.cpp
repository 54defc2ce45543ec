// An indexed-folder list fed to the eight checks with arbitrary paths.
// Input: the folder list file, then paths, separated by 0xFF bytes.
// Runs inside the test sandbox: it writes the list at its fixed place.
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "zarncontentsearchutils.h"

namespace {

constexpr char kFolderList[] = "/var/packages/Norvex/etc/fileindex.folders";

bool SetUpShares() {
    mkdir("/var/run/fuzz", 0755);
    FILE *table = std::fopen("/var/run/fuzz/shares", "w");
    if (table == nullptr) __builtin_trap();  // run me inside the test sandbox
    std::fputs("docs\t/volume1/docs\nmedia\t/volume2/media\na\t/volume1/a\n", table);
    std::fclose(table);
    setenv("ZARN_SHARE_TABLE", "/var/run/fuzz/shares", 1);
    return true;
}

void Check(int answer) {
    if (answer != 0 && answer != 1) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool ready = SetUpShares();
    (void)ready;
    std::vector<std::string> parts(1);
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == 0xFF) parts.emplace_back();
        else parts.back() += static_cast<char>(data[i]);
    }
    FILE *list = std::fopen(kFolderList, "w");
    if (list == nullptr) __builtin_trap();
    std::fwrite(parts[0].data(), 1, parts[0].size(), list);
    std::fclose(list);
    for (size_t i = 1; i < parts.size() && i <= 8; ++i) {
        const char *path = parts[i].c_str();
        for (int reload : {1, 0, 2}) {
            Check(FILEIDXIsShareIndexedEx(path, reload));
            Check(FILEIDXIsPathIndexedEx(path, reload));
            Check(FILEIDXIsFullPathIndexedEx(path, reload));
            Check(FILEIDXIsPathContainIndexedEx(path, reload));
        }
        Check(FILEIDXIsShareIndexed(path));
        Check(FILEIDXIsPathIndexed(path));
        Check(FILEIDXIsFullPathIndexed(path));
        Check(FILEIDXIsPathContainIndexed(path));
    }
    return 0;
}
