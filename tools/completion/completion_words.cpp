// Prints what zarnsearch's bash completion takes from the library's own
// tables, so that the completion never holds a copy of them: the path of
// the indexed-folder list on the first line, then every metadata field that
// the library knows, one a line.  Run once at build time.
#include <cstdio>

#include "field_type_table.h"
#include "fileindex_config.h"

int main() {
    std::printf("%s\n", zarn::fileindex::kFolderConfigPath);
    for (const zarn::FieldTypeEntry &entry : zarn::kFieldTypeList) std::printf("%s\n", entry.key);
    return std::fflush(stdout) == 0 ? 0 : 1;
}
