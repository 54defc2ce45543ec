// Where a file's content is read, and what a worker's reply puts in its
// record.  Plain and gzip text stay with the indexer, as before; anything
// else that is not empty, and text that looks like markup or a PDF, goes to a
// worker, which finds the real kind (the name may lie) with libmagic.
#ifndef ZARND_EXTRACT_CONTENT_H
#define ZARND_EXTRACT_CONTENT_H

#include "engine.h"
#include "extract/wire.h"

namespace zarnd {
namespace extract {

// `record` as MakeRecord made it from a regular file of `size` bytes.
bool WantsWorker(const FileRecord &record, uint64_t size);

// The request for the file of `record`.
Request RequestFor(const FileRecord &record, uint64_t size);

// A failed file keeps no content, not even the markup the indexer read.
void DropContent(FileRecord *record);

// A kDone reply's text and fields into the record (its text replaces what
// the indexer read); other replies change nothing.
void MergeReply(const Reply &reply, FileRecord *record);

}  // namespace extract
}  // namespace zarnd

#endif  // ZARND_EXTRACT_CONTENT_H
