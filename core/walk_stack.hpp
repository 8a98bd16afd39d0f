// SPDX-License-Identifier: BSD-3-Clause
// The explicit stack of every walk over nested records (the codec's and the tree printers'): depth
// never costs C stack. InlineFrames frames live inside the object (the codec keeps a thousand
// there, so no real tree reaches the heap); deeper walks take working memory from the C heap (never from
// the caller's callbacks), released when the walk returns.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>

namespace tov::detail {

template <class Frame, size_t InlineFrames = 32> class WalkStack {
    static_assert(std::is_trivially_copyable_v<Frame>);

public:
    WalkStack() = default;
    WalkStack(const WalkStack &) = delete;
    WalkStack &operator=(const WalkStack &) = delete;
    ~WalkStack() {
        if (data_ != inline_) std::free(data_);
    }

    // False when working memory cannot be had; the stack is unchanged then.
    [[nodiscard]] bool push(const Frame &frame) {
        if (size_ == capacity_ && !grow()) return false;
        data_[size_++] = frame;
        return true;
    }
    Frame &top() { return data_[size_ - 1]; }
    void pop() { --size_; }
    bool empty() const { return size_ == 0; }
    size_t size() const { return size_; }

private:
    bool grow() {
        if (capacity_ > SIZE_MAX / 2 / sizeof(Frame)) return false;
        size_t capacity = capacity_ * 2;
        auto *data = static_cast<Frame *>(std::malloc(capacity * sizeof(Frame)));
        if (!data) return false;
        std::memcpy(static_cast<void *>(data), data_, size_ * sizeof(Frame));
        if (data_ != inline_) std::free(data_);
        data_ = data;
        capacity_ = capacity;
        return true;
    }

    Frame inline_[InlineFrames];
    Frame *data_ = inline_;
    size_t size_ = 0;
    size_t capacity_ = InlineFrames;
};

} // namespace tov::detail
