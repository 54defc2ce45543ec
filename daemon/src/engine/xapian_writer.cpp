#include "xapian_writer.h"

#include <errno.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cstring>

#include "failpoint.h"
#include "log.h"
#include "schema.h"
#include "xapian_document.h"
#include "xapian_layout.h"
#include "xapian_record.h"
#include "xapian_terms.h"

namespace zarnd {
namespace xap {

namespace {

// Changes waiting at most: enough to keep the writing thread busy, few
// enough to bound memory whatever the files hold.
constexpr size_t kMaxQueued = 256;
constexpr size_t kMaxQueuedBytes = 64u << 20;
// Free space that any commit asks for beyond its own changes.
constexpr uint64_t kCommitMargin = 8u << 20;

// Id terms that a subtree's lookup expands to at most.
constexpr Xapian::termcount kMaxSubtreeTerms = 100000;

}  // namespace

void RequireSpace(const std::string &dir, uint64_t bytes, const std::string &what) {
    struct statvfs fs;
    if (dir.empty() || statvfs(dir.c_str(), &fs) != 0) return;  // the write itself will tell
    const uint64_t free = static_cast<uint64_t>(fs.f_bavail) * fs.f_frsize;
    if (free >= bytes) return;
    throw Failure(kInternal, "not enough free space for " + what + " in " + dir + ": " + std::to_string(free >> 20) +
                                 " MB free, " + std::to_string((bytes + (1u << 20) - 1) >> 20) + " MB needed (" +
                                 std::strerror(ENOSPC) + ")");
}

DatabaseWriter::DatabaseWriter(Xapian::WritableDatabase db, const std::string &name, Xapian::docid max_id,
                               const std::string &dir, bool shard)
    : db_(std::move(db)), name_(name), max_id_(max_id), dir_(dir), shard_(shard) {
    generator_.set_flags(kTermFlags);
    generator_.set_max_word_length(64);  // longer "words" are noise (hashes, base64)
    Guard([&] {
        documents_at_open_ = db_.get_doccount();
        last_id_ = db_.get_lastdocid();
        // Changes wait in a transaction from commit to commit: a database
        // closed after a failure drops them instead of committing them,
        // which the engine would try even on a full disk.
        db_.begin_transaction();
        // Words are stemmed in the language the index was begun in.
        std::string language = db_.get_metadata(kLanguageKey);
        if (language.empty()) db_.set_metadata(kLanguageKey, language = ConfiguredLanguage(name_));
        StemmerFor(language, &stemmer_);
    });
    writing_ = std::thread([this] { Write(); });
}

DatabaseWriter::~DatabaseWriter() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    writing_.join();
}

void DatabaseWriter::Put(const FileRecord &record) { Enqueue(MakeChange(Change::kReplace, record)); }

void DatabaseWriter::Add(const FileRecord &record) { Enqueue(MakeChange(Change::kAdd, record)); }

void DatabaseWriter::Remove(const std::string &path) {
    ++changes_;
    Enqueue(Change{Change::kRemove, IdTerm(path), path, {}, {}, path.size()});
}

std::map<std::string, std::string> DatabaseWriter::Signatures() {
    Drain();
    std::map<std::string, std::string> result;
    Guard([&] {
        // A shard's value stream would cost a message per document.
        if (shard_) {
            result = ReadSignatures(db_, Xapian::Query());
            return;
        }
        std::string path, signature;
        for (auto value = db_.valuestream_begin(kRecordSlot); value != db_.valuestream_end(kRecordSlot); ++value)
            if (DecodeRecordValue(*value, &path, &signature, nullptr)) result[path] = signature;
    });
    return result;
}

// Through the id terms that begin with the path, in one match: the cost
// follows the subtree, not the index.  A subtree of more than
// kMaxSubtreeTerms records is read from the range of record values between
// the path's own and those of paths that continue it with '/' ('0' follows
// it), a walk over the whole slot.  Both hold a few siblings too ("dir.txt"
// beside "dir"), left out below.
std::map<std::string, std::string> DatabaseWriter::SignaturesUnder(const std::string &path) {
    Drain();
    std::map<std::string, std::string> result, found;
    Guard([&] {
        try {
            found = ReadSignatures(db_, Xapian::Query(Xapian::Query::OP_WILDCARD, BoundedTermStart(kIdPrefix, path),
                                                      kMaxSubtreeTerms, Xapian::Query::WILDCARD_LIMIT_ERROR));
        } catch (const Xapian::WildcardError &) {
            found = ReadSignatures(db_, Xapian::Query(Xapian::Query::OP_AND_NOT,
                                                      Xapian::Query(Xapian::Query::OP_VALUE_GE, kRecordSlot, path + '\0'),
                                                      Xapian::Query(Xapian::Query::OP_VALUE_GE, kRecordSlot, path + '0')));
        }
    });
    for (auto &record : found)
        if (PathWithin(record.first, path)) result.insert(std::move(record));
    return result;
}

void DatabaseWriter::Commit() { Enqueue(Change{Change::kCommit, {}, {}, {}, {}, 0}); }

void DatabaseWriter::Finish() {
    Commit();
    Drain();
}

DatabaseWriter::Change DatabaseWriter::MakeChange(Change::Kind kind, const FileRecord &record) {
    Change change{kind, IdTerm(record.path), record.path, {}, {}, 0};
    Guard([&] {
        change.doc = BuildDocument(record, &generator_, stemmer_, &packer_, &change.chunks, shard_);
        // The generator holds on to its document; the writing thread must
        // own this one alone.
        generator_.set_document(Xapian::Document());
    });
    // A document's terms and positions take several times its text.
    change.bytes = 1024;
    for (const std::string &chunk : change.chunks) change.bytes += 8 * chunk.size();
    ++changes_;
    return change;
}

void DatabaseWriter::Enqueue(Change &&change) {
    std::unique_lock<std::mutex> lock(mutex_);
    room_.wait(lock, [this] {
        return failure_ || queue_.empty() || (queue_.size() < kMaxQueued && queued_bytes_ < kMaxQueuedBytes);
    });
    if (failure_) throw *failure_;
    queued_bytes_ += change.bytes;
    queue_.push_back(std::move(change));
    changed_.notify_one();
}

// Waits until every change is written; the writing thread is idle then.
void DatabaseWriter::Drain() {
    std::unique_lock<std::mutex> lock(mutex_);
    room_.wait(lock, [this] { return failure_ || (queue_.empty() && !busy_); });
    if (failure_) throw *failure_;
}

void DatabaseWriter::Write() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        // A writer that goes writes what it was given first, as a database
        // closed with changes pending commits them.
        changed_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
        if (queue_.empty()) {
            if (failure_ || uncommitted_bytes_ == 0) return;
            lock.unlock();
            try {
                Guard([&] { Apply(Change{Change::kCommit, {}, {}, {}, {}, 0}); });
            } catch (const std::exception &e) {
                ZARN_LOG(LOG_ERR, "%s: the last changes are lost: %s", name_.c_str(), e.what());
            }
            return;
        }
        Change change = std::move(queue_.front());
        queue_.pop_front();
        busy_ = true;
        lock.unlock();
        std::unique_ptr<Failure> failure;
        // Nothing the engine throws may end the process: a full disk or an
        // I/O error in a commit ends this writer's work, and the caller hears
        // of it; the last commit stays what searches see.
        try {
            Guard([&] { Apply(change); });
        } catch (const Failure &f) {
            failure.reset(new Failure(f.code(), name_ + ": " + f.what()));
        } catch (const std::exception &e) {
            failure.reset(new Failure(kInternal, name_ + ": " + e.what()));
        } catch (...) {
            failure.reset(new Failure(kInternal, name_ + ": unknown error"));
        }
        const size_t bytes = change.bytes;
        change = Change();  // its document goes on this thread
        lock.lock();
        busy_ = false;
        queued_bytes_ -= std::min(queued_bytes_, bytes);
        if (failure && !failure_) failure_ = std::move(failure);
        if (failure_) queue_.clear();
        room_.notify_all();
    }
}

void DatabaseWriter::Apply(const Change &change) {
    if (change.kind != Change::kCommit) uncommitted_bytes_ += change.bytes + 1024;
    switch (change.kind) {
    case Change::kCommit:
        FailPoint(failpoint::kCommitting, dir_);
        // What a commit writes: the changes' terms and text, then copies of
        // the blocks it touches.
        RequireSpace(dir_, kCommitMargin + 2 * uncommitted_bytes_, "a commit");
        FailPoint(failpoint::kInCommit, dir_);
        db_.commit_transaction();
        uncommitted_bytes_ = 0;
        db_.begin_transaction();
        return;
    case Change::kRemove:
        // Every document of the path: an index written before paths were
        // unique may hold several.
        while (const Xapian::docid doc_id = DocIdOf(change.id_term)) Delete(doc_id);
        return;
    case Change::kAdd:
    case Change::kReplace: {
        // A replaced record keeps its id; only a new one takes the next.
        FailPoint(failpoint::kAdding, dir_);
        const Xapian::docid old_id = change.kind == Change::kAdd ? 0 : DocIdOf(change.id_term);
        if (old_id == 0 && last_id_ >= max_id_)
            throw Failure(kInternal, "no document id left for " + change.path + ": remove the index to rebuild it");
        const size_t old_chunks = old_id == 0 ? 0 : ChunkCount(old_id);
        // Ids counted here: a shard's database would ask its server each time.
        const Xapian::docid doc_id = old_id == 0 ? last_id_ + 1 : old_id;
        if (shard_) {
            // This thread owns the change's document.
            Xapian::Document doc = change.doc;
            doc.add_boolean_term(DocIdTerm(doc_id));
            db_.replace_document(doc_id, doc);
        } else {
            db_.replace_document(doc_id, change.doc);
        }
        last_id_ = std::max(last_id_, doc_id);
        for (Xapian::docid extra; change.kind == Change::kReplace && (extra = OtherDocIdOf(change.id_term, doc_id));)
            Delete(extra);
        for (size_t k = 0; k < change.chunks.size(); ++k) db_.set_metadata(TextChunkKey(doc_id, k), change.chunks[k]);
        for (size_t k = change.chunks.size(); k < old_chunks; ++k) db_.set_metadata(TextChunkKey(doc_id, k), "");
        return;
    }
    }
}

// 0 when no document holds the term.
Xapian::docid DatabaseWriter::DocIdOf(const std::string &id_term) {
    Xapian::PostingIterator it = db_.postlist_begin(id_term);
    return it == db_.postlist_end(id_term) ? 0 : *it;
}

// A document of the term other than `keep`; 0 when none.
Xapian::docid DatabaseWriter::OtherDocIdOf(const std::string &id_term, Xapian::docid keep) {
    for (Xapian::PostingIterator it = db_.postlist_begin(id_term); it != db_.postlist_end(id_term); ++it)
        if (*it != keep) return *it;
    return 0;
}

void DatabaseWriter::Delete(Xapian::docid doc_id) {
    const size_t chunks = ChunkCount(doc_id);
    db_.delete_document(doc_id);
    for (size_t k = 0; k < chunks; ++k) db_.set_metadata(TextChunkKey(doc_id, k), "");
}

size_t DatabaseWriter::ChunkCount(Xapian::docid doc_id) {
    std::vector<uint32_t> starts;
    DecodeChunkStarts(db_.get_document(doc_id).get_value(kTextLayoutSlot), &starts);
    return starts.size();
}

}  // namespace xap
}  // namespace zarnd
