// IndexWriter on a Xapian database.
#include <memory>

#include <xapian.h>

#include "engine.h"
#include "failure.h"
#include "schema.h"
#include "xapian_document.h"
#include "xapian_layout.h"

namespace zarnd {

namespace {

class XapianIndexWriter : public IndexWriter {
public:
    explicit XapianIndexWriter(const std::string &dir) : db_(dir, Xapian::DB_CREATE_OR_OPEN) {
        generator_.set_flags(xap::kTermFlags);
        generator_.set_max_word_length(64);  // longer "words" are noise (hashes, base64)
    }

    void Put(const FileRecord &record) override {
        const std::string id = xap::IdTerm(record.path);
        Guard([&] {
            // A replaced record keeps its id; only a new one takes the next.
            if (db_.get_lastdocid() >= kMaxDocId && !db_.term_exists(id))
                throw Failure(kInternal, "no document id left for " + record.path +
                                             ": remove the index to rebuild it");
            db_.replace_document(id, xap::BuildDocument(record, &generator_));
        });
    }

    void Remove(const std::string &path) override {
        Guard([&] { db_.delete_document(xap::IdTerm(path)); });
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

    Xapian::WritableDatabase db_;
    Xapian::TermGenerator generator_;
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
