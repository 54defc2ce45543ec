#include "folders.h"

#include <json/value.h>

#include "path_within.h"
#include "json_text.h"
#include "log.h"

namespace zarnd {

namespace {

void Add(const Json::Value &entry, std::map<std::string, std::set<std::string>> *shares) {
    const Json::Value path = entry.isObject() ? entry["path"] : Json::Value();
    if (!path.isString()) {
        ZARN_LOG(LOG_WARNING, "skipping an indexed folder without a path");
        return;
    }
    std::string folder = path.asString();
    while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
    const size_t end = folder.find('/', 1);
    const std::string share = folder.substr(1, end == std::string::npos ? std::string::npos : end - 1);
    if (folder.empty() || folder[0] != '/' || share.empty() || folder.find("/../") != std::string::npos ||
        (folder.size() >= 3 && folder.compare(folder.size() - 3, 3, "/..") == 0)) {
        ZARN_LOG(LOG_WARNING, "skipping indexed folder %s: not a share-relative path", folder.c_str());
        return;
    }
    (*shares)[share].insert(folder);
}

// Sorted order puts a folder right before the folders inside it.
void DropNested(std::set<std::string> *folders) {
    std::string outer;
    for (auto it = folders->begin(); it != folders->end();) {
        if (!outer.empty() && PathWithin(*it, outer)) {
            it = folders->erase(it);
        } else {
            outer = *it;
            ++it;
        }
    }
}

}  // namespace

bool ReadIndexedFolders(const char *config_path, std::map<std::string, std::set<std::string>> *shares) {
    shares->clear();
    Json::Value config;
    if (!zarn::json::FromFile(config_path, &config)) {
        ZARN_LOG(LOG_ERR, "Failed to load json from %s", config_path);
        return false;
    }
    if (config.isArray() || config.isObject())
        for (const Json::Value &entry : config) Add(entry, shares);
    for (auto &share : *shares) DropNested(&share.second);
    return true;
}

}  // namespace zarnd
