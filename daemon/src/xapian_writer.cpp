// IndexWriter on a Xapian database, kept in generations behind a stub.
#include <dirent.h>
#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>

#include <xapian.h>

#include "engine.h"
#include "failure.h"
#include "log.h"
#include "schema.h"
#include "stored_text.h"
#include "xapian_document.h"
#include "xapian_layout.h"

namespace zarnd {

namespace {

// The generation that the stub of `dir` names; 0 when there is no stub.
unsigned CurrentGeneration(const std::string &dir) {
    std::FILE *stub = std::fopen((dir + "/" + xap::kStubFile).c_str(), "re");
    unsigned generation = 0;
    if (stub != nullptr) {
        if (std::fscanf(stub, "glass gen-%u", &generation) != 1) generation = 0;
        std::fclose(stub);
    }
    return generation;
}

std::string GenerationDir(const std::string &dir, unsigned generation) {
    return dir + "/gen-" + std::to_string(generation);
}

// Points the stub at `generation`, atomically: a reader sees the old stub
// or the new one, never a part of one.
void SetCurrentGeneration(const std::string &dir, unsigned generation) {
    const std::string stub = dir + "/" + xap::kStubFile, fresh = stub + ".new";
    std::FILE *out = std::fopen(fresh.c_str(), "we");
    const bool written = out != nullptr && std::fprintf(out, "glass gen-%u\n", generation) > 0;
    if (out != nullptr && std::fclose(out) != 0) throw Failure(kInternal, "cannot write " + fresh + ": " + std::strerror(errno));
    if (!written || std::rename(fresh.c_str(), stub.c_str()) != 0)
        throw Failure(kInternal, "cannot write " + stub + ": " + std::strerror(errno));
}

// Removes a directory of plain files: an old generation, or the tables of
// an index of the first format (then `dir` itself stays).
void RemoveDatabaseFiles(const std::string &dir, bool remove_dir) {
    if (DIR *d = opendir(dir.c_str())) {
        while (const dirent *entry = readdir(d)) {
            const std::string name = entry->d_name;
            const bool table = name.size() > 6 && name.compare(name.size() - 6, 6, ".glass") == 0;
            if (remove_dir ? name != "." && name != ".." : table || name == xap::kPlainDatabaseFile || name == "flintlock")
                unlink((dir + "/" + name).c_str());
        }
        closedir(d);
    }
    if (remove_dir) rmdir(dir.c_str());
}

// The generation to write: the current one, or a first one when there is
// none or the index is of an older format, which is then rebuilt.
unsigned GenerationToWrite(const std::string &dir) {
    const unsigned current = CurrentGeneration(dir);
    if (current > 0) {
        try {
            Xapian::Database existing(GenerationDir(dir, current));
            if (existing.get_doccount() == 0 || existing.get_metadata(xap::kFormatKey) == xap::kFormat) return current;
        } catch (const Xapian::DatabaseOpeningError &) {
            return current;  // named but not made yet: opening for writing makes it
        }
    }
    struct stat st;
    if (current > 0 || stat((dir + "/" + xap::kPlainDatabaseFile).c_str(), &st) == 0)
        ZARN_LOG(LOG_NOTICE, "index %s has an older format: rebuilding it", dir.c_str());
    return current + 1;
}

// A new generation starts from nothing, whatever a run that died left there.
int OpenFlags(const std::string &dir, unsigned generation) {
    if (CurrentGeneration(dir) == generation) return Xapian::DB_CREATE_OR_OPEN;
    RemoveDatabaseFiles(GenerationDir(dir, generation), true);
    return Xapian::DB_CREATE;
}

// Documents changed, above which a run's end rewrites the index.
constexpr double kCompactShare = 0.25;

// One change for the writing thread.
struct Change {
    enum Kind { kAdd, kReplace, kRemove, kCommit } kind;
    std::string id_term;  // kReplace, kRemove
    std::string path;     // for messages
    Xapian::Document doc;
    std::vector<std::string> chunks;
    size_t bytes = 0;  // what it holds, roughly, for the queue's bound
};

// Documents are made (words split, text packed) on the caller's thread and
// written to the database on a thread of the writer's own, so that the two
// halves of indexing run side by side.  The first failure of the writing
// thread ends the writing and comes back from the caller's next call.
class XapianIndexWriter : public IndexWriter {
public:
    XapianIndexWriter(const std::string &dir, unsigned generation)
        : dir_(dir), generation_(generation),
          db_(GenerationDir(dir, generation), OpenFlags(dir, generation)) {
        generator_.set_flags(xap::kTermFlags);
        generator_.set_max_word_length(64);  // longer "words" are noise (hashes, base64)
        if (CurrentGeneration(dir) != generation) {
            // A new generation: searches follow it from its first commit on,
            // and the tables of a first-format index go.
            db_.set_metadata(xap::kFormatKey, xap::kFormat);
            db_.commit();
            const unsigned old = CurrentGeneration(dir);
            SetCurrentGeneration(dir, generation);
            if (old > 0) RemoveDatabaseFiles(GenerationDir(dir, old), true);
            RemoveDatabaseFiles(dir, false);
        }
        db_.set_metadata(xap::kFormatKey, xap::kFormat);
        documents_at_open_ = db_.get_doccount();
        writing_ = std::thread([this] { Write(); });
    }

    ~XapianIndexWriter() override {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
        }
        changed_.notify_all();
        writing_.join();
    }

    void Put(const FileRecord &record) override { Enqueue(MakeChange(Change::kReplace, record)); }
    void Add(const FileRecord &record) override { Enqueue(MakeChange(Change::kAdd, record)); }

    void Remove(const std::string &path) override {
        Change change{Change::kRemove, xap::IdTerm(path), path, {}, {}, path.size()};
        Enqueue(std::move(change));
    }

    std::map<std::string, std::string> Signatures() override {
        Drain();
        std::map<std::string, std::string> result;
        Guard([&] {
            // Both slots hold a value for every document; walk them in step.
            const Xapian::valueno path_slot = xap::FindLayout(field::kPath)->slot;
            Xapian::ValueIterator path = db_.valuestream_begin(path_slot);
            Xapian::ValueIterator signature = db_.valuestream_begin(xap::kSignatureSlot);
            const Xapian::ValueIterator end = db_.valuestream_end(path_slot);
            for (; path != end; ++path) {
                signature.skip_to(path.get_docid());
                const bool has = signature != db_.valuestream_end(xap::kSignatureSlot) &&
                                 signature.get_docid() == path.get_docid();
                result[*path] = has ? *signature : std::string();
            }
        });
        return result;
    }

    // Through the id terms that begin with the path: a subtree's records
    // without a walk over the whole index.
    std::map<std::string, std::string> SignaturesUnder(const std::string &path) override {
        Drain();
        std::map<std::string, std::string> result;
        Guard([&] {
            const std::string start = xap::BoundedTermStart(xap::kIdPrefix, path);
            const Xapian::valueno path_slot = xap::FindLayout(field::kPath)->slot;
            for (auto term = db_.allterms_begin(start); term != db_.allterms_end(start); ++term) {
                for (auto doc = db_.postlist_begin(*term); doc != db_.postlist_end(*term); ++doc) {
                    const Xapian::Document document = db_.get_document(*doc);
                    std::string stored = document.get_value(path_slot);
                    if (PathWithin(stored, path)) result[std::move(stored)] = document.get_value(xap::kSignatureSlot);
                }
            }
        });
        return result;
    }

    void Commit() override { Enqueue(Change{Change::kCommit, {}, {}, {}, {}, 0}); }

    void Finish() override {
        Commit();
        Drain();
        if (changes_ < kCompactShare * std::max<Xapian::doccount>(documents_at_open_, db_.get_doccount())) return;
        const std::string next = GenerationDir(dir_, generation_ + 1);
        Guard([&] {
            RemoveDatabaseFiles(next, true);  // left by a run that died while compacting
            // Ids stay: clients hold them, and the text chunks are kept under them.
            Xapian::Database(GenerationDir(dir_, generation_)).compact(next, Xapian::DBCOMPACT_NO_RENUMBER);
        });
        SetCurrentGeneration(dir_, generation_ + 1);
        // The old generation stays locked by this writer until it closes;
        // searches still inside it keep their open files.
        RemoveDatabaseFiles(GenerationDir(dir_, generation_), true);
    }

private:
    // Changes waiting at most: enough to keep the writing thread busy, few
    // enough to bound memory whatever the files hold.
    static constexpr size_t kMaxQueued = 256;
    static constexpr size_t kMaxQueuedBytes = 64u << 20;

    template <class F>
    static void Guard(F action) {
        try {
            action();
        } catch (const Xapian::Error &e) {
            throw Failure(kInternal, e.get_description());
        }
    }

    Change MakeChange(Change::Kind kind, const FileRecord &record) {
        Change change{kind, xap::IdTerm(record.path), record.path, {}, {}, 0};
        Guard([&] {
            change.doc = xap::BuildDocument(record, &generator_, &packer_, &change.chunks);
            // The generator holds on to its document; the writing thread
            // must own this one alone.
            generator_.set_document(Xapian::Document());
        });
        // A document's terms and positions take several times its text.
        change.bytes = 1024;
        for (const std::string &chunk : change.chunks) change.bytes += 8 * chunk.size();
        ++changes_;
        return change;
    }

    void Enqueue(Change &&change) {
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
    void Drain() {
        std::unique_lock<std::mutex> lock(mutex_);
        room_.wait(lock, [this] { return failure_ || (queue_.empty() && !busy_); });
        if (failure_) throw *failure_;
    }

    void Write() {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            // A writer that goes writes what it was given first, as a
            // database closed with changes pending commits them.
            changed_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
            if (queue_.empty()) return;
            Change change = std::move(queue_.front());
            queue_.pop_front();
            busy_ = true;
            lock.unlock();
            std::unique_ptr<Failure> failure;
            try {
                Guard([&] { Apply(change); });
            } catch (const Failure &f) {
                failure.reset(new Failure(f));
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

    void Apply(const Change &change) {
        switch (change.kind) {
        case Change::kCommit:
            db_.commit();
            return;
        case Change::kRemove: {
            const Xapian::docid doc_id = DocIdOf(change.id_term);
            if (doc_id == 0) return;
            const size_t chunks = ChunkCount(doc_id);
            db_.delete_document(doc_id);
            for (size_t k = 0; k < chunks; ++k) db_.set_metadata(xap::TextChunkKey(doc_id, k), "");
            return;
        }
        case Change::kAdd:
        case Change::kReplace: {
            // A replaced record keeps its id; only a new one takes the next.
            const Xapian::docid old_id = change.kind == Change::kAdd ? 0 : DocIdOf(change.id_term);
            if (old_id == 0 && db_.get_lastdocid() >= kMaxDocId)
                throw Failure(kInternal, "no document id left for " + change.path + ": remove the index to rebuild it");
            const size_t old_chunks = old_id == 0 ? 0 : ChunkCount(old_id);
            Xapian::docid doc_id = old_id;
            if (old_id == 0)
                doc_id = db_.add_document(change.doc);
            else
                db_.replace_document(old_id, change.doc);
            for (size_t k = 0; k < change.chunks.size(); ++k)
                db_.set_metadata(xap::TextChunkKey(doc_id, k), change.chunks[k]);
            for (size_t k = change.chunks.size(); k < old_chunks; ++k) db_.set_metadata(xap::TextChunkKey(doc_id, k), "");
            return;
        }
        }
    }

    // 0 when no document holds the term.
    Xapian::docid DocIdOf(const std::string &id_term) {
        Xapian::PostingIterator it = db_.postlist_begin(id_term);
        return it == db_.postlist_end(id_term) ? 0 : *it;
    }

    size_t ChunkCount(Xapian::docid doc_id) {
        std::vector<uint32_t> starts;
        DecodeChunkStarts(db_.get_document(doc_id).get_value(xap::kTextLayoutSlot), &starts);
        return starts.size();
    }

    const std::string dir_;
    const unsigned generation_;
    Xapian::WritableDatabase db_;  // the writing thread's, but while it is idle
    Xapian::doccount documents_at_open_ = 0;
    uint64_t changes_ = 0;  // documents put or removed
    Xapian::TermGenerator generator_;
    ChunkPacker packer_;

    std::mutex mutex_;
    std::condition_variable changed_;  // a change queued, or stopping
    std::condition_variable room_;     // a change written
    std::deque<Change> queue_;
    size_t queued_bytes_ = 0;
    bool busy_ = false;
    bool stopping_ = false;
    std::unique_ptr<Failure> failure_;
    std::thread writing_;
};

}  // namespace

std::unique_ptr<IndexWriter> OpenIndexWriter(const std::string &dir) {
    try {
        if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST)
            throw Failure(kInternal, "cannot make " + dir + ": " + std::strerror(errno));
        return std::unique_ptr<IndexWriter>(new XapianIndexWriter(dir, GenerationToWrite(dir)));
    } catch (const Xapian::DatabaseLockError &e) {
        throw Failure(kLocked, "index " + dir + " is being written by another process");
    } catch (const Xapian::Error &e) {
        throw Failure(kInternal, e.get_description());
    }
}

}  // namespace zarnd
