// The share service: share names resolved through a plain-text share table.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "zarnplatform.h"

namespace {

const char *TablePath() {
    const char *path = std::getenv("ZARN_SHARE_TABLE");
    return path != nullptr && *path != '\0' ? path : ZARN_SHARE_TABLE_DEFAULT;
}

// The absolute path of share `name` from the table, or false.  The table is
// read on every lookup: it is small, and a changed table takes effect at once.
bool FindShare(const char *name, std::string *path) {
    std::unique_ptr<FILE, int (*)(FILE *)> table(std::fopen(TablePath(), "r"), std::fclose);
    if (!table) return false;
    std::unique_ptr<char, void (*)(void *)> line(nullptr, std::free);
    size_t capacity = 0;
    const size_t name_length = std::strlen(name);
    for (;;) {
        char *buffer = line.release();
        ssize_t length = getline(&buffer, &capacity, table.get());
        line.reset(buffer);
        if (length < 0) return false;
        std::string entry(buffer, static_cast<size_t>(length));
        while (!entry.empty() && (entry.back() == '\n' || entry.back() == '\r')) entry.pop_back();
        if (entry.empty() || entry[0] == '#') continue;
        const size_t tab = entry.find('\t');
        if (tab != name_length || entry.compare(0, tab, name) != 0) continue;
        *path = entry.substr(tab + 1);
        return !path->empty() && (*path)[0] == '/';
    }
}

}  // namespace

extern "C" int ZARNShareGet(const char *szName, PZARNSHARE *ppShare) {
    if (ppShare != nullptr) *ppShare = nullptr;
    std::string path;
    if (szName == nullptr || ppShare == nullptr) {
        KOREErrSetEx(ZARN_ERR_INVALID_ARGUMENT, __FILE__, __LINE__);
        return -1;
    }
    bool found = false;
    try {
        found = *szName != '\0' && std::strchr(szName, '/') == nullptr && FindShare(szName, &path);
    } catch (const std::bad_alloc &) {
        found = false;  // reported like an unknown share; nothing escapes a C function
    }
    if (!found) {
        KOREErrSetEx(ZARN_ERR_SHARE_NOT_FOUND, __FILE__, __LINE__);
        return -1;
    }
    auto *share = static_cast<PZARNSHARE>(std::calloc(1, sizeof(ZARNSHARE)));
    char *name = strdup(szName);
    char *share_path = strdup(path.c_str());
    if (share == nullptr || name == nullptr || share_path == nullptr) {
        std::free(share);
        std::free(name);
        std::free(share_path);
        KOREErrSetEx(ZARN_ERR_SHARE_NOT_FOUND, __FILE__, __LINE__);
        return -1;
    }
    share->szName = name;
    share->szPath = share_path;
    *ppShare = share;
    return 0;
}

extern "C" void ZARNShareFree(PZARNSHARE pShare) {
    if (pShare == nullptr) return;
    std::free(pShare->szName);
    std::free(pShare->szPath);
    std::free(pShare);
}
