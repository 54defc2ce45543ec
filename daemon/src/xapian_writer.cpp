// IndexWriter on a Xapian database.
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

// An index made by an older indexer is rebuilt from nothing: its documents
// lack what searches now rely on.
int OpenFlags(const std::string &dir) {
    try {
        Xapian::Database existing(dir);
        if (existing.get_doccount() > 0 && existing.get_metadata(xap::kFormatKey) != xap::kFormat) {
            ZARN_LOG(LOG_NOTICE, "index %s has an older format: rebuilding it", dir.c_str());
            return Xapian::DB_CREATE_OR_OVERWRITE;
        }
    } catch (const Xapian::Error &) {
        // None there yet, or unreadable: opening for writing tells which.
    }
    return Xapian::DB_CREATE_OR_OPEN;
}

class XapianIndexWriter : public IndexWriter {
public:
    explicit XapianIndexWriter(const std::string &dir) : db_(dir, OpenFlags(dir)) {
        generator_.set_flags(xap::kTermFlags);
        generator_.set_max_word_length(64);  // longer "words" are noise (hashes, base64)
        db_.set_metadata(xap::kFormatKey, xap::kFormat);
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
    }

    void Remove(const std::string &path) override {
        Guard([&] {
            const Xapian::docid doc_id = DocIdOf(xap::IdTerm(path));
            if (doc_id == 0) return;
            const size_t chunks = ChunkCount(doc_id);
            db_.delete_document(doc_id);
            for (size_t k = 0; k < chunks; ++k) db_.set_metadata(xap::TextChunkKey(doc_id, k), "");
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

    Xapian::WritableDatabase db_;
    Xapian::TermGenerator generator_;
    ChunkPacker packer_;
    std::vector<std::string> chunks_;  // of the record being put
};

}  // namespace

std::unique_ptr<IndexWriter> OpenIndexWriter(const std::string &dir) {
    try {
        return std::unique_ptr<IndexWriter>(new XapianIndexWriter(dir));
    } catch (const Xapian::DatabaseLockError &e) {
        throw Failure(kLocked, "index " + dir + " is being written by another process");
    } catch (const Xapian::Error &e) {
        throw Failure(kInternal, e.get_description());
    }
}

}  // namespace zarnd
