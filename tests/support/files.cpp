#include <stdlib.h>

#include <fstream>
#include <stdexcept>

#include "harness.h"

namespace zarntest {

void WriteFile(const std::string &path, const std::string &content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    if (!out) throw std::runtime_error("cannot write " + path);
}

void SetShareTable(const std::vector<std::pair<std::string, std::string>> &shares) {
    static const char kTable[] = "/var/run/zarntest-shares";
    std::string content;
    for (const auto &share : shares) content += share.first + "\t" + share.second + "\n";
    WriteFile(kTable, content);
    setenv("ZARN_SHARE_TABLE", kTable, 1);
}

}  // namespace zarntest
