#include "datasets/KvSQLiteReadAhead.h"

#include "datasets/KvSQLiteInternal.h"

#include <climits>
#include <sqlite3.h>

namespace kv {

TKvSQLiteReadAhead::TKvSQLiteReadAhead(const std::string& fileName, int busyTimeout,
                                       const std::string& select, std::vector<TFieldType> types)
    : types_(std::move(types)) {
    int rc = sqlite3_open_v2(fileName.c_str(), &db_, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr);
    sqlite3_stmt* statement = nullptr;
    if (rc == SQLITE_OK) {
        sqlite3_extended_result_codes(db_, 1);
        sqlite3_busy_timeout(db_, busyTimeout);
        rc = sqlite3_prepare_v3(db_, select.data(), static_cast<int>(select.size()),
                                SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
    }
    if (rc != SQLITE_OK || !statement) {
        const std::string message = db_ ? sqlite3_errmsg(db_) : sqlite3_errstr(rc);
        sqlite3_finalize(statement);
        sqlite3_close_v2(db_);
        db_ = nullptr;
        throw EDatabaseError("Cannot read ahead: " + message);
    }
    select_.reset(statement);
}

TKvSQLiteReadAhead::~TKvSQLiteReadAhead() {
    Stop();
    select_.reset();
    sqlite3_close_v2(db_);
}

void TKvSQLiteReadAhead::Start(int64_t from) {
    Stop();
    stop_ = finished_ = false;
    thread_ = std::thread([this, from] { Produce(from); });
}

void TKvSQLiteReadAhead::Stop() {
    if (!thread_.joinable()) return;
    {
        std::lock_guard lock(mutex_);
        stop_ = true;
    }
    space_.notify_all();
    thread_.join();
    for (TResult& result : waiting_) spare_.push_back(std::move(result.Window));
    waiting_.clear();
}

bool TKvSQLiteReadAhead::Take(TWindow& into) {
    into.Rowids.clear();
    into.Values.clear();
    TResult result;
    {
        std::unique_lock lock(mutex_);
        ready_.wait(lock, [this] { return !waiting_.empty() || finished_; });
        if (waiting_.empty()) return false;
        result = std::move(waiting_.front());
        waiting_.pop_front();
        spare_.push_back(std::move(into));
    }
    space_.notify_one();
    if (result.Error) std::rethrow_exception(result.Error);
    into = std::move(result.Window);
    return !into.Rowids.empty();
}

void TKvSQLiteReadAhead::Produce(int64_t from) {
    for (;;) {
        TResult result;
        {
            std::unique_lock lock(mutex_);
            space_.wait(lock, [this] { return waiting_.size() < kMaxWaiting || stop_; });
            if (stop_) break;
            if (!spare_.empty()) {
                result.Window = std::move(spare_.back());
                spare_.pop_back();
            }
        }
        try {
            Fill(from, result.Window);
        } catch (...) {
            result.Error = std::current_exception();
        }
        const bool last = result.Error || result.Window.Rowids.size() < static_cast<size_t>(kWindowRows) ||
                          result.Window.Rowids.back() == INT64_MAX;
        if (!last) from = result.Window.Rowids.back() + 1;
        {
            std::lock_guard lock(mutex_);
            // An empty last window says nothing the end does not.
            if (result.Error || !result.Window.Rowids.empty()) waiting_.push_back(std::move(result));
            if (last) finished_ = true;
        }
        ready_.notify_one();
        if (last) return;
    }
    std::lock_guard lock(mutex_);
    finished_ = true;
}

void TKvSQLiteReadAhead::Fill(int64_t from, TWindow& window) {
    sqlite3_stmt* statement = select_.get();
    window.Rowids.clear();
    window.Values.clear();
    sqlite3_reset(statement);
    sqlite3_bind_int64(statement, 1, from);
    sqlite3_bind_int(statement, 2, kWindowRows);
    int rc;
    while ((rc = sqlite3_step(statement)) == SQLITE_ROW) {
        window.Rowids.push_back(sqlite3_column_int64(statement, 0));
        for (size_t i = 0; i < types_.size(); ++i)
            window.Values.push_back(SQLiteColumnValue(statement, static_cast<int>(i) + 1, types_[i]));
    }
    if (rc != SQLITE_DONE) {
        const int code = sqlite3_extended_errcode(db_);
        const std::string message = sqlite3_errmsg(db_);
        sqlite3_reset(statement);
        RaiseSQLiteError(code, message);
    }
    sqlite3_reset(statement); // no read lock is kept between windows
}

} // namespace kv
