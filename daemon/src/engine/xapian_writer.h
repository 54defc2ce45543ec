// One Xapian database, written on a thread of its own: the IndexWriter of a
// single shard, and the part of every index writer that does the writing.
#ifndef ZARND_XAPIAN_WRITER_H
#define ZARND_XAPIAN_WRITER_H

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <xapian.h>

#include "engine.h"
#include "failure.h"
#include "stored_text.h"

namespace zarnd {
namespace xap {

// Documents are made (words split, text packed) on the caller's thread and
// written to the database on a thread of the writer's own, so that the two
// halves of indexing run side by side.  The first failure of the writing
// thread ends the writing and comes back from the caller's next call.
class DatabaseWriter : public IndexWriter {
public:
    // `name` names the database in messages; new documents take ids up to
    // `max_id`; `dir` is where it lies ("" when on another machine), for
    // free space and the tests' failpoints.  A shard's documents carry
    // DocIdTerm and the hit value (xapian_record.h), and its records are read
    // by matches rather than walks over value streams.
    DatabaseWriter(Xapian::WritableDatabase db, const std::string &name, Xapian::docid max_id, const std::string &dir,
                   bool shard = false);
    ~DatabaseWriter() override;

    void Put(const FileRecord &record) override;
    void Add(const FileRecord &record) override;
    void Remove(const std::string &path) override;
    std::map<std::string, std::string> Signatures() override;
    std::map<std::string, std::string> SignaturesUnder(const std::string &path) override;
    void Commit() override;
    // Commits and waits until everything is written.
    void Finish() override;

    // Documents put or removed through this writer.
    uint64_t changes() const { return changes_; }
    Xapian::doccount documents_at_open() const { return documents_at_open_; }
    // The database, for use while the writer is finished and idle.
    Xapian::WritableDatabase &database() { return db_; }

    // Xapian's errors as Failure.
    template <class F>
    static void Guard(F action) {
        try {
            action();
        } catch (const Xapian::Error &e) {
            throw Failure(kInternal, e.get_description());
        }
    }

private:
    // One change for the writing thread.
    struct Change {
        enum Kind { kAdd, kReplace, kRemove, kCommit } kind;
        std::string id_term;  // kReplace, kRemove
        std::string path;     // for messages
        Xapian::Document doc;
        std::vector<std::string> chunks;
        size_t bytes = 0;  // what it holds, roughly, for the queue's bound
    };

    Change MakeChange(Change::Kind kind, const FileRecord &record);
    void Enqueue(Change &&change);
    void Drain();
    void Write();
    void Apply(const Change &change);
    Xapian::docid DocIdOf(const std::string &id_term);
    Xapian::docid OtherDocIdOf(const std::string &id_term, Xapian::docid keep);
    void Delete(Xapian::docid doc_id);
    size_t ChunkCount(Xapian::docid doc_id);

    Xapian::WritableDatabase db_;  // the writing thread's, but while it is idle
    const std::string name_;
    const Xapian::docid max_id_;
    const std::string dir_;
    const bool shard_;
    Xapian::doccount documents_at_open_ = 0;
    Xapian::docid last_id_ = 0;  // the highest id ever given, as the writing thread counts
    uint64_t changes_ = 0;
    uint64_t uncommitted_bytes_ = 0;  // of the changes since the last commit; the writing thread's
    Xapian::TermGenerator generator_;  // words as written; stems come after, once per word
    Xapian::Stem stemmer_;
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

// Failure kInternal, as a full disk, unless the file system of `dir` has
// `bytes` free for `what`: the engine may end the process when the disk
// fills in the middle of a commit (an exception where it cannot leave), so
// a write that would not fit is refused before it starts.  "" skips the
// check (a database on another machine).
void RequireSpace(const std::string &dir, uint64_t bytes, const std::string &what);

}  // namespace xap
}  // namespace zarnd

#endif  // ZARND_XAPIAN_WRITER_H
