#pragma once
// TKvMemDataSet: a table held in memory as rows of Variants. Tests use it as a destination whose every
// write they can inspect (and make fail); applications use it to keep imported rows in memory.

#include "datasets/DataSet.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kv {

class TKvMemDataSet : public TDataSet {
public:
    explicit TKvMemDataSet(TComponent* owner = nullptr);
    ~TKvMemDataSet() override;

    /// The fields the next Open declares; changes while open take effect at the next Open.
    std::vector<TFieldDef>& FieldDefs() { return fieldDefs_; }
    const std::vector<TFieldDef>& FieldDefs() const { return fieldDefs_; }
    /// Adds a field definition; the reference stays valid until the next one is added.
    TFieldDef& AddFieldDef(const std::string& name, TFieldType type, int size = 0, bool required = false);

    /// Published as "TableName" and "IndexFieldName" when not empty.
    const std::string& TableName() const { return tableName_; }
    void SetTableName(const std::string& name) { tableName_ = name; }
    const std::string& IndexFieldName() const { return indexFieldName_; }
    void SetIndexFieldName(const std::string& names) { indexFieldName_ = names; }

    /// Adds a row with `values` converted to the field types (missing values are Null). While the dataset
    /// is open this is Append, assignments and Post, so the cursor ends on the new row; while it is closed
    /// the row is stored directly.
    void AppendRecord(const std::vector<Variant>& values);
    /// The stored rows; they outlive Close and are only dropped by EmptyTable.
    int RowCount() const { return static_cast<int>(rows_.size()); }
    const std::vector<Variant>& Row(int index) const;
    void EmptyTable();

    /// Called before each write with the values being posted; a test throws from it to make a post fail.
    std::function<void(bool inserting, const std::vector<Variant>& values)> BeforePost;

    std::optional<std::string> PublishedProperty(const std::string& name) const override;
    std::string ClassName() const override { return "TKvMemDataSet"; }

protected:
    std::vector<TFieldDef> InternalOpen() override;
    void InternalClose() override;
    bool InternalFirst() override;
    bool InternalNext() override;
    void InternalReadRecord(std::vector<Variant>& values) override;
    void InternalPost(bool inserting, std::vector<Variant>& values, const TAssignedFields& assigned) override;
    bool InternalDelete() override;
    bool InternalLocate(const std::vector<int>& fields, const std::vector<Variant>& values,
                        TLocateOptions options) override;
    int InternalRecordCount() override;

private:
    void CheckRequired(const std::vector<Variant>& row, const TAssignedFields* assigned) const;

    std::vector<TFieldDef> fieldDefs_;
    std::vector<TFieldDef> openDefs_; // the definitions in force while open
    std::vector<std::vector<Variant>> rows_;
    size_t current_ = 0;
    int64_t lastAutoInc_ = 0;
    std::string tableName_, indexFieldName_;
};

} // namespace kv
