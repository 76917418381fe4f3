// The QA cache from eight threads while the catalog query is slow: one
// query per record, threads that want the same record share it, and a slow
// query holds up no thread that wants another record. Also run under
// ThreadSanitizer (scripts/test.sh).
#include "support/TestSupport.h"

#include <mdxlib/platform/Catalog.h>
#include <mdxlib/platform/Database.h>
#include <mdxlib/platform/WebService.h>
#include <mdxlib/qa/QACache.h>

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace {

TEST(QACacheThreads, oneQueryPerRecordWhileTheCatalogIsSlow)
{
    QTemporaryDir dir;
    std::string const connection = "sqlite:" + dir.filePath("catalog.sqlite").toStdString();
    McResult result;
    std::unique_ptr<Lmg::Catalog> catalog = Lmg::Catalog::open(connection, result);
    ASSERT_TRUE(catalog) << result.message();
    for (int id = 1; id <= 4; ++id)
        ASSERT_TRUE(catalog
                        ->setQAText(id, "step" + std::to_string(id) + "\n0010,0010=Name" +
                                            std::to_string(id) + "\n\n")
                        .ok());
    SetDatabaseServer(connection.c_str());

    std::mutex mutex;
    std::map<int, int> queries;
    std::atomic<int> inFlight{0};
    std::atomic<int> mostInFlight{0};
    QACache cache([&](int id, std::string& text) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            ++queries[id];
        }
        int const now = ++inFlight;
        for (int seen = mostInFlight.load(); now > seen && !mostInFlight.compare_exchange_weak(seen, now);) {
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(700)); // longer than a waiting round
        McResult const fetched = GetQAData(id, text);
        --inFlight;
        return fetched;
    });

    int const wanted[8] = {1, 1, 1, 1, 2, 2, 3, 4};
    std::vector<std::shared_ptr<QACache::Entry const>> found(8);
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&, t] { found[static_cast<size_t>(t)] = cache.find(wanted[t]); });
    for (std::thread& thread : threads)
        thread.join();
    SetDatabaseServer(nullptr);

    std::map<int, int> const once = {{1, 1}, {2, 1}, {3, 1}, {4, 1}};
    EXPECT_EQ(queries, once);
    EXPECT_GT(mostInFlight.load(), 1); // different records were fetched side by side
    for (int t = 0; t < 8; ++t) {
        ASSERT_TRUE(found[static_cast<size_t>(t)]->loaded);
        ASSERT_EQ(found[static_cast<size_t>(t)]->changes.size(), 1u);
        EXPECT_EQ(found[static_cast<size_t>(t)]->changes.front().tags.begin()->second,
                  "Name" + std::to_string(wanted[t]));
    }
    // Threads that wanted the same record got the same entry.
    for (int t = 1; t < 4; ++t)
        EXPECT_EQ(found[static_cast<size_t>(t)], found[0]);
    EXPECT_EQ(found[5], found[4]);
}

} // namespace
