#include "readers/text/KvTextReadAhead.h"

#include <system_error>

namespace kv {

namespace {

// A line longer than this is long: its values are left to the importing thread rather than copied once
// more here, and buffers kept for reuse give back what it made them take.
constexpr size_t kLongText = size_t(64) << 10;

void Release(std::string& s) {
    if (s.capacity() > kLongText) std::string().swap(s);
}

} // namespace

void TKvTextReadAhead::Take(TKvTextFile& file, int64_t row, TKvTextFields& fields) {
    for (bool restarted = false;; restarted = true) {
        if (row < 0 || row >= file.RowCount() || (!Running() && !Start(file, row, fields))) break;
        if (!current_ || position_ >= current_->Count) {
            if (current_) Recycle(std::move(current_));
            current_ = NextBatch();
            position_ = 0;
        }
        if (current_ && position_ < current_->Count && current_->Rows[position_].Index == row) {
            TRow& next = current_->Rows[position_++];
            if (next.Error) std::rethrow_exception(std::exchange(next.Error, nullptr));
            fields.Swap(next.Split);
            return;
        }
        // Another row than the one coming, or none left: read on from the row asked for.
        Stop();
        if (restarted) break;
    }
    Stop();
    fields.SetLine(file.Row(row)); // out of range raises the file's own error
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
    const int64_t count = file.RowCount();
    bool failed = false;
    while (row < count && !failed) {
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
        while (row < count && batch->Count < kBatchRows && bytes < kBatchBytes && !failed) {
            if (batch->Rows.size() <= batch->Count) batch->Rows.emplace_back();
            TRow& next = batch->Rows[batch->Count++];
            next.Index = row++;
            try {
                splitter.SetLine(file.Row(next.Index));
                if (splitter.Line().size() <= kLongText) splitter.PrepareValues();
                splitter.Swap(next.Split);
                bytes += next.Split.Line.size() * (next.Split.Prepared ? 2 : 1); // the line and its values
            } catch (...) {
                // The row reports it in its turn; reading stops here, as the row loop may stop there.
                next.Error = std::current_exception();
                failed = true;
            }
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
