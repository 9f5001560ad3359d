#pragma once
// TKvSQLiteReadAhead: reads the rows of one table in rowid order, window after window, on a thread and a
// connection of its own, while the dataset's caller works on the rows before them. Each window is one short
// query, so no read lock is held between windows, and at most a few windows wait, so memory stays small
// whatever the table's size. Being another connection, it sees what is committed: the dataset uses it only
// while nothing uncommitted of its own connection touches the table.

#include "datasets/KvSQLiteDataSet.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kv {

class TKvSQLiteReadAhead {
public:
    /// Rows a window holds, and windows waiting at most.
    static constexpr int kWindowRows = 1024;
    static constexpr size_t kMaxWaiting = 4;

    /// The rows of one window: their rowids, and their values field by field.
    struct TWindow {
        std::vector<int64_t> Rowids;
        std::vector<Variant> Values;
    };

    /// Opens `fileName` read-only and prepares `select`, which takes the first rowid as ?1 and the row count
    /// as ?2 and returns the rowid and then one column per entry of `types`. EDatabaseError when either
    /// fails; the caller then reads on its own connection.
    TKvSQLiteReadAhead(const std::string& fileName, int busyTimeout, const std::string& select,
                       std::vector<TFieldType> types);
    ~TKvSQLiteReadAhead();
    TKvSQLiteReadAhead(const TKvSQLiteReadAhead&) = delete;
    TKvSQLiteReadAhead& operator=(const TKvSQLiteReadAhead&) = delete;

    /// Starts reading from rowid `from` on, ending a reading already under way.
    void Start(int64_t from);
    bool Running() const { return thread_.joinable(); }
    /// Replaces `into` with the next window in order; false at the end of the table. A failed read raises
    /// its error here, in its turn.
    bool Take(TWindow& into);
    /// Ends the reading thread (the connection stays, for a Start again).
    void Stop();

private:
    struct TResult {
        TWindow Window;
        std::exception_ptr Error;
    };
    void Produce(int64_t from);
    void Fill(int64_t from, TWindow& window);

    sqlite3* db_ = nullptr;
    TSQLiteStatement select_;
    std::vector<TFieldType> types_;

    std::thread thread_;
    std::mutex mutex_;
    std::condition_variable ready_; ///< a window is waiting, or the thread has finished
    std::condition_variable space_; ///< a window was taken, or the thread must stop
    std::deque<TResult> waiting_;
    std::vector<TWindow> spare_; ///< windows taken back, their storage kept
    bool stop_ = false;
    bool finished_ = false;
};

} // namespace kv
