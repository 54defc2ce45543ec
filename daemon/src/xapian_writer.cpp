// IndexWriter on a Xapian database, kept in generations behind a stub.
#include <dirent.h>
#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

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
    }

    void Put(const FileRecord &record) override {
        const std::string id = xap::IdTerm(record.path);
        Guard([&] {
            const Xapian::docid old_id = DocIdOf(id);
            // A replaced record keeps its id; only a new one takes the next.
            if (old_id == 0 && db_.get_lastdocid() >= kMaxDocId)
                throw Failure(kInternal, "no document id left for " + record.path +
                                             ": remove the index to rebuild it");
            const size_t old_chunks = old_id == 0 ? 0 : ChunkCount(old_id);
            const Xapian::docid doc_id = db_.replace_document(id, xap::BuildDocument(record, &generator_, &packer_, &chunks_));
            for (size_t k = 0; k < chunks_.size(); ++k) db_.set_metadata(xap::TextChunkKey(doc_id, k), chunks_[k]);
            for (size_t k = chunks_.size(); k < old_chunks; ++k) db_.set_metadata(xap::TextChunkKey(doc_id, k), "");
        });
        ++changes_;
    }

    void Add(const FileRecord &record) override {
        Guard([&] {
            if (db_.get_lastdocid() >= kMaxDocId)
                throw Failure(kInternal, "no document id left for " + record.path + ": remove the index to rebuild it");
            const Xapian::docid doc_id = db_.add_document(xap::BuildDocument(record, &generator_, &packer_, &chunks_));
            for (size_t k = 0; k < chunks_.size(); ++k) db_.set_metadata(xap::TextChunkKey(doc_id, k), chunks_[k]);
        });
        ++changes_;
    }

    void Remove(const std::string &path) override {
        Guard([&] {
            const Xapian::docid doc_id = DocIdOf(xap::IdTerm(path));
            if (doc_id == 0) return;
            const size_t chunks = ChunkCount(doc_id);
            db_.delete_document(doc_id);
            for (size_t k = 0; k < chunks; ++k) db_.set_metadata(xap::TextChunkKey(doc_id, k), "");
            ++changes_;
        });
    }

    std::map<std::string, std::string> Signatures() override {
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

    void Commit() override {
        Guard([&] { db_.commit(); });
    }

    void Finish() override {
        Commit();
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
    template <class F>
    static void Guard(F action) {
        try {
            action();
        } catch (const Xapian::Error &e) {
            throw Failure(kInternal, e.get_description());
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
    Xapian::WritableDatabase db_;
    Xapian::doccount documents_at_open_ = 0;
    uint64_t changes_ = 0;  // documents put or removed
    Xapian::TermGenerator generator_;
    ChunkPacker packer_;
    std::vector<std::string> chunks_;  // of the record being put
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
