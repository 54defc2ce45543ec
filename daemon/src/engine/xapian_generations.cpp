// The writer of a share's single local index, kept in generations behind
// the stub of its directory: gen-N holds the database that is current.  A
// run that changed much of the index ends by rewriting it compactly into
// gen-N+1, then points the stub there.
#include <dirent.h>
#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "engine.h"
#include "failure.h"
#include "log.h"
#include "xapian_layout.h"
#include "xapian_open.h"
#include "xapian_shards.h"
#include "xapian_writer.h"

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

void SetCurrentGeneration(const std::string &dir, unsigned generation) {
    xap::WriteStub(dir, "glass gen-" + std::to_string(generation) + "\n");
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

// Opens generation `generation` for writing.  A new one starts from
// nothing, whatever a run that died left there, and searches follow it
// from its first commit on.
Xapian::WritableDatabase OpenGeneration(const std::string &dir, unsigned generation) {
    const unsigned old = CurrentGeneration(dir);
    if (old == generation) {
        Xapian::WritableDatabase db(GenerationDir(dir, generation), Xapian::DB_CREATE_OR_OPEN);
        db.set_metadata(xap::kFormatKey, xap::kFormat);  // an empty one may lack it
        return db;
    }
    RemoveDatabaseFiles(GenerationDir(dir, generation), true);
    Xapian::WritableDatabase db(GenerationDir(dir, generation), Xapian::DB_CREATE);
    db.set_metadata(xap::kFormatKey, xap::kFormat);
    db.commit();
    SetCurrentGeneration(dir, generation);
    // The tables of an older generation, or of a first-format index, go.
    if (old > 0) RemoveDatabaseFiles(GenerationDir(dir, old), true);
    RemoveDatabaseFiles(dir, false);
    return db;
}

// Documents changed, above which a run's end rewrites the index.
constexpr double kCompactShare = 0.25;

class GenerationWriter : public IndexWriter {
public:
    GenerationWriter(const std::string &dir, unsigned generation)
        : dir_(dir), generation_(generation), writer_(OpenGeneration(dir, generation), dir, kMaxDocId) {}

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
        const std::string next = GenerationDir(dir_, generation_ + 1);
        xap::DatabaseWriter::Guard([&] {
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
    const std::string dir_;
    const unsigned generation_;
    xap::DatabaseWriter writer_;
};

}  // namespace

namespace xap {

void RemoveLocalIndex(const std::string &dir) {
    const unsigned current = CurrentGeneration(dir);
    if (current > 0) {
        RemoveDatabaseFiles(GenerationDir(dir, current), true);
        RemoveDatabaseFiles(GenerationDir(dir, current + 1), true);
    }
    RemoveDatabaseFiles(dir, false);
}

std::unique_ptr<IndexWriter> OpenLocalWriter(const std::string &dir) {
    return std::unique_ptr<IndexWriter>(new GenerationWriter(dir, GenerationToWrite(dir)));
}

}  // namespace xap

}  // namespace zarnd
