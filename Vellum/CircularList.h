#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "Vellum/Diagnostics.h"

namespace vellum {

// The ring mechanics shared by CircularList and CircularBufferLineList. Slot is a nullable
// type (an optional or a pointer); an empty slot stands for an element not yet made. The slot
// of logical index i is (startIndex + i) modulo the array's length. The array grows on demand
// up to maxLength, so a ring with a huge limit costs only what it holds.
template <typename Slot>
class RingSlots {
public:
    explicit RingSlots(int maxLength) : maxLength(std::max(maxLength, 0)) {}

    int count() const { return _count; }

    // Setting more than maxLength is an internal error; it is reported and held to the limit.
    void setCount(int value) {
        if (value > maxLength) {
            diagnostic("Assertion on count: " + std::to_string(value) + " > maxLength " + std::to_string(maxLength));
            value = maxLength;
        }
        value = std::max(value, 0);
        if (value > _count) {
            ensureCapacity(value);
        } else {
            for (int i = value; i < _count; ++i) slot(i) = Slot{};
        }
        _count = value;
    }

    // Drops `n` elements from the front.
    void trimStart(int n) {
        n = std::clamp(n, 0, _count);
        if (n == 0) return;
        for (int i = 0; i < n; ++i) slot(i) = Slot{};
        startIndex = (startIndex + n) % int(array.size());
        _count -= n;
    }

    // A new limit; the newest elements are kept when it is below the count.
    void setMaxLength(int value) {
        value = std::max(value, 0);
        if (value < _count) trimStart(_count - value);
        maxLength = value;
        if (int(array.size()) > maxLength) relayout(_count);
    }

    // Moves `count` elements at `start` by `offset`. Vacated slots become empty. Growing past
    // maxLength drops elements from the front.
    bool shiftElements(int start, int count, int offset) {
        if (count == 0 && offset < 0) return true;
        auto fail = [&](const char* reason) {
            diagnostic("Assertion at start=" + std::to_string(start) + " count=" + std::to_string(count) +
                       " offset=" + std::to_string(offset) + ": " + reason);
            return false;
        };
        if (count < 0) return fail("count < 0");
        if (start < 0) return fail("start < 0");
        if (start >= _count) return fail("start >= self.count");
        if (int64_t(start) + offset < 1) return fail("start+offset <= 0");
        count = std::min(count, _count - start);
        if (offset < 0) {
            for (int i = 0; i < count; ++i) slot(start + i + offset) = std::exchange(slot(start + i), Slot{});
        } else if (offset > 0) {
            int64_t end = int64_t(start) + count + offset;
            if (end <= maxLength) {
                ensureCapacity(int(end));
                for (int i = count - 1; i >= 0; --i) slot(start + i + offset) = std::exchange(slot(start + i), Slot{});
                _count = std::max(_count, int(end));
            } else {
                // Destinations past the limit wrap onto the slots of the front elements that are
                // about to drop, so the stretch is taken out before any is written.
                ensureCapacity(maxLength);
                std::vector<Slot> moving;
                moving.reserve(size_t(count));
                for (int i = 0; i < count; ++i) moving.push_back(std::exchange(slot(start + i), Slot{}));
                for (int i = 0; i < count; ++i) slot(int((int64_t(start) + i + offset) % maxLength)) = std::move(moving[size_t(i)]);
                int over = int(end - maxLength);
                startIndex = int((int64_t(startIndex) + over) % maxLength);
                _count = maxLength;
            }
        }
        return true;
    }

    std::vector<Slot> array;
    int startIndex = 0;
    int _count = 0;
    int maxLength = 0;

protected:
    Slot& slot(int index) {
        // Rows are read on every printed run: a subtraction is enough for the indexes in use.
        int64_t at = int64_t(startIndex) + index, size = int64_t(array.size());
        if (at >= size) at = at - size < size ? at - size : at % size;
        return array[size_t(at)];
    }

    void ensureCapacity(int needed) {
        needed = std::min(needed, maxLength);
        if (int(array.size()) >= needed) return;
        int64_t grown = std::max<int64_t>({needed, int64_t(array.size()) * 2, 16});
        relayout(int(std::min<int64_t>(grown, maxLength)));
    }

    // Rewrites the held elements in order at the start of an array of `size` slots.
    void relayout(int size) {
        std::vector<Slot> fresh(size_t(std::max(size, _count)));
        for (int i = 0; i < _count; ++i) fresh[size_t(i)] = std::move(slot(i));
        array = std::move(fresh);
        startIndex = 0;
    }

    void resetSlots(int newMaxLength) {
        newMaxLength = std::max(newMaxLength, 0);
        if (newMaxLength != maxLength) {
            array.clear();
            array.shrink_to_fit();
        } else {
            std::fill(array.begin(), array.end(), Slot{});
        }
        maxLength = newMaxLength;
        startIndex = 0;
        _count = 0;
    }

    // Appends; when full the first element drops and is given back.
    Slot pushSlot(Slot value) {
        if (_count < maxLength) {
            ensureCapacity(_count + 1);
            slot(_count) = std::move(value);
            ++_count;
            return Slot{};
        }
        if (maxLength == 0) return value;
        Slot dropped = std::exchange(slot(0), std::move(value));
        startIndex = (startIndex + 1) % int(array.size());
        return dropped;
    }

    // Deletes deleteCount elements at start, then inserts itemCount made by make(k) there.
    // change(index) is told the final index of each inserted element that stays in the ring.
    template <typename Make, typename Change>
    void spliceSlots(int start, int deleteCount, int itemCount, Make&& make, Change&& change) {
        start = std::clamp(start, 0, _count);
        deleteCount = std::clamp(deleteCount, 0, _count - start);
        if (deleteCount > 0) {
            for (int i = start; i < _count - deleteCount; ++i) slot(i) = std::exchange(slot(i + deleteCount), Slot{});
            for (int i = _count - deleteCount; i < _count; ++i) slot(i) = Slot{};
            _count -= deleteCount;
        }
        if (itemCount <= 0) return;
        int64_t total = int64_t(_count) + itemCount;
        if (total <= maxLength) {
            ensureCapacity(int(total));
            for (int i = _count - 1; i >= start; --i) slot(i + itemCount) = std::exchange(slot(i), Slot{});
            _count = int(total);
            for (int k = 0; k < itemCount; ++k) {
                slot(start + k) = make(k);
                change(start + k);
            }
            return;
        }
        // Over the limit the front drops; rebuild in order, which is simplest to get right.
        int trim = int(total - maxLength);
        std::vector<Slot> fresh(static_cast<size_t>(maxLength));
        std::vector<int> written;
        for (int64_t p = trim; p < total; ++p) {
            Slot& target = fresh[size_t(p - trim)];
            if (p < start) {
                target = std::move(slot(int(p)));
            } else if (p < start + itemCount) {
                target = make(int(p - start));
                written.push_back(int(p - trim));
            } else {
                target = std::move(slot(int(p - itemCount)));
            }
        }
        array = std::move(fresh);
        startIndex = 0;
        _count = maxLength;
        for (int index : written) change(index);
    }
};

// A ring of values; an element never set reads as makeEmpty(index), or a default value.
template <typename T>
class CircularList : public RingSlots<std::optional<T>> {
    using Base = RingSlots<std::optional<T>>;

public:
    explicit CircularList(int maxLength, std::function<T(int)> makeEmpty = {})
        : Base(maxLength), makeEmpty(std::move(makeEmpty)) {}

    T& operator[](int index) {
        std::optional<T>& s = this->slot(index);
        if (!s) s = makeEmpty ? makeEmpty(index) : T{};
        return *s;
    }
    void set(int index, T value) { this->slot(index) = std::move(value); }
    void push(T value) { this->pushSlot(std::move(value)); }
    void reset(int maxLength) { this->resetSlots(maxLength); }
    void splice(int start, int deleteCount, std::span<const T> items, const std::function<void(int)>& change = {}) {
        this->spliceSlots(
            start, deleteCount, int(items.size()), [&](int k) { return std::optional<T>(items[size_t(k)]); },
            [&](int index) {
                if (change) change(index);
            });
    }

    std::function<T(int)> makeEmpty;
};

} // namespace vellum
