// RowSet: some of the rows of an image, as ranges. Values in, values out.
#pragma once

#include <QRegion>

#include <algorithm>
#include <vector>

class RowSet {
public:
    /// The rows from top up to, but not including, end.
    struct Range {
        int top = 0;
        int end = 0;
        int count() const { return end - top; }
        bool operator==(const Range&) const = default;
    };

    RowSet() = default;
    RowSet(int top, int end) { add(top, end); }

    /// An empty range adds nothing.
    void add(int top, int end)
    {
        if (top < end)
            rows_ += QRect(0, top, 1, end - top);
    }
    void add(const RowSet& other) { rows_ += other.rows_; }

    bool isEmpty() const { return rows_.isEmpty(); }
    bool contains(int row) const { return rows_.contains(QPoint(0, row)); }
    bool intersects(int top, int end) const { return top < end && rows_.intersects(QRect(0, top, 1, end - top)); }

    /// What lies in the rows from top up to, but not including, end.
    RowSet within(int top, int end) const
    {
        RowSet result;
        if (top < end)
            result.rows_ = rows_ & QRect(0, top, 1, end - top);
        return result;
    }

    /// From the top, without common or neighbouring rows.
    std::vector<Range> ranges() const
    {
        std::vector<Range> result;
        for (const QRect& part : rows_)
            result.push_back({part.top(), part.top() + part.height()});
        return result;
    }

    int count() const
    {
        int sum = 0;
        for (const Range& range : ranges())
            sum += range.count();
        return sum;
    }

    bool operator==(const RowSet&) const = default;

private:
    QRegion rows_; // of one column; it joins ranges that touch
};
