// The writer of a share's single local index, kept in generations behind
// the stub of its directory: gen-N holds the database that is current.  A
// run that changed much of the index ends by rewriting it compactly into
// gen-N+1, then points the stub there.  Everything here runs under the
// writer's lock (xapian_index_lock.h), and a generation is removed only once
// a durable stub names another and no reader is opening it.
#include <dirent.h>
#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "engine.h"
#include "failpoint.h"
#include "failure.h"
#include "log.h"
#include "xapian_index_lock.h"
#include "xapian_layout.h"
#include "xapian_open.h"
#include "xapian_shards.h"
#include "xapian_terms.h"
#include "xapian_writer.h"

namespace zarnd {

namespace {

// The generation that the stub of `dir` names; 0 when there is no stub.
unsigned CurrentGeneration(const std::string &dir) {
    std::FILE *stub = std::fopen((dir + "/" + xap::kStubFile).c_str(), "re");
    unsigned generation = 0;
    if (stub != nullptr) {
        const std::string format = std::string("glass ") + xap::kGenerationPrefix + "%u";
        if (std::fscanf(stub, format.c_str(), &generation) != 1) generation = 0;
        std::fclose(stub);
    }
    return generation;
}

std::string GenerationDir(const std::string &dir, unsigned generation) {
    return dir + "/" + xap::kGenerationPrefix + std::to_string(generation);
}

// The generation that directory entry `name` holds; 0 when it is none.
unsigned GenerationOfName(const std::string &name) {
    const size_t prefix = std::strlen(xap::kGenerationPrefix);
    if (name.compare(0, prefix, xap::kGenerationPrefix) != 0 || name.size() == prefix || name.size() > prefix + 9 ||
        name.find_first_not_of("0123456789", prefix) != std::string::npos)
        return 0;
    return static_cast<unsigned>(std::stoul(name.substr(prefix)));
}

// True when the new stub is on disk for good.
bool SetCurrentGeneration(const std::string &dir, unsigned generation) {
    return xap::WriteStub(dir, std::string("glass ") + xap::kGenerationPrefix + std::to_string(generation) + "\n");
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

// Removes all that the stub of `dir` does not name: every generation but
// `keep` (0: all of them), stubs half written, and, once a stub exists, the
// tables of a first-format index.  A run or a daemon that died, or a rewrite
// or a stub that failed, left them.  Paths in `keep_paths` stay (local shards).
void RemoveRetired(const std::string &dir, unsigned keep, xap::WriterLock &lock,
                   const std::vector<std::string> &keep_paths = {}) {
    if (!lock.WaitForReaders()) return;
    std::vector<std::string> generations, stubs;
    if (DIR *d = opendir(dir.c_str())) {
        const size_t temp = std::strlen(xap::kStubTempPrefix);
        while (const dirent *entry = readdir(d)) {
            const std::string name = entry->d_name, path = dir + "/" + name;
            if (std::find(keep_paths.begin(), keep_paths.end(), path) != keep_paths.end()) continue;
            const unsigned generation = GenerationOfName(name);
            if (generation != 0 && generation != keep) generations.push_back(path);
            if (name.compare(0, temp, xap::kStubTempPrefix) == 0) stubs.push_back(path);
        }
        closedir(d);
    }
    for (const std::string &path : generations) {
        ZARN_LOG(LOG_INFO, "removing %s, which no stub names", path.c_str());
        RemoveDatabaseFiles(path, true);
    }
    for (const std::string &path : stubs) unlink(path.c_str());
    struct stat st;
    if (stat((dir + "/" + xap::kStubFile).c_str(), &st) == 0) RemoveDatabaseFiles(dir, false);
}

// The generation to write: the current one, or a first one when there is
// none or the index is of an older format, which is then rebuilt.
unsigned GenerationToWrite(const std::string &dir) {
    const unsigned current = CurrentGeneration(dir);
    if (current > 0) {
        try {
            Xapian::Database existing(GenerationDir(dir, current));
            if (existing.get_doccount() == 0 ||
                (existing.get_metadata(xap::kFormatKey) == xap::kFormat &&
                 xap::LanguageOf(existing) == xap::ConfiguredLanguage(dir)))
                return current;
        } catch (const Xapian::DatabaseOpeningError &) {
            return current;  // named but not made: opening for writing makes it
        }
    }
    struct stat st;
    if (current > 0 || stat((dir + "/" + xap::kPlainDatabaseFile).c_str(), &st) == 0)
        ZARN_LOG(LOG_NOTICE, "index %s has an older format or another language: rebuilding it", dir.c_str());
    return current + 1;
}

// Opens generation `generation` for writing.  A new one starts from
// nothing, and searches follow it from its first commit on.
Xapian::WritableDatabase OpenGeneration(const std::string &dir, unsigned generation, xap::WriterLock &lock) {
    if (CurrentGeneration(dir) == generation) {
        Xapian::WritableDatabase db(GenerationDir(dir, generation), Xapian::DB_CREATE_OR_OPEN);
        // An empty one may lack it; written only then, as each write is a
        // commit.
        if (db.get_metadata(xap::kFormatKey) != xap::kFormat) db.set_metadata(xap::kFormatKey, xap::kFormat);
        return db;
    }
    Xapian::WritableDatabase db(GenerationDir(dir, generation), Xapian::DB_CREATE_OR_OVERWRITE);
    db.set_metadata(xap::kFormatKey, xap::kFormat);
    db.set_metadata(xap::kLanguageKey, xap::ConfiguredLanguage(dir));
    db.commit();
    // The older generation, or a first-format index, goes.
    if (SetCurrentGeneration(dir, generation)) RemoveRetired(dir, generation, lock);
    return db;
}

// Documents changed, above which a run's end rewrites the index.
constexpr double kCompactShare = 0.25;
// Free space that a rewrite asks for beyond the size of what it rewrites.
constexpr uint64_t kCompactMargin = 8u << 20;

// The bytes of the files in directory `dir`.
uint64_t FilesBytes(const std::string &dir) {
    uint64_t bytes = 0;
    if (DIR *d = opendir(dir.c_str())) {
        struct stat st;
        while (const dirent *entry = readdir(d))
            if (stat((dir + "/" + entry->d_name).c_str(), &st) == 0 && S_ISREG(st.st_mode))
                bytes += static_cast<uint64_t>(st.st_size);
        closedir(d);
    }
    return bytes;
}

// Reports how far a rewrite has come: the tests' crash point inside one.
class CompactionProgress : public Xapian::Compactor {
public:
    explicit CompactionProgress(const std::string &dir) : dir_(dir) {}
    // Called as each table begins (no status) and ends.
    void set_status(const std::string &, const std::string &status) override {
        if (!status.empty()) FailPoint(failpoint::kCompacting, dir_);
    }

private:
    const std::string dir_;
};

class GenerationWriter : public IndexWriter {
public:
    GenerationWriter(const std::string &dir, std::unique_ptr<xap::WriterLock> lock, unsigned generation)
        : dir_(dir),
          lock_(std::move(lock)),
          generation_(generation),
          writer_(OpenGeneration(dir, generation, *lock_), dir, kMaxDocId, dir) {}

    void Put(const FileRecord &record) override { writer_.Put(record); }
    void Add(const FileRecord &record) override { writer_.Add(record); }
    void Remove(const std::string &path) override { writer_.Remove(path); }
    std::map<std::string, std::string> Signatures() override { return writer_.Signatures(); }
    std::map<std::string, std::string> SignaturesUnder(const std::string &path) override {
        return writer_.SignaturesUnder(path);
    }
    void Commit() override { writer_.Commit(); }

    void Finish() override {
        writer_.Finish();
        Xapian::doccount documents = 0;
        xap::DatabaseWriter::Guard([&] { documents = writer_.database().get_doccount(); });
        if (writer_.changes() < kCompactShare * std::max(writer_.documents_at_open(), documents)) return;
        const unsigned next = generation_ + 1;
        bool durable = false;
        try {
            xap::RequireSpace(dir_, kCompactMargin + FilesBytes(GenerationDir(dir_, generation_)), "a rewrite of the index");
            xap::DatabaseWriter::Guard([&] {
                CompactionProgress progress(dir_);
                // Ids stay: clients hold them, and the text chunks are kept under them.
                Xapian::Database(GenerationDir(dir_, generation_))
                    .compact(GenerationDir(dir_, next), Xapian::DBCOMPACT_NO_RENUMBER, 0, progress);
            });
            FailPoint(failpoint::kCompacted, dir_);
            durable = SetCurrentGeneration(dir_, next);
        } catch (...) {
            // The current generation stays; a half-made one would only take
            // space, on a disk that may well be full.
            RemoveDatabaseFiles(GenerationDir(dir_, next), true);
            throw;
        }
        FailPoint(failpoint::kSwapped, dir_);
        // This writer keeps its own files of the old generation open until it
        // closes, as searches inside it do.
        if (durable) RemoveRetired(dir_, next, *lock_);
        ReleaseRetiredIndexes();
    }

private:
    const std::string dir_;
    const std::unique_ptr<xap::WriterLock> lock_;
    const unsigned generation_;
    xap::DatabaseWriter writer_;
};

}  // namespace

namespace xap {

std::unique_ptr<IndexWriter> OpenLocalWriter(const std::string &dir, std::unique_ptr<WriterLock> lock) {
    RemoveRetired(dir, CurrentGeneration(dir), *lock);
    const unsigned generation = GenerationToWrite(dir);
    return std::unique_ptr<IndexWriter>(new GenerationWriter(dir, std::move(lock), generation));
}

void RemoveLocalIndex(const std::string &dir, WriterLock &lock, const std::vector<std::string> &keep_paths) {
    RemoveRetired(dir, 0, lock, keep_paths);
}

}  // namespace xap
}  // namespace zarnd
