#pragma once
// TKvTextReadAhead: cuts, decodes and splits the rows of a text file on a thread of its own while the
// caller imports the rows before them, so that reading and importing overlap. Rows come in order, in
// batches bounded by count and by bytes, and at most a few batches wait at a time, so memory stays small
// whatever the file's size or the length of its lines. Each row comes with where it lies and with the
// warnings the file noticed while cutting it, so the caller never asks the file while the thread reads.

#include "readers/text/KvTextFields.h"
#include "readers/text/KvTextFile.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace kv {

class TKvTextReadAhead {
public:
    /// Rows per batch, bytes per batch, and batches waiting at most.
    static constexpr size_t kBatchRows = 1024;
    static constexpr size_t kBatchBytes = size_t(1) << 20;
    static constexpr size_t kMaxWaiting = 4;

    TKvTextReadAhead() = default;
    ~TKvTextReadAhead() { Stop(); }
    TKvTextReadAhead(const TKvTextReadAhead&) = delete;
    TKvTextReadAhead& operator=(const TKvTextReadAhead&) = delete;

    /// True when `file` has a data row `row`. Reading goes on ahead from there; a row out of order
    /// restarts it. Until Stop the file belongs to the reading thread: the caller must not use it, but for
    /// what TKvTextFile allows another thread. When the file fails to tell (a read failed twice in a
    /// row), its error is raised here.
    bool Has(TKvTextFile& file, int64_t row, const TKvTextFields& layout);
    /// Makes data row `row` of `file` the current record of `fields` (split by `fields`' own layout, its
    /// values prepared unless a row hook read them), and tells in `place` where it lies. A row the file fails
    /// to read raises its error here, in its turn, with `place` set.
    void Take(TKvTextFile& file, int64_t row, TKvTextFields& fields, TKvTextRowPlace& place);
    /// Appends to `out` the warnings the file noticed while cutting the rows asked for so far.
    void TakeWarnings(std::vector<TKvTextWarning>& out);
    /// Work for the reading thread on each record it has split, in place of preparing its values (a record
    /// too long to prepare is left alone): whatever the hook leaves in the record's Finished travels with it.
    /// Set while the thread is not running; it stays for the runs after until set again.
    void SetRowHook(std::function<void(TKvTextFields&)> hook) { rowHook_ = std::move(hook); }
    /// Ends the reading thread; the file is the caller's again.
    void Stop();
    bool Running() const { return thread_.joinable(); }

private:
    struct TRow {
        int64_t Index = 0;
        bool End = false; ///< there is no row Index: the file ends before it
        TKvTextRowPlace Place;
        TKvTextSplit Split;
        std::vector<TKvTextWarning> Warnings; ///< noticed while cutting it
        std::exception_ptr Error;             ///< of the row, or with End of the reading
    };
    struct TBatch {
        std::vector<TRow> Rows;
        size_t Count = 0; ///< rows in use
    };

    TRow* Find(TKvTextFile& file, int64_t row, const TKvTextFields& layout);
    void Reached(TRow& row);
    bool Start(TKvTextFile& file, int64_t row, const TKvTextFields& layout);
    void Produce(TKvTextFile& file, int64_t row, TKvTextFields splitter);
    void ProduceRows(TKvTextFile& file, int64_t row, TKvTextFields& splitter);
    std::unique_ptr<TBatch> NextBatch();
    void Recycle(std::unique_ptr<TBatch> batch);

    std::function<void(TKvTextFields&)> rowHook_;
    std::thread thread_;
    std::mutex mutex_;
    std::condition_variable ready_; ///< a batch is waiting, or the thread has finished
    std::condition_variable space_; ///< a batch was taken, or the thread must stop
    std::deque<std::unique_ptr<TBatch>> waiting_;
    std::vector<std::unique_ptr<TBatch>> spare_;
    bool stop_ = false;
    bool finished_ = false;

    // The consumer's side: the batch being handed out, the next row of it, and the warnings of the rows
    // reached.
    std::unique_ptr<TBatch> current_;
    size_t position_ = 0;
    std::vector<TKvTextWarning> warnings_;
};

} // namespace kv
