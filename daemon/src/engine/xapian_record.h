// A compact copy of what a hit needs, kept in one value slot: the path, the
// indexer's signature, and every field kept for sorting, those that the
// library asks for by default (name, extension, folder or not) among them;
// the text content is left out.  A match sorted by that slot hands the
// copy back as each hit's sort key, which Xapian's network protocol carries
// in the match reply itself: a page of hits and the records of a rescan
// come back in one exchange, without a message per document.
#ifndef ZARND_XAPIAN_RECORD_H
#define ZARND_XAPIAN_RECORD_H

#include <map>
#include <string>
#include <vector>

#include <json/value.h>
#include <xapian.h>

#include "engine.h"

namespace zarnd {
namespace xap {

// The path first, then a NUL (no path holds one): values sort as their
// paths do, so a slot sort pages through records in path order.
std::string EncodeRecordValue(const FileRecord &record);

// False for a value that EncodeRecordValue did not make.  `fields`, when
// given, receives the carried fields.
bool DecodeRecordValue(const std::string &value, std::string *path, std::string *signature, Json::Value *fields);

// The record's copy cut to what a hit needs unless asked for more (path,
// name, extension, folder or not), without the signature: DecodeRecordValue
// reads it.  A match over shards breaks ties in relevance by it, and so
// hands it over for each hit: a few dozen bytes to read for each candidate
// where the record takes hundreds.
std::string EncodeHitValue(const FileRecord &record);

// Whether every one of `names` travels in the hit value.
bool HitCarriesAll(const std::vector<std::string> &names);

// Whether every one of `names` is a carried field.
bool CarriesAll(const std::vector<std::string> &names);

// The term that names a shard's document by its id there, so that one match
// can ask a shard for the records of a page of ids.
std::string DocIdTerm(Xapian::docid doc_id);

// Every record's path -> signature among the documents that `filter`
// matches (all of them for an empty query), read through matches sorted by
// the record slot, `page` records at a time.
std::map<std::string, std::string> ReadSignatures(const Xapian::Database &db, const Xapian::Query &filter,
                                                  Xapian::doccount page = 20000);

}  // namespace xap
}  // namespace zarnd

#endif  // ZARND_XAPIAN_RECORD_H
