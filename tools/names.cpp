// zarn_names: prints, for the scripts that the build fills in (the bash
// completion, the Debian maintainer scripts), the names that the code defines
// once, so that no script keeps a copy: one "KEY VALUE" a line.
//   folder-list  the indexed-folder list
//   share-table  the platform stand-in's share table
//   index-dir    a share's index folder, relative to the share
//   field        a metadata field of the library's field table (one line each)
#include <cstdio>

#include "field_type_table.h"
#include "names.h"
#include "zarnplatform.h"

int main() {
    std::printf("folder-list %s\n", zarn::kFolderConfigPath);
    std::printf("share-table %s\n", ZARN_SHARE_TABLE_DEFAULT);
    std::printf("index-dir %s/%s\n", zarn::kMetadataDirName, zarn::kIndexDbLeafName);
    for (const zarn::FieldTypeEntry &entry : zarn::kFieldTypeList) std::printf("field %s\n", entry.key);
    return std::fflush(stdout) == 0 ? 0 : 1;
}
