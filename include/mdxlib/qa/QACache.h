// QA corrections: records of tag changes kept in the database, fetched,
// cached and applied to any store of DICOM values.
//
// A file path that needs corrections carries the number of its QA record
// ("?QA=12"). QACache fetches the record's text (GetQAData), keeps the last
// 200 parsed records, and applies one to a DcmDataset, a Mdx::TagMap or an
// HxParamBundle. Each application is written down in a history inside the
// data itself (private element 0x21 of creator "Lumora" in group 0071, VR
// UT, base64 text), so that a step is never applied twice and can be seen
// later.
//
// One process-wide instance, safe for many threads: a mutex and a condition
// variable guard the cache, and are released during the database query, so
// that one slow query holds up only the threads that want the same record.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/platform/McResult.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctag.h"
#include "dcmtk/dcmdata/dctagkey.h"

#include <QByteArray>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

class DcmDataset;
class HxParamBundle;

namespace Mdx {
class TagMap;
}

class MDX_EXPORT QACache
{
public:
    // One correction step of a record.
    struct Change
    {
        // The step's first line: a time stamp of 14 digits, optionally a
        // blank and a user name behind it.
        std::string id;
        // Conditions on the store's (0010,0020) and (0010,0021); empty
        // means none.
        std::string expectedPatientID;
        std::string expectedIssuer;
        // The new values, unescaped, ordered by key.
        std::map<DcmTagKey, std::string> tags;
    };

    // One QA record. Not changed once loaded is set.
    struct Entry
    {
        int32_t qaId = 0;
        std::list<Change> changes;
        bool loaded = false;
    };

    // Access to a store of DICOM values, as text.
    class MDX_EXPORT TagGetSet
    {
    public:
        virtual ~TagGetSet();
        // The value as text, null when absent. The pointer lives until the
        // next call on the store.
        virtual char const* get(DcmTagKey key) = 0;
        virtual char const* getPrivate(DcmTag const& tag) = 0;
        // Stores the value, replacing an old one.
        virtual void set(DcmTagKey key, char const* value) = 0;
        virtual void setPrivate(DcmTag const& tag, char const* value) = 0;
    };

    // Fetches the text of a record; the result is not looked at, as a failed
    // query leaves the text empty.
    using Query = std::function<McResult(int qaId, std::string& text)>;

    static constexpr int kCapacity = 200;

    // The process-wide cache over the database's GetQAData, made at first use.
    static QACache& instance();
    // A cache of its own over query: for callers with another source.
    explicit QACache(Query query);
    QACache(QACache const&) = delete;
    QACache& operator=(QACache const&) = delete;

    void applyQA(DcmDataset& dataset, int qaId);
    void applyQA(Mdx::TagMap& map, int qaId);
    void applyQA(HxParamBundle& bundle, int qaId);
    void apply(TagGetSet& store, int qaId);

    // The record, fetched when it is not cached; never null.
    std::shared_ptr<Entry const> find(int qaId);
    // Records held now.
    int size() const;

    // (0071,1021) of creator "Lumora", VR UT: the history of applied steps.
    static DcmTag const& QAHistoryTag();

    // ---- The text forms, also for the readers of histories ----

    // Parses a record's text (up to a zero byte) into entry's changes.
    static void parse(Entry& entry, std::string const& text);
    // "``" becomes "`", "`n" a newline; a backquote before anything else
    // stays. A produced backquote is not read again.
    static void unescape(std::string& text);
    static void appendEscaped(QByteArray& text, char const* value);
    // Whether value really changes old: person names ignore trailing "^",
    // weight and size differences up to 0.001 are none. Null is empty.
    static bool changed(DcmTagKey const& key, char const* oldValue, char const* newValue);
    static bool checkExpectedValue(TagGetSet& store, DcmTagKey const& key, std::string const& expected,
                                   Change const& change);

private:
    class History;

    void insert(std::shared_ptr<Entry> const& entry);
    void query(Entry& entry);
    void apply(TagGetSet& store, Change const& change, History& history);

    Query mQuery;
    mutable std::mutex mMutex;
    std::condition_variable mLoaded;
    std::list<std::shared_ptr<Entry>> mEntries; // most recently used first
    std::unordered_map<int, std::list<std::shared_ptr<Entry>>::iterator> mIndex;
};
