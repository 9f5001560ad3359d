// The library examples of the README, compiled and run as they stand there.

#include "ReadmeExampleIncludes.inc"

#include "TestSupport.h"

#include <filesystem>

namespace {

TEST(Readme, ExpressionExampleRuns) {
#include "ReadmeExampleBody1.inc"
    EXPECT_EQ(v.AsString(), "ADA (3)");
}

TEST(Readme, ImportExampleRuns) {
    kv::test::TempDir dir;
    const auto previous = std::filesystem::current_path();
    std::filesystem::current_path(dir.Path());
    kv::test::WriteFile("orders.csv", "id,customer\n1,Ada\n2,Bob\n");
    kv::test::SqliteQuery("shop.sqlite", "CREATE TABLE orders(id INTEGER PRIMARY KEY, customer TEXT);"
                                         "INSERT INTO orders VALUES (1, 'old');");
    {
#include "ReadmeExampleBody2.inc"
        EXPECT_EQ(source.Statistic().Result, kv::irExecuted);
        EXPECT_EQ(source.Statistic().TotalUpdated, 1);
        EXPECT_EQ(source.Statistic().TotalAdded, 1);
    }
    EXPECT_EQ(kv::test::SqliteQuery("shop.sqlite", "SELECT * FROM orders"), "1|Ada\n2|Bob");
    std::filesystem::current_path(previous);
}

} // namespace
