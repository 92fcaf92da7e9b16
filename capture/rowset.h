// RowSet: some of the rows of an image, as ranges. Values in, values out. No QRegion: that ends the process when
// there is no memory, where this throws.
#pragma once

#include <algorithm>
#include <iterator>
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
        if (top >= end)
            return;
        // All that it overlaps or touches becomes one with it.
        const auto first
            = std::find_if(ranges_.begin(), ranges_.end(), [&](Range range) { return range.end >= top; });
        const auto last = std::find_if(first, ranges_.end(), [&](Range range) { return range.top > end; });
        if (first == last) {
            ranges_.insert(first, {top, end});
            return;
        }
        *first = {std::min(first->top, top), std::max(std::prev(last)->end, end)};
        ranges_.erase(std::next(first), last);
    }
    void add(const RowSet& other)
    {
        if (this == &other)
            return;
        for (const Range& range : other.ranges_)
            add(range.top, range.end);
    }

    bool isEmpty() const { return ranges_.empty(); }
    bool contains(int row) const { return intersects(row, row + 1); }
    bool intersects(int top, int end) const
    {
        return std::any_of(ranges_.begin(), ranges_.end(),
            [&](Range range) { return std::max(range.top, top) < std::min(range.end, end); });
    }

    /// What lies in the rows from top up to, but not including, end.
    RowSet within(int top, int end) const
    {
        RowSet result;
        for (const Range& range : ranges_)
            result.add(std::max(range.top, top), std::min(range.end, end));
        return result;
    }

    /// From the top, without common or neighbouring rows.
    const std::vector<Range>& ranges() const& { return ranges_; }
    const std::vector<Range>& ranges() const&& = delete; // they would be gone

    int count() const
    {
        int sum = 0;
        for (const Range& range : ranges_)
            sum += range.count();
        return sum;
    }

    bool operator==(const RowSet&) const = default;

private:
    std::vector<Range> ranges_; // from the top; none overlaps or touches another
};
