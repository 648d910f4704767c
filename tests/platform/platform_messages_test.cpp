// The renderer runtime core. Messages: formatting, capture, fatal errors, several threads.
#include "runtime.h"
#include "runtime_fixture.h"
#include "runtime_internal.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

class Core : public RuntimeTest {};

// ------------------------------------------------------------- messages

TEST_F(Core, MessagesAreFormattedAndCapturedVerbatim)
{
    mi_error("%s", "100% done");
    mi_warning("%d of %d", 3, 4);
    mi_info("%s", "plain");
    std::string longText(2000, 'x');
    mi_info("<%s>", longText.c_str());
    auto m = mirt::messages();
    ASSERT_EQ(m.size(), 4u);
    EXPECT_EQ(m[0].level, mirt::Level::Error);
    EXPECT_EQ(m[0].text, "100% done");
    EXPECT_EQ(m[1].level, mirt::Level::Warning);
    EXPECT_EQ(m[1].text, "3 of 4");
    EXPECT_EQ(m[2].level, mirt::Level::Info);
    EXPECT_EQ(m[3].text, "<" + longText + ">");
    mirt::clear_messages();
    EXPECT_TRUE(mirt::messages().empty());
}

TEST_F(Core, FatalLogsThenThrows)
{
    try {
        mi_fatal("broken %s at %d%%", "scene", 50);
        FAIL() << "mi_fatal returned";
    } catch (const mirt::FatalError &e) {
        EXPECT_EQ(e.text, "broken scene at 50%");
    }
    auto m = mirt::messages();
    ASSERT_EQ(m.size(), 1u);
    EXPECT_EQ(m[0].level, mirt::Level::Fatal);
    EXPECT_EQ(m[0].text, "broken scene at 50%");

    // A handler sees the logged text first; one that returns lets it throw.
    static std::string seen;
    mirt::set_fatal_handler(
        [](const std::string &text) { seen = text + " (" + std::to_string(mirt::messages().size()) + ")"; });
    EXPECT_THROW(mi_fatal("cache of %d slots", 7), mirt::FatalError);
    EXPECT_EQ(seen, "cache of 7 slots (2)");
    mirt::set_fatal_handler(nullptr);
    seen.clear();
    EXPECT_THROW(mi_fatal("again"), mirt::FatalError);
    EXPECT_EQ(seen, "");
}

TEST_F(Core, MessagesFromSeveralThreadsAreAllKept)
{
    std::vector<std::thread> th;
    for (int t = 0; t < 4; ++t)
        th.emplace_back([t] {
            for (int i = 0; i < 500; ++i)
                mi_info("t%d m%d", t, i);
        });
    for (auto &x : th)
        x.join();
    auto m = mirt::messages();
    ASSERT_EQ(m.size(), 2000u);
    std::set<std::string> texts;
    for (auto &x : m)
        texts.insert(x.text);
    EXPECT_EQ(texts.size(), 2000u);
    EXPECT_TRUE(texts.count("t3 m499"));
}

} // namespace
