// The daemon's units whose cases the share of the end-to-end tests cannot
// hold: other users and groups, odd bytes, cut fragments, the folder list,
// the last document id, the kernel events that the watcher reads and the
// order in which the scheduler hands requests to the workers.
#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <random>
#include <set>

#include <gtest/gtest.h>

#include "harness.h"
#include "query_rewrite.h"
#include "failure.h"
#include "name_text.h"
#include "utf8.h"
#include "file_record.h"
#include "folders.h"
#include "fragment.h"
#include "scheduler.h"
#include "sort_key.h"
#include "text_content.h"
#include "watcher.h"
#include "word_forms.h"
#include "xapian_document.h"
#include "xapian_layout.h"
#include "xapian_query.h"
#include "xapian_record.h"
#include "xapian_shards.h"
#include "xapian_terms.h"

namespace zarnd {
namespace {

TEST(DaemonUnits, ModeBitsOfTheFileAndEveryFolderAbove) {
    const Access open_dir = {0, 0, 040755};
    const struct {
        uint32_t uid;
        std::vector<uint32_t> groups;
        AccessChain chain;  // file first
        bool readable;
    } cases[] = {
        {1000, {50, 100}, {{0, 100, 0100640}, open_dir}, true},           // a group member
        {1000, {}, {{1000, 0, 0100074}, open_dir}, false},                // the owner's class only, though others may
        {1000, {7}, {{0, 7, 0100604}, open_dir}, false},                  // the group's class only
        {1000, {}, {{0, 0, 0100644}, {0, 0, 040711}}, true},              // search without read is enough
        {2000, {9}, {{0, 0, 0100644}, open_dir, {0, 9, 040705}}, false},  // a grand-folder closed to the group
        {2000, {}, {{0, 0, 0100644}, open_dir, {2000, 9, 040700}}, true},
    };
    for (const auto &c : cases) EXPECT_EQ(c.readable, MayRead({c.uid, c.groups}, EncodeAccessChain(c.chain))) << c.uid;
    // A damaged chain grants nothing.
    EXPECT_FALSE(MayRead({1000, {}}, ""));
    EXPECT_FALSE(MayRead({1000, {}}, EncodeAccessChain({{0, 0, 0100644}}).substr(0, 11)));
}

// The permission filter of a search against the mode bits read directly:
// random chains of mixed owners, groups and modes, users of every kind.
TEST(DaemonUnits, PermissionFilterHidesExactlyWhatTheModeBitsHide) {
    std::mt19937 random(7);
    const uint32_t ids[] = {0, 100, 1000, 1001, 1002};
    const uint32_t modes[] = {0755, 0750, 0700, 0711, 0705, 0070, 0007, 0644, 0640, 0600, 0604, 0074, 0000, 0777};
    std::unique_ptr<IndexWriter> writer = OpenIndexWriter("/var/perm");
    std::vector<std::string> chains;
    for (int n = 0; n < 400; ++n) {
        AccessChain chain;
        for (size_t depth = 1 + random() % 4; chain.size() < depth;)
            chain.push_back({ids[random() % 5], ids[random() % 5], modes[random() % 14]});
        FileRecord record;
        record.fields["ZARNMDPath"] = record.path = "/s/" + std::to_string(n);
        chains.push_back(record.access = EncodeAccessChain(chain));
        writer->Put(record);
    }
    writer->Finish();
    const Credentials users[] = {{0, {}}, {1000, {100}}, {1001, {100, 1002}}, {1002, {}}, {4242, {}}, {4242, {100}}};
    const auto check = [&](const char *when) {
        for (const Credentials &user : users) {
            SearchPlan plan;
            plan.size = 1000;
            plan.reader = &user;
            std::vector<uint32_t> found, expected;
            const uint64_t total = OpenSearchIndex("/var/perm")->PageIds(plan, &found);
            for (uint32_t id = 1; id <= chains.size(); ++id)
                if (MayRead(user, chains[id - 1])) expected.push_back(id);
            std::sort(found.begin(), found.end());
            EXPECT_EQ(expected, found) << user.uid << " " << when;
            EXPECT_EQ(expected.size(), total) << user.uid << " " << when;
        }
    };
    check("at first");
    // A commit that brings a restriction no document had: searches of the
    // index that stayed open hide it at once.
    writer.reset();
    writer = OpenIndexWriter("/var/perm");
    for (int n = 400; n < 410; ++n) {
        FileRecord record;
        record.fields["ZARNMDPath"] = record.path = "/s/" + std::to_string(n);
        chains.push_back(record.access = EncodeAccessChain({{1003, 1003, 0100600}}));
        writer->Put(record);
    }
    writer->Finish();
    check("after a commit");
}

// A value slot holds one field's values: a field whose slot another fills
// would sort and range over that one's values where its own are missing.
TEST(DaemonUnits, EveryFieldKeepsSlotsOfItsOwn) {
    std::set<Xapian::valueno> used = {xap::kAccessSlot, xap::kRecordSlot, xap::kTextLayoutSlot, xap::kHitSlot};
    size_t count = 0;
    const xap::FieldLayout *layouts = xap::FieldLayouts(&count);
    for (size_t i = 0; i < count; ++i)
        for (const Xapian::valueno slot : {layouts[i].slot, layouts[i].natural_slot})
            if (slot != Xapian::BAD_VALUENO) {
                EXPECT_TRUE(used.insert(slot).second) << layouts[i].field << " " << slot;
            }
}

TEST(DaemonUnits, NaturalSortKeys) {
    const std::vector<std::string> natural = {"", "a", "File1", "file2", "file10", "file10b", "file010c", "file99z",
                                              "file100", "filea", "x2y3", "x2y10", "x10"};
    for (size_t i = 1; i < natural.size(); ++i) EXPECT_LT(NaturalKey(natural[i - 1]), NaturalKey(natural[i])) << i;
    EXPECT_EQ(NaturalKey("a01"), NaturalKey("a1"));
}

// A name's parts, accents folded, and a query made ready for the parser;
// "-" for a name that the engine cuts as well as NameParts would.
TEST(DaemonUnits, WordFormsAndTheQueryTheParserGets) {
    const std::pair<const char *, const char *> names[] = {
        {"AnnualBudget2023.xlsx", "Annual Budget 2023 xlsx"}, {"team_offsite-notes", "team offsite notes"},
        {"XMLParser", "XML Parser"}, {"IMG_0042.JPG", "IMG 0042 JPG"}, {"Übersicht_Projekte", "Übersicht Projekte"},
        {"readme.txt", "-"}, {"team-notes", "-"}, {"", "-"},
    };
    for (const auto &c : names) EXPECT_EQ(c.second[0] == '-' ? "" : c.second, NameParts(c.first)) << c.first;
    const std::pair<const char *, const char *> folds[] = {
        {"Résumé RÉSUMÉ", "Resume RESUME"}, {"naïve señor Ærø", "naive senor Ærø"}, {"ﬁle ＡＢＣ", "file ABC"},
        {"Ελλάδα Йод", "Ελλαδα Иод"}, {"ガギ", "ガギ"}, {"\xff", "\xEF\xBF\xBD"},
    };
    for (const auto &c : folds) EXPECT_EQ(c.second, FoldAccents(c.first)) << c.first;
    const QueryFields fields = {{"ZARNMDParent"}, {"ZARNMDFSName"}};
    const std::pair<const char *, const char *> queries[] = {
        {"Changel", "ZARNPARTIAL:changel"},
        {"Résumé ", "resume "},
        {"\"Free Software\" NOT Foo", "\"Free Software\" NOT ZARNPARTIAL:foo"},
        {"lib* AND (a OR B)", "lib* AND (a OR ZARNPARTIAL:b)"},
        {"ZARNMDFSName:Résumé x", "ZARNMDFSName:\"resume\" ZARNPARTIAL:x"},
        {"ZARNMDFSName:lib* ZARNMDFSName:\"A b\"", "ZARNMDFSName:lib* ZARNMDFSName:\"A b\""},
        {"ZARNMDParent:/Été/x -ZARNMDParent:\"/a b\"", "ZARNMDParent:/Été/x -ZARNMDParent:\"/a b\""},
        {"teamOffsite", "(ZARNPARTIAL:teamoffsite OR \"team offsite\")"},
        {"-team_offsite", "-ZARNPARTIAL:team_offsite"},
        {"f1* Team_Off*", "f1* team_off*"},  // a wildcard stays on its word
        {"a 日本b", "a ZARNCJK:日本b "},
        {"x日本", "ZARNCJK:x日本 "},  // a word that holds CJK goes whole
        {"OR a 日b", "OR a ZARNCJK:日b "},
        {"\"a 日本\"", "\"a  日  本 \""},
        {"ZARNMDFSName:日本)", "ZARNCJKZARNMDFSName:日本 )"},
    };
    for (const auto &c : queries) EXPECT_EQ(c.second, RewriteQuery(c.first, fields).text) << c.first;
    // The words that weigh: bare ones, not after "-", not in phrases or fields.
    const RewrittenQuery weighed = RewriteQuery("Été -x \"p q\" ZARNMDFSName:n teamOffsite Budg", fields);
    EXPECT_EQ((std::vector<std::string>{"ete", "teamoffsite", "team", "offsite", "budg"}), weighed.words);
    EXPECT_TRUE(weighed.typing);
    EXPECT_FALSE(RewriteQuery("budg ", fields).typing);
}

// The stems added once per word weigh what the engine's generator gives
// when it stems word by word: the same terms, the same wdf, in every kind of
// field, and none for digits or the fields kept as exact terms.
TEST(DaemonUnits, StemsAddedOncePerWordAreTheEnginesOwn) {
    const std::pair<const char *, const char *> texts[] = {
        {"", "Licenses licensed LICENSE the license's 2023 3rd x"}, {"XN", "AnnualBudget2023 budgets Budgeting"},
        {"XMA", "Cameras camera"}, {"", "日本語のテキスト running runs"}, {"XT", "naïve Señor señores"},
        {"XD", "running"},  // an exact term's field: no stem
    };
    Xapian::Stem stemmer("english");
    for (const auto &c : texts) {
        Xapian::TermGenerator engine, ours;
        Xapian::Document expected, got;
        for (Xapian::TermGenerator *generator : {&engine, &ours}) generator->set_flags(xap::kTermFlags);
        engine.set_stemmer(stemmer);
        engine.set_document(expected);
        ours.set_document(got);
        engine.index_text(c.second, 1, c.first);
        ours.index_text(c.second, 1, c.first);
        xap::AddStems(stemmer, &got);
        if (std::string(c.first) == "XD") {  // the engine stems whatever it is given
            expected = Xapian::Document();
            engine.set_stemming_strategy(Xapian::TermGenerator::STEM_NONE);
            engine.set_document(expected);
            engine.index_text(c.second, 1, c.first);
        }
        std::vector<std::pair<std::string, Xapian::termcount>> want, have;
        for (Xapian::TermIterator t = expected.termlist_begin(); t != expected.termlist_end(); ++t) want.emplace_back(*t, t.get_wdf());
        for (Xapian::TermIterator t = got.termlist_begin(); t != got.termlist_end(); ++t) have.emplace_back(*t, t.get_wdf());
        EXPECT_EQ(want, have) << c.second;
    }
}

// Queries with a syntax error that the engine's own CJK n-gram parsing
// brings out, where Xapian 1.4.22's parser leaks 96 bytes each: refused or
// parsed, and under the sanitizers and valgrind nothing leaks (the second
// is the fuzzer's find, as the library sends it).
TEST(DaemonUnits, CjkQueriesWithSyntaxErrorsLeakNothing) {
    Xapian::WritableDatabase db(std::string(), Xapian::DB_BACKEND_INMEMORY);
    const char odd[] = "\0\0\0&\xef\xbf\xbd\xef\xbf\xbdOR\0s \xe6\x97\xa5s\xef\xbf\xbd\0\x10\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd"
                       "r\": [{\"\xef\xbf\xbd\0\x10ter\" \"\xef\xbf\xbd\xef\xbf\xbdO";
    for (const std::string &query : {std::string("OR a 日b"), std::string(odd, sizeof odd - 1), std::string("a AND 日本 OR")}) {
        try {
            xap::ParseQuery(query, db, Xapian::Stem("english"), true);
        } catch (const Failure &failure) {
            EXPECT_EQ(kBadRequest, failure.code()) << failure.what();
        }
    }
}

TEST(DaemonUnits, FragmentIsCutBelowTheLimitWithoutBreakingAnything) {
    const std::string mail = "Olly Betts &lt;olly@example.org&gt; wrote the <em>xapian</em> bindings for us all";
    const struct {
        std::string in;
        size_t frag_length;
        std::string out;
    } cases[] = {
        {"short <em>hit</em>", 100, "short <em>hit</em>"},
        // The match with context on both sides, whole words, "…" where cut.
        {mail, 40, "\xE2\x80\xA6the <em>xapian</em> bindings\xE2\x80\xA6"},
        {mail, 60, "\xE2\x80\xA6wrote the <em>xapian</em> bindings for us all"},
        {"\xE2\x80\xA6 ab cd <em>x</em> ef gh \xE2\x80\xA6", 24, "\xE2\x80\xA6" "cd <em>x</em> ef\xE2\x80\xA6"},
        {"0123456789 <em>x</em>", 14, "\xE2\x80\xA6<em>x</em>"},  // room for one mark
        {"0123456789 <em>x</em>", 12, "<em>x</em>"},
        {"abcdef", 2, "a"},
        {"ab\xC3\xA9z", 4, "ab"},  // no half character
        {"a &amp; b", 5, "a\xE2\x80\xA6"},  // no half escape
        {"xy <em>word</em> tail", 12, "<em>wo</em>"},  // the match shown, if only in part
        {"<em>a</em> <em>b</em>", 13, "<em>a</em>"},
        {"anything", 1, ""},
        {"a <em>b</em> c", 10, ""},  // no empty highlight, no half tag
    };
    for (const auto &c : cases) EXPECT_EQ(c.out, CutFragment(c.in, c.frag_length)) << c.in << " / " << c.frag_length;
}

// Repaired: each byte that starts no valid sequence becomes U+FFFD.
TEST(DaemonUnits, TextIsRepairedCutBetweenCharactersOrRefused) {
    const std::string euro_at_9 = std::string(9, 'a') + "\xE2\x82\xAC" + "tail", bad = "\xEF\xBF\xBD";
    const struct {
        std::string content;
        size_t limit;
        bool text;
        std::string expected;
    } cases[] = {
        {"caf\xE9 ol\xE9", 100, true, "caf" + bad + " ol" + bad},
        // Overlong forms and a surrogate.
        {"a\xC0\xAF" "b \xE0\x80\x80 \xED\xA0\x80", 100, true, "a" + bad + bad + "b " + bad + bad + bad + " " + bad + bad + bad},
        {"\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80", 100, true, "\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80"},
        {euro_at_9, 10, true, std::string(9, 'a')},
        {euro_at_9, 12, true, euro_at_9.substr(0, 12)},
        {std::string(40, '\x01') + "abc", 100, false, ""},
        {std::string(10000, 'a'), 9000, true, std::string(9000, 'a')},  // read past a first block
        {std::string(6000, 'a'), 100000, true, std::string(6000, 'a')},
        {std::string(5000, 'a') + '\0' + "b", 100000, false, ""},
        {"", 100, false, ""},
    };
    for (const auto &c : cases) {
        const int fd = memfd_create("content", 0);
        ASSERT_EQ(static_cast<ssize_t>(c.content.size()), write(fd, c.content.data(), c.content.size()));
        std::string text = "stale";
        EXPECT_EQ(c.text, ExtractText(fd, &text, c.limit)) << c.content;
        EXPECT_EQ(c.expected, text) << c.content;
        close(fd);
    }
}

TEST(DaemonUnits, IndexedFoldersGroupedByShareWithoutNestedOrMalformedEntries) {
    zarntest::WriteFile("/var/folders.json", R"([{"path":"/a/x"},{"path":"/a/x/y"},{"path":"/a/xy"},{"path":"/b/"},)"
                                             R"({"path":"/b/c"},{"nopath":1},7,{"path":"/"},{"path":"/c/../d"},{"path":"/c/.."}])");
    std::map<std::string, std::set<std::string>> shares;
    ASSERT_TRUE(ReadIndexedFolders("/var/folders.json", &shares));
    EXPECT_EQ((std::map<std::string, std::set<std::string>>{{"a", {"/a/x", "/a/xy"}}, {"b", {"/b"}}}), shares);
    zarntest::WriteFile("/var/folders.json", "not json");
    EXPECT_FALSE(ReadIndexedFolders("/var/folders.json", &shares));
    EXPECT_TRUE(shares.empty());
}

// An index of an older format is refused by searches and rebuilt by the
// writer; an index whose last id is already the largest a client can hold
// takes updates but no new record.
TEST(DaemonUnits, OldFormatsAreRebuiltAndDocumentIdsStayWithinASigned32BitInt) {
    Xapian::Document doc;
    doc.add_boolean_term(xap::IdTerm("/s/last"));
    Xapian::WritableDatabase("/var/index", Xapian::DB_CREATE_OR_OPEN).replace_document(kMaxDocId, doc);
    SearchPlan plan;
    std::vector<uint32_t> ids;
    try {
        OpenSearchIndex("/var/index")->PageIds(plan, &ids);
        ADD_FAILURE() << "an index of an older format was searched";
    } catch (const Failure &failure) {
        EXPECT_EQ(kBusy, failure.code());
        EXPECT_NE(std::string::npos, std::string(failure.what()).find("run zarnelasticd index")) << failure.what();
    }
    OpenIndexWriter("/var/index")->Commit();
    EXPECT_EQ(0u, Xapian::Database("/var/index").get_doccount());  // rebuilt from nothing
    {
        Xapian::WritableDatabase db("/var/index", Xapian::DB_CREATE_OR_OPEN);
        db.replace_document(kMaxDocId, doc);
        db.set_metadata(xap::kFormatKey, xap::kFormat);
    }
    FileRecord record;
    record.fields["ZARNMDPath"] = record.path = "/s/last";
    OpenIndexWriter("/var/index")->Put(record);  // no Finish: a writer that goes commits what it wrote
    record.path = "/s/new";
    try {
        std::unique_ptr<IndexWriter> writer = OpenIndexWriter("/var/index");
        writer->Put(record);
        writer->Finish();
        ADD_FAILURE() << "a new record got an id above the limit";
    } catch (const Failure &failure) {
        EXPECT_EQ(kInternal, failure.code());
    }
    Json::Value fields;
    std::string access;
    EXPECT_TRUE(OpenSearchIndex("/var/index")->Fetch(kMaxDocId, &fields, &access));
    EXPECT_EQ("/s/last", fields["ZARNMDPath"].asString());
}

// Shard lists from the command line and from the stub, and the ids that
// interleave the shards' own: unique, reversible, below 2^31.
TEST(DaemonUnits, ShardListsAndCombinedIds) {
    const std::pair<const char *, const char *> shards[] = {
        {"10.0.0.2:7301", "10.0.0.2:7301"}, {"/srv/shard", "/srv/shard"}, {"host:65535", "host:65535"},
        {"host:0", ""}, {"host:65536", ""}, {"host:", ""}, {":7301", ""}, {"host", ""}, {"a b:1", ""}, {"rel/path", ""},
        {"a:1+b:2+c:3", "a:1+b:2+c:3"}, {"/srv/shard+b:2", "/srv/shard+b:2"}, {"a:1+", ""}, {"+a:1", ""}, {"a:1++b:2", ""},
        {"a:1+b", ""},
    };
    for (const auto &c : shards) {
        xap::Shard shard;
        EXPECT_EQ(*c.second != '\0', xap::ParseShard(c.first, &shard)) << c.first;
        if (*c.second) {
            EXPECT_EQ(c.second, shard.ListName());
            // The stub keeps the copies, and still opens as Xapian's own.
            mkdir("/var/copies", 0755);
            xap::WriteShards("/var/copies", {shard, shard});
            std::vector<xap::Shard> back;
            ASSERT_TRUE(xap::ReadShards("/var/copies", &back)) << c.first;
            EXPECT_EQ(std::vector<xap::Shard>({shard, shard}), back) << c.first;
        }
    }
    mkdir("/var/index", 0755);
    std::vector<xap::Shard> read;
    const std::pair<const char *, size_t> stubs[] = {{"", 0}, {"glass gen-3\n", 0}, {"remote :h:1\nauto /x\nglass rel\n", 3}};
    for (const auto &c : stubs) {
        zarntest::WriteFile("/var/index/XAPIANDB", c.first);
        EXPECT_EQ(c.second > 0, xap::ReadShards("/var/index", &read)) << c.first;
        EXPECT_EQ(c.second, read.size()) << c.first;
    }
    EXPECT_EQ("/var/index/rel", read[2].path);
    zarntest::WriteFile("/var/index/XAPIANDB", "remote h:1\n");
    EXPECT_THROW(xap::ReadShards("/var/index", &read), Failure);
    for (size_t count : {1, 3, 7}) {
        std::set<Xapian::docid> seen;
        for (size_t k = 0; k < count; ++k) {
            for (Xapian::docid local : {1u, 2u, 1000u, xap::MaxLocalId(k, count)}) {
                const Xapian::docid id = xap::CombinedId(local, k, count);
                size_t shard = 99;
                Xapian::docid back = 0;
                xap::SplitId(id, count, &shard, &back);
                EXPECT_TRUE(shard == k && back == local && id <= kMaxDocId && seen.insert(id).second) << id;
            }
            EXPECT_GT(uint64_t{xap::CombinedId(xap::MaxLocalId(k, count), k, count)} + count, uint64_t{kMaxDocId});
        }
    }
}

// A name's text form is valid UTF-8, gives back its bytes, and no two names
// share one.
TEST(DaemonUnits, NamesAreEscapedReversiblyAndUnambiguously) {
    const std::pair<std::string, std::string> cases[] = {
        {"caf\xC3\xA9.txt", "caf\xC3\xA9.txt"},
        {"caf\xE9.txt", "caf\\xE9.txt"},
        {"caf\xE8.txt", "caf\\xE8.txt"},
        {"caf\\xE9.txt", "caf\\\\xE9.txt"},  // a real backslash, then "xE9"
        {"a\\\\b", "a\\\\\\\\b"},
        {"\xC0\xAF\xED\xA0\x80\xF4\x90\x80\x80/x\xE2\x82", "\\xC0\\xAF\\xED\\xA0\\x80\\xF4\\x90\\x80\\x80/x\\xE2\\x82"},
        {"\x80\xFF", "\\x80\\xFF"},
    };
    std::set<std::string> forms;
    for (const auto &c : cases) {
        const std::string form = EscapeName(c.first);
        EXPECT_EQ(c.second, form);
        EXPECT_EQ(form, RepairUtf8(form.data(), form.size()));
        EXPECT_EQ(c.first, zarn::UnescapeName(form));
        EXPECT_TRUE(forms.insert(form).second) << form;
    }
}

// A free worker takes the oldest request whose uid serves fewer than its
// share of the workers; root is never held back; a uid holds at most
// max_per_user connections.  Each row queues its uids in order, then takes
// requests until none may be taken, then finishes the first one taken.
TEST(DaemonUnits, SchedulerServesAUidUnderItsShareFirstAndNeverMoreThanItsShare) {
    const struct {
        unsigned share;
        std::vector<uid_t> queued;
        std::vector<uid_t> taken;        // in order, until none may be taken
        std::vector<uid_t> after_finish;  // once the first taken is finished
    } cases[] = {
        {2, {1000, 1000, 1000, 1001}, {1000, 1000, 1001}, {1000}},  // the third waits; a younger uid passes it
        {1, {1000, 1000, 0, 1001}, {1000, 0, 1001}, {1000}},        // root passes too
        {2, {0, 0, 0, 0}, {0, 0, 0, 0}, {}},                        // root is never held back
        {1, {1000, 1001, 1000, 1001}, {1000, 1001}, {1000}},        // each uid one at a time
        {3, {1000, 1000, 1000, 1000}, {1000, 1000, 1000}, {1000}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.queued) + " share " + std::to_string(c.share));
        Scheduler scheduler(16, 16, c.share);
        for (const uid_t uid : c.queued) {
            ASSERT_TRUE(scheduler.Admit(uid));
            ASSERT_TRUE(scheduler.Push({-1, {uid, 1}, Clock::now(), false}));
        }
        std::vector<uid_t> taken;
        std::vector<Connection> served;
        for (Connection next; scheduler.TryPop(&next);) {
            taken.push_back(next.peer.uid);
            served.push_back(next);
        }
        EXPECT_EQ(taken, c.taken);
        ASSERT_FALSE(served.empty());
        scheduler.Finish(served.front());
        std::vector<uid_t> after;
        for (Connection next; scheduler.TryPop(&next);) after.push_back(next.peer.uid);
        EXPECT_EQ(after, c.after_finish);
    }
    Scheduler capped(16, 2, 1);
    EXPECT_TRUE(capped.Admit(1000));
    EXPECT_TRUE(capped.Admit(1000));
    EXPECT_FALSE(capped.Admit(1000));  // its cap
    EXPECT_TRUE(capped.Admit(1001));
    EXPECT_TRUE(capped.Admit(0));
    EXPECT_TRUE(capped.Admit(0));
    EXPECT_TRUE(capped.Admit(0));  // root is never capped
    // Stopped, it closes what waits unserved: a daemon never keeps a
    // connection's descriptor.
    Scheduler stopped(16, 16, 1);
    const int fd = eventfd(0, EFD_CLOEXEC);
    ASSERT_TRUE(stopped.Admit(1000) && stopped.Push({fd, {1000, 1}, Clock::now(), false}));
    stopped.Stop();
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));
}

// Real kernel events on watched folders /w/a and /w/a/sub, each change
// giving the paths it makes stale, once per event (kConfig as "config").
TEST(DaemonUnits, WatcherTurnsEventsIntoStalePaths) {
    ASSERT_EQ(0, std::system("mkdir -p /var/w/a/sub /var/w/a/@eaDir /var/w/etc && echo 1 > /var/w/a/old.txt"));
    Watcher watcher(3);
    for (const char *folder : {"a", "a/sub"}) {
        const int fd = open((std::string("/var/w/") + folder).c_str(), O_RDONLY | O_DIRECTORY);
        ASSERT_TRUE(watcher.Watch(fd, "w", std::string("/w/") + folder, std::string("/var/w/") + folder));
        close(fd);
    }
    ASSERT_TRUE(watcher.WatchConfig("/var/w/etc/folders"));
    const auto stale = [&](const std::string &change) {
        EXPECT_EQ(0, std::system(("cd /var/w && " + change).c_str())) << change;
        std::vector<WatchEvent> events;
        watcher.Read(&events);
        std::multiset<std::string> paths;
        for (const WatchEvent &event : events) paths.insert(event.kind == WatchEvent::kConfig ? "config" : event.path);
        return paths;
    };
    using Paths = std::multiset<std::string>;
    const std::pair<const char *, Paths> cases[] = {
        {"printf 'new' > a/new.txt", {"/w/a/new.txt"}},  // read at its close, not at its creation
        {"ln a/old.txt a/sub/link.txt", {"/w/a/sub/link.txt"}},  // no close follows
        {"echo x > a/@eaDir/meta && echo y > etc/other", {}},
        {"chmod 700 a/sub", {"/w/a/sub", "/w/a/sub"}},  // from the folder, and from its parent
        {"echo '[]' > etc/folders", {"config"}},
        {"mv a/sub a/moved && echo z > a/moved/after.txt", {"/w/a/sub", "/w/a/moved"}},  // its watch goes
        {"rm a/old.txt && mkdir a/d", {"/w/a/old.txt", "/w/a/d"}},
        {"mv a /var/w/gone", {"/w/a"}},
    };
    for (const auto &c : cases) EXPECT_EQ(c.second, stale(c.first)) << c.first;
    EXPECT_EQ(0u, watcher.size());
    // The kernel drops events when its queue is full: what is stale is unknown.
    std::vector<WatchEvent> events;
    inotify_event overflow = {-1, IN_Q_OVERFLOW, 0, 0};
    watcher.Handle(overflow, &events);
    ASSERT_EQ(1u, events.size());
    EXPECT_EQ(WatchEvent::kOverflow, events[0].kind);
    // Over its cap the watcher watches nothing more.
    const int fd = open("/var/w/gone", O_RDONLY | O_DIRECTORY);
    Watcher capped(1);
    EXPECT_TRUE(capped.Watch(fd, "w", "/w/gone", "/var/w/gone"));
    EXPECT_FALSE(capped.Watch(fd, "w", "/w/other", "/var/w/gone"));
    close(fd);
}

// A run that changes nothing leaves no revision behind (a shard's replicas
// would fetch it), and one change makes one revision: on a local index and
// on each shard of a layout.
TEST(DaemonUnits, AWriterCommitsOnlyChanges) {
    const struct {
        const char *dir;
        std::vector<std::string> shards;
        const char *looked_at;  // the database whose revisions are counted
    } layouts[] = {{"/var/rev", {}, "/var/rev"}, {"/var/revs", {"/var/rev1", "/var/rev2"}, "/var/rev1"}};
    for (const auto &layout : layouts) {
        const auto run = [&](int from, int to) {
            std::unique_ptr<IndexWriter> writer = OpenIndexWriter(layout.dir, EngineOptions(), layout.shards);
            for (int n = from; n < to; ++n) {
                FileRecord record;
                record.fields["ZARNMDPath"] = record.path = "/s/" + std::to_string(n);
                writer->Put(record);
            }
            writer->Commit();
            writer->Finish();
            return Xapian::Database(layout.looked_at).get_revision();
        };
        const Xapian::rev first = run(0, 20);
        EXPECT_EQ(first, run(0, 0)) << layout.dir;
        EXPECT_EQ(first, run(0, 0)) << layout.dir;
        EXPECT_EQ(first + 1, run(20, 21)) << layout.dir;  // too few changes for a rewrite
    }
}

// The record copy that hits carry, and the reads of signatures that a
// rescan of a shard makes by matches: every record once, a subtree without
// its siblings, however the pages fall.
TEST(DaemonUnits, RecordCopiesDecodeAndShardsReadSignaturesByMatches) {
    struct Case {
        const char *path, *name, *parent;
        std::string signature;
    };
    const Case cases[] = {
        {"/s/a.txt", "a.txt", "/s", std::string("sig\0nul", 7)},
        {"/s/dir", "dir", "/s", ""},
        {"/s/odd", "other name", "/elsewhere", "s"},  // fields that are not parts of the path
        {"/s/a", "a", "/s", "1"},
        {"/s/a.b", "a.b", "/s", "2"},
        {"/s/a/b", "b", "/s/a", "3"},
        {"/s/a/c/d", "d", "/s/a/c", "4"},
    };
    std::unique_ptr<IndexWriter> writer = OpenIndexWriter("/var/index", EngineOptions(), {"/var/shard1", "/var/shard2"});
    for (const Case &c : cases) {
        FileRecord record;
        record.path = c.path;
        record.signature = c.signature;
        record.fields["ZARNMDPath"] = c.path;
        record.fields["ZARNMDFSName"] = c.name;
        record.fields["ZARNMDParent"] = c.parent;
        record.fields["ZARNMDIsDir"] = "n";
        record.fields["ZARNMDFSSize"] = 5;
        record.fields["ZARNMDTextContent"] = "words";  // not carried
        const std::string value = xap::EncodeRecordValue(record);
        std::string path, signature;
        Json::Value fields;
        ASSERT_TRUE(xap::DecodeRecordValue(value, &path, &signature, &fields)) << c.path;
        EXPECT_EQ(c.path, path);
        EXPECT_EQ(c.signature, signature) << c.path;
        Json::Value expected = record.fields;
        expected.removeMember("ZARNMDTextContent");
        EXPECT_EQ(expected, fields) << c.path;
        for (size_t cut = 0; cut <= value.find('\0') + 1 + (c.signature.empty() ? 0 : 1); ++cut)
            EXPECT_FALSE(xap::DecodeRecordValue(value.substr(0, cut), &path, &signature, &fields)) << c.path << " cut at " << cut;
        writer->Put(record);
    }
    writer->Finish();
    EXPECT_TRUE(xap::CarriesAll({"ZARNMDPath", "ZARNMDIsDir", "ZARNMDFSSize"}));
    EXPECT_FALSE(xap::CarriesAll({"ZARNMDPath", "ZARNMDTextContent"}));
    const auto all = writer->Signatures();
    ASSERT_EQ(7u, all.size());
    for (const Case &c : cases) EXPECT_EQ(c.signature, all.at(c.path)) << c.path;
    const std::map<std::string, std::string> under = {{"/s/a", "1"}, {"/s/a/b", "3"}, {"/s/a/c/d", "4"}};
    EXPECT_EQ(under, writer->SignaturesUnder("/s/a"));
    for (Xapian::doccount page : {1u, 2u, 3u, 4u, 100u})
        EXPECT_EQ(7u, xap::ReadSignatures(Xapian::Database("/var/shard1"), Xapian::Query(), page).size() +
                          xap::ReadSignatures(Xapian::Database("/var/shard2"), Xapian::Query(), page).size())
            << page;
}

// A shard of an older format is emptied, text and all, and written anew in
// this one, as a local index of an older format is rebuilt; a shard of
// another layout is still refused.
TEST(DaemonUnits, AShardOfAnOlderFormatIsRebuiltFromNothing) {
    const std::vector<std::string> shards = {"/var/old1", "/var/old2"};
    std::vector<std::string> paths[2];
    const auto write = [&](int from, int to) {
        std::unique_ptr<IndexWriter> writer = OpenIndexWriter("/var/old", EngineOptions(), shards);
        for (int n = from; n < to; ++n) {
            FileRecord record;
            record.fields["ZARNMDPath"] = record.path = "/s/" + std::to_string(n);
            record.fields["ZARNMDTextContent"] = "words of " + record.path;
            paths[xap::ShardOfPath(record.path, 2)].push_back(record.path);
            writer->Put(record);
        }
        writer->Finish();
    };
    const auto chunks = [](const std::string &shard) {
        const Xapian::Database db(shard);
        return static_cast<size_t>(std::distance(db.metadata_keys_begin(xap::kTextChunkPrefix), db.metadata_keys_end(xap::kTextChunkPrefix)));
    };
    write(0, 20);
    ASSERT_FALSE(paths[0].empty() || paths[1].empty());
    ASSERT_EQ(paths[0].size(), chunks("/var/old1"));
    Xapian::WritableDatabase("/var/old1", Xapian::DB_OPEN).set_metadata(xap::kFormatKey, "4");
    paths[0].clear();
    write(20, 30);
    EXPECT_EQ(paths[0].size(), Xapian::Database("/var/old1").get_doccount());
    EXPECT_EQ(paths[0].size(), chunks("/var/old1"));
    EXPECT_EQ(paths[1].size(), Xapian::Database("/var/old2").get_doccount());
    EXPECT_EQ(xap::kFormat, Xapian::Database("/var/old1").get_metadata(xap::kFormatKey));
    SearchPlan plan;
    plan.size = 100;
    std::vector<uint32_t> ids;
    EXPECT_EQ(paths[0].size() + paths[1].size(), OpenSearchIndex("/var/old")->PageIds(plan, &ids));
    try {
        OpenIndexWriter("/var/old", EngineOptions(), {"/var/old2", "/var/old1"});
        ADD_FAILURE() << "shards taken in another order";
    } catch (const Failure &failure) {
        EXPECT_NE(std::string::npos, std::string(failure.what()).find("holds another index")) << failure.what();
    }
}

}  // namespace
}  // namespace zarnd
