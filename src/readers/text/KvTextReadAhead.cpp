#include "readers/text/KvTextReadAhead.h"

#include <iterator>
#include <system_error>
#include <utility>

namespace kv {

namespace {

// A line longer than this is long: its values are left to the importing thread rather than copied once
// more here, and buffers kept for reuse give back what it made them take.
constexpr size_t kLongText = size_t(64) << 10;

void Release(std::string& s) {
    if (s.capacity() > kLongText) std::string().swap(s);
}

} // namespace

// The waiting row `row`, reading on from it when another one is waiting; nullptr when no thread reads.
TKvTextReadAhead::TRow* TKvTextReadAhead::Find(TKvTextFile& file, int64_t row, const TKvTextFields& layout) {
    for (bool restarted = false;; restarted = true) {
        if (!Running() && !Start(file, row, layout)) return nullptr;
        if (!current_ || position_ >= current_->Count) {
            if (current_) Recycle(std::move(current_));
            current_ = NextBatch();
            position_ = 0;
        }
        if (current_ && position_ < current_->Count) {
            TRow& next = current_->Rows[position_];
            Reached(next);
            if (next.Index == row) return &next;
        }
        // Another row than the one coming, or none left: read on from the row asked for.
        Stop();
        if (restarted) return nullptr;
    }
}

void TKvTextReadAhead::Reached(TRow& row) {
    if (row.Warnings.empty()) return;
    warnings_.insert(warnings_.end(), std::make_move_iterator(row.Warnings.begin()),
                     std::make_move_iterator(row.Warnings.end()));
    row.Warnings.clear();
}

bool TKvTextReadAhead::Has(TKvTextFile& file, int64_t row, const TKvTextFields& layout) {
    if (row < 0) return false;
    if (const TRow* next = Find(file, row, layout)) {
        if (next->End && next->Error) std::rethrow_exception(next->Error); // asked again, it fails again
        return !next->End;
    }
    Stop();
    return file.HasRow(row);
}

void TKvTextReadAhead::Take(TKvTextFile& file, int64_t row, TKvTextFields& fields, TKvTextRowPlace& place) {
    place = {};
    if (TRow* next = row >= 0 ? Find(file, row, fields) : nullptr; next && !next->End) {
        ++position_;
        place = next->Place;
        if (next->Error) std::rethrow_exception(std::exchange(next->Error, nullptr));
        fields.Swap(next->Split);
        return;
    }
    Stop();
    if (file.HasRow(row)) place = file.RowPlace(row);
    fields.SetLine(file.Row(row)); // out of range raises the file's own error
}

void TKvTextReadAhead::TakeWarnings(std::vector<TKvTextWarning>& out) {
    if (warnings_.empty()) return;
    out.insert(out.end(), std::make_move_iterator(warnings_.begin()),
               std::make_move_iterator(warnings_.end()));
    warnings_.clear();
}

bool TKvTextReadAhead::Start(TKvTextFile& file, int64_t row, const TKvTextFields& layout) {
    stop_ = false;
    finished_ = false;
    try {
        thread_ = std::thread(&TKvTextReadAhead::Produce, this, std::ref(file), row, layout);
    } catch (const std::system_error&) {
        return false; // no thread to be had: the caller reads the rows itself
    }
    return true;
}

void TKvTextReadAhead::Stop() {
    if (thread_.joinable()) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stop_ = true;
        }
        space_.notify_all();
        thread_.join();
    }
    // What the file noticed while cutting rows that were not asked for is not lost.
    if (current_)
        for (size_t i = position_; i < current_->Count; ++i) Reached(current_->Rows[i]);
    for (const std::unique_ptr<TBatch>& batch : waiting_)
        for (size_t i = 0; i < batch->Count; ++i) Reached(batch->Rows[i]);
    waiting_.clear();
    spare_.clear();
    current_.reset();
    position_ = 0;
    stop_ = false;
    finished_ = false;
}

void TKvTextReadAhead::Produce(TKvTextFile& file, int64_t row, TKvTextFields splitter) {
    try {
        ProduceRows(file, row, splitter);
    } catch (...) {
        // Out of memory, say: the rows not handed out are read again by the caller, which then meets it.
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        finished_ = true;
    }
    ready_.notify_one();
}

void TKvTextReadAhead::ProduceRows(TKvTextFile& file, int64_t row, TKvTextFields& splitter) {
    bool last = false;
    while (!last) {
        std::unique_ptr<TBatch> batch;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            space_.wait(lock, [this] { return stop_ || waiting_.size() < kMaxWaiting; });
            if (stop_) break;
            if (!spare_.empty()) {
                batch = std::move(spare_.back());
                spare_.pop_back();
            }
        }
        if (!batch) batch = std::make_unique<TBatch>();
        batch->Count = 0;
        size_t bytes = 0;
        while (!last && batch->Count < kBatchRows && bytes < kBatchBytes) {
            if (batch->Rows.size() <= batch->Count) batch->Rows.emplace_back();
            TRow& next = batch->Rows[batch->Count++];
            next.Index = row;
            next.End = false;
            next.Place = {};
            next.Warnings.clear();
            next.Error = nullptr;
            bool found = false;
            try {
                found = file.HasRow(row);
                next.End = !found;
                last = !found;
                if (found) {
                    next.Place = file.RowPlace(row);
                    splitter.SetLine(file.Row(row));
                    // A hook reads the values it wants itself; preparing them all first would copy each
                    // twice.
                    if (splitter.Line().size() <= kLongText) {
                        if (rowHook_)
                            rowHook_(splitter);
                        else
                            splitter.PrepareValues();
                    }
                    splitter.Swap(next.Split);
                    const bool withValues = next.Split.Prepared || !next.Split.Finished.empty();
                    bytes += next.Split.Line.size() * (withValues ? 2 : 1); // the line and its values
                }
            } catch (...) {
                // The row reports it in its turn, or the end when the file could not tell; reading stops
                // here, as the row loop may stop there.
                next.Error = std::current_exception();
                next.End = !found;
                last = true;
            }
            file.TakeNewWarnings(next.Warnings);
            ++row;
        }
        {
            std::lock_guard<std::mutex> lock(mutex_);
            waiting_.push_back(std::move(batch));
        }
        ready_.notify_one();
    }
}

std::unique_ptr<TKvTextReadAhead::TBatch> TKvTextReadAhead::NextBatch() {
    std::unique_ptr<TBatch> batch;
    {
        std::unique_lock<std::mutex> lock(mutex_);
        ready_.wait(lock, [this] { return !waiting_.empty() || finished_; });
        if (waiting_.empty()) return nullptr;
        batch = std::move(waiting_.front());
        waiting_.pop_front();
    }
    space_.notify_one();
    return batch;
}

void TKvTextReadAhead::Recycle(std::unique_ptr<TBatch> batch) {
    for (size_t i = 0; i < batch->Count; ++i) {
        TKvTextSplit& split = batch->Rows[i].Split;
        Release(split.Line);
        for (std::string& value : split.Values) Release(value);
    }
    std::lock_guard<std::mutex> lock(mutex_);
    spare_.push_back(std::move(batch));
}

} // namespace kv
