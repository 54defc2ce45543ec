// The writer of a sharded index: one DatabaseWriter per shard, each with its
// own writing thread, and every document sent to the shard of its path.
#include "engine.h"
#include "failure.h"
#include "log.h"
#include "xapian_layout.h"
#include "xapian_open.h"
#include "xapian_shards.h"
#include "xapian_writer.h"

namespace zarnd {
namespace xap {

namespace {

class ShardedWriter : public IndexWriter {
public:
    ShardedWriter(std::vector<std::unique_ptr<DatabaseWriter>> shards, std::unique_ptr<WriterLock> lock)
        : lock_(std::move(lock)), shards_(std::move(shards)) {}

    void Put(const FileRecord &record) override { ShardOf(record.path).Put(record); }
    void Add(const FileRecord &record) override { ShardOf(record.path).Add(record); }
    void Remove(const std::string &path) override { ShardOf(path).Remove(path); }

    std::map<std::string, std::string> Signatures() override {
        return Gather([](DatabaseWriter &shard) { return shard.Signatures(); });
    }

    // A subtree's records are spread over every shard.
    std::map<std::string, std::string> SignaturesUnder(const std::string &path) override {
        return Gather([&](DatabaseWriter &shard) { return shard.SignaturesUnder(path); });
    }

    void Commit() override {
        for (const auto &shard : shards_) shard->Commit();
    }

    // The shards commit side by side; then each is waited for.  A sharded
    // index is not rewritten here: its shards may live on other machines.
    void Finish() override {
        Commit();
        for (const auto &shard : shards_) shard->Finish();
    }

private:
    template <class F>
    std::map<std::string, std::string> Gather(F of_shard) {
        std::map<std::string, std::string> all;
        for (const auto &shard : shards_) {
            std::map<std::string, std::string> some = of_shard(*shard);
            all.insert(some.begin(), some.end());
        }
        return all;
    }

    DatabaseWriter &ShardOf(const std::string &path) { return *shards_[ShardOfPath(path, shards_.size())]; }

    // Held while the shards are written: the shard list changes under it.
    const std::unique_ptr<WriterLock> lock_;
    std::vector<std::unique_ptr<DatabaseWriter>> shards_;
};

// Every document of `db` and what is kept beside them (text chunks), so
// that a shard of an older format is rebuilt from nothing, as a local index
// is.  One message per document over the network: once per format change.
void Empty(Xapian::WritableDatabase *db) {
    std::vector<Xapian::docid> ids(db->postlist_begin(std::string()), db->postlist_end(std::string()));
    for (Xapian::docid id : ids) db->delete_document(id);
    std::vector<std::string> keys(db->metadata_keys_begin(kTextChunkPrefix), db->metadata_keys_end(kTextChunkPrefix));
    for (const std::string &key : keys) db->set_metadata(key, std::string());
    db->commit();
}

// Opens shard `k` of `shards` for writing, and checks that it holds nothing
// or this layout's shard k: a document in the wrong shard would never be
// found again by its path, and its id would collide with another's.
std::unique_ptr<DatabaseWriter> OpenShardWriter(const std::vector<Shard> &shards, size_t k, const EngineOptions &options) {
    const Shard &shard = shards[k];
    try {
        Xapian::WritableDatabase db = OpenShardForWriting(shard, options.shard_timeout_ms);
        const std::string mark = db.get_metadata(kShardKey), expected = ShardMark(k, shards.size());
        if (db.get_doccount() > 0 && mark != expected)
            throw Failure(kInternal, "shard " + shard.Name() + " holds another index (shard \"" + mark +
                                         "\", expected \"" + expected + "\"): empty it, or list the shards in the order they were first given");
        if (db.get_doccount() > 0 && db.get_metadata(kFormatKey) != kFormat) {
            ZARN_LOG(LOG_NOTICE, "shard %s has an older format: rebuilding it", shard.Name().c_str());
            Empty(&db);
        }
        // Written only when missing: each write is a commit, hence one more
        // changeset for the shard's replicas to fetch.
        if (mark != expected) db.set_metadata(kShardKey, expected);
        if (db.get_metadata(kFormatKey) != kFormat) db.set_metadata(kFormatKey, kFormat);
        return std::unique_ptr<DatabaseWriter>(new DatabaseWriter(db, "shard " + shard.Name(), MaxLocalId(k, shards.size()),
                                                                shard.remote() ? std::string() : shard.path, true));
    } catch (const Xapian::DatabaseLockError &) {
        throw Failure(kLocked, "shard " + shard.Name() + " is being written by another process");
    } catch (const Xapian::Error &e) {
        throw Failure(kBusy, "shard " + shard.Name() + " is unavailable: " + e.get_description());
    }
}

}  // namespace

std::unique_ptr<IndexWriter> OpenShardedWriter(const std::vector<Shard> &shards, const EngineOptions &options,
                                               std::unique_ptr<WriterLock> lock) {
    std::vector<std::unique_ptr<DatabaseWriter>> writers;
    for (size_t k = 0; k < shards.size(); ++k) writers.push_back(OpenShardWriter(shards, k, options));
    return std::unique_ptr<IndexWriter>(new ShardedWriter(std::move(writers), std::move(lock)));
}

}  // namespace xap
}  // namespace zarnd
