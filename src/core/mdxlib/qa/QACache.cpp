// The QA cache: fetching, parsing, caching and applying QA records, and the
// history of applied steps.
#include <mdxlib/qa/QACache.h>

#include "QAStores.h"

#include <mdxlib/platform/Database.h>
#include <mdxlib/tags/VR.h>

#include "dcmtk/dcmdata/dcdeftag.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr std::chrono::milliseconds kWaitRound(500);
constexpr size_t kTimestampLength = 14;
char const kCreator[] = "Lumora";
DcmTagKey const kIssuerKey(0x0010, 0x0021);

bool isPersonNameKey(DcmTagKey const& key)
{
    return key == DCM_ReferringPhysicianName || key == DCM_PatientName;
}

bool isNumberKey(DcmTagKey const& key)
{
    return key == DCM_PatientSize || key == DCM_PatientWeight;
}

std::string cutTrailingCarets(char const* text)
{
    std::string value(text);
    while (!value.empty() && value.back() == '^')
        value.pop_back();
    return value;
}

// Sequences and binary values have no text form to correct: a record that
// names one is passed over.
bool isCorrectable(DcmTagKey const& key)
{
    switch (Mdx::dictionaryVR(key, nullptr)) {
    case Mdx::VR_SQ:
    case Mdx::VR_OB:
    case Mdx::VR_OW:
    case Mdx::VR_OF:
    case Mdx::VR_OD:
    case Mdx::VR_OL:
    case Mdx::VR_OV:
    case Mdx::VR_ox:
    case Mdx::VR_px:
    case Mdx::VR_lt:
        return false;
    default:
        return key != DCM_PixelData;
    }
}

} // namespace

// ------------------------------------------------------------------ history

// The record of applied steps inside one store, for one application.
class QACache::History
{
public:
    explicit History(TagGetSet& store);
    ~History();

    History(History const&) = delete;
    History& operator=(History const&) = delete;

    bool beginChange(std::string const* id);
    void add(DcmTagKey const& key, char const* oldValue, char const* newValue);
    void endChange();

private:
    TagGetSet& store;
    QByteArray text;
    std::vector<std::string> ids;
    int32_t cursor = 0;
    int32_t numChanges = 0;
    std::string const* currentId = nullptr;
    bool modified = false;
};

QACache::History::History(TagGetSet& s)
    : store(s)
{
    // The history is looked up through its creator, as it is written: a
    // store whose block 0x10 of group 0071 belongs to another creator keeps
    // it in another block, and a lookup of the plain (0071,1021) would miss
    // it there and apply every step again at each application.
    char const* encoded = store.getPrivate(QAHistoryTag());
    if (!encoded || !*encoded)
        return;
    text = QByteArray::fromBase64(QByteArray(encoded));
    bool inBlock = false;
    int lines = 0;
    int start = 0;
    while (start < text.size()) {
        int end = text.indexOf('\n', start);
        if (end < 0)
            end = text.size();
        int const length = end - start;
        if (!inBlock) {
            ids.emplace_back(text.constData() + start, static_cast<size_t>(length));
            inBlock = true;
            lines = 0;
        } else {
            ++lines;
            // Lines come in triples (key, old, new): an empty old or new
            // value is no end of the block.
            if (length == 0 && lines % 3 == 1)
                inBlock = false;
        }
        start = end + 1;
    }
}

QACache::History::~History()
{
    if (modified)
        store.setPrivate(QAHistoryTag(), text.toBase64().constData());
}

bool QACache::History::beginChange(std::string const* id)
{
    while (cursor < static_cast<int32_t>(ids.size())) {
        std::string const& entry = ids[static_cast<size_t>(cursor++)];
        if (entry == *id)
            return false;
        // A step recorded by its time stamp alone is the same step as one
        // with a user name behind the time stamp.
        if (entry.size() == kTimestampLength && id->size() > kTimestampLength &&
            (*id)[kTimestampLength] == ' ' && id->compare(0, kTimestampLength, entry) == 0)
            return false;
    }
    numChanges = 0;
    currentId = id;
    return true;
}

void QACache::History::add(DcmTagKey const& key, char const* oldValue, char const* newValue)
{
    modified = true;
    if (numChanges == 0) {
        text.append(currentId->data(), static_cast<int>(currentId->size()));
        text.append('\n');
    }
    char keyText[16];
    std::snprintf(keyText, sizeof keyText, "%04x-%04x\n", key.getGroup(), key.getElement());
    text.append(keyText);
    appendEscaped(text, oldValue);
    text.append('\n');
    appendEscaped(text, newValue);
    text.append('\n');
    ++numChanges;
}

void QACache::History::endChange()
{
    if (numChanges > 0)
        text.append('\n');
}

// -------------------------------------------------------------------- cache

QACache::TagGetSet::~TagGetSet() = default;

QACache& QACache::instance()
{
    static QACache cache([](int qaId, std::string& text) { return GetQAData(qaId, text); });
    return cache;
}

QACache::QACache(Query query)
    : mQuery(std::move(query))
{
}

// Element 0x21 of the creator's block: the edit jobs of TagFile::applyQA
// name the same element (0071,0021) and write into the same text.
DcmTag const& QACache::QAHistoryTag()
{
    static DcmTag const tag = [] {
        DcmTag made(DcmTagKey(0x0071, 0x1021), kCreator);
        made.setVR(DcmVR(EVR_UT));
        return made;
    }();
    return tag;
}

int QACache::size() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return static_cast<int>(mEntries.size());
}

std::shared_ptr<QACache::Entry const> QACache::find(int qaId)
{
    std::unique_lock<std::mutex> lock(mMutex);
    for (;;) {
        auto const found = mIndex.find(qaId);
        if (found == mIndex.end())
            break;
        std::shared_ptr<Entry> const entry = *found->second;
        if (entry->loaded) {
            if (found->second != mEntries.begin())
                mEntries.splice(mEntries.begin(), mEntries, found->second);
            return entry;
        }
        // Another thread fetches it: wait for it in rounds, and look again,
        // as the entry may have been evicted meanwhile.
        mLoaded.wait_for(lock, kWaitRound);
    }
    auto entry = std::make_shared<Entry>();
    entry->qaId = qaId;
    insert(entry);
    lock.unlock();
    query(*entry);
    lock.lock();
    entry->loaded = true;
    mLoaded.notify_all();
    return entry;
}

void QACache::insert(std::shared_ptr<Entry> const& entry)
{
    auto const old = mIndex.find(entry->qaId);
    if (old != mIndex.end()) {
        mEntries.erase(old->second);
        mIndex.erase(old);
    }
    if (mEntries.size() >= static_cast<size_t>(kCapacity)) {
        mIndex.erase(mEntries.back()->qaId);
        mEntries.pop_back();
    }
    mEntries.push_front(entry);
    mIndex[entry->qaId] = mEntries.begin();
}

void QACache::query(Entry& entry)
{
    // Runs without the lock: no other thread reads the entry's changes
    // before its loaded flag is set, which happens under the lock.
    std::string text;
    mQuery(entry.qaId, text);
    parse(entry, text);
}

// ------------------------------------------------------------------ parsing

void QACache::parse(Entry& entry, std::string const& text)
{
    // A zero byte ends the text; a last line without its newline is not
    // complete and is ignored.
    size_t const end = std::min(text.size(), std::strlen(text.c_str()));
    bool inStep = false;
    size_t start = 0;
    while (start < end) {
        size_t const newline = text.find('\n', start);
        if (newline == std::string::npos || newline >= end)
            break;
        std::string const line = text.substr(start, newline - start);
        start = newline + 1;

        if (!inStep) {
            entry.changes.emplace_back();
            entry.changes.back().id = line;
            inStep = true;
            continue;
        }
        if (line.empty()) {
            inStep = false;
            continue;
        }
        Change& change = entry.changes.back();
        size_t const equals = line.find('=');
        if (equals == std::string::npos)
            continue;
        if (equals == 1) {
            // One-letter lines: only P and I mean anything, taken as they stand.
            if (line[0] == 'P')
                change.expectedPatientID = line.substr(2);
            else if (line[0] == 'I')
                change.expectedIssuer = line.substr(2);
            continue;
        }
        unsigned group = 0;
        unsigned element = 0;
        if (std::sscanf(line.c_str(), "%x,%x", &group, &element) != 2 || group > 0xFFFF || element > 0xFFFF)
            continue;
        // The first value of a key stays; a value is unescaped once, when
        // it is inserted.
        auto const inserted = change.tags.emplace(
            DcmTagKey(static_cast<Uint16>(group), static_cast<Uint16>(element)), line.substr(equals + 1));
        if (inserted.second)
            unescape(inserted.first->second);
    }
}

void QACache::unescape(std::string& text)
{
    size_t pos = text.find('`');
    while (pos != std::string::npos && pos + 1 < text.size()) {
        char const next = text[pos + 1];
        if (next == '`')
            text.replace(pos, 2, "`");
        else if (next == 'n')
            text.replace(pos, 2, "\n");
        pos = text.find('`', pos + 1);
    }
}

void QACache::appendEscaped(QByteArray& text, char const* value)
{
    if (!value)
        return;
    if (!std::strchr(value, '`') && !std::strchr(value, '\n')) {
        text.append(value);
        return;
    }
    QByteArray escaped(value);
    escaped.replace("`", "``");
    escaped.replace("\n", "`n");
    text.append(escaped);
}

// ----------------------------------------------------------------- applying

bool QACache::changed(DcmTagKey const& key, char const* oldValue, char const* newValue)
{
    char const* before = oldValue ? oldValue : "";
    char const* after = newValue ? newValue : "";
    if (std::strcmp(before, after) == 0)
        return false;
    if (isPersonNameKey(key))
        return cutTrailingCarets(before) != cutTrailingCarets(after);
    if (isNumberKey(key))
        return std::fabs(std::atof(before) - std::atof(after)) > 0.001;
    return true;
}

bool QACache::checkExpectedValue(TagGetSet& store, DcmTagKey const& key, std::string const& expected,
                                 Change const& change)
{
    if (expected.empty())
        return true;
    if (key == kIssuerKey && expected == "-")
        return true;
    char const* value = store.get(key);
    if (!value)
        return false;
    if (expected == value)
        return true;
    // A store that shows the step's result already passes.
    auto const own = change.tags.find(key);
    return own != change.tags.end() && own->second == value;
}

void QACache::apply(TagGetSet& store, int qaId)
{
    std::shared_ptr<Entry const> const entry = find(qaId);
    if (entry->changes.empty())
        return;
    History history(store);
    for (Change const& change : entry->changes)
        apply(store, change, history);
}

void QACache::apply(TagGetSet& store, Change const& change, History& history)
{
    if (!history.beginChange(&change.id))
        return;
    if (!checkExpectedValue(store, DCM_PatientID, change.expectedPatientID, change) ||
        !checkExpectedValue(store, kIssuerKey, change.expectedIssuer, change))
        return;
    for (auto const& [key, value] : change.tags) {
        if (!isCorrectable(key))
            continue;
        char const* old = store.get(key);
        if (!changed(key, old, value.c_str()))
            continue;
        history.add(key, old, value.c_str());
        store.set(key, value.c_str());
    }
    history.endChange();
}

void QACache::applyQA(DcmDataset& dataset, int qaId)
{
    apply(*Mdx::makeDatasetStore(dataset), qaId);
}

void QACache::applyQA(Mdx::TagMap& map, int qaId)
{
    apply(*Mdx::makeTagMapStore(map), qaId);
}

void QACache::applyQA(HxParamBundle& bundle, int qaId)
{
    apply(*Mdx::makeParamBundleStore(bundle), qaId);
}
