// Observers whose detach has settled, kept alive a while so that a late call finds a live
// object and is counted in every build; older ones are folded into sums and freed, so
// that a long soak's memory stays flat.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>

#include "DrainObserver.h"

namespace tavrel::test {

class SettledWindow {
public:
    struct Sums {
        uint64_t observers = 0;
        uint64_t consumed = 0;
        uint64_t inLastBatch = 0;
        uint64_t afterSettled = 0;
        uint64_t unbalanced = 0;  // observers that consumed other than what was produced
    };

    explicit SettledWindow(size_t kept) : mKept(kept) {}

    // `owner` keeps the observer (and `tally`) alive; `produced` is what was sent to it.
    void add(std::shared_ptr<void> owner, Tally* tally, uint64_t produced) {
        mWindow.push_back({std::move(owner), tally, produced});
        if (mWindow.size() > mKept) foldOldest();
    }

    // Once no late call can come any more.
    void foldAll() {
        while (!mWindow.empty()) foldOldest();
    }

    const Sums& sums() const { return mSums; }

private:
    struct Entry {
        std::shared_ptr<void> owner;
        Tally* tally;
        uint64_t produced;
    };

    void foldOldest() {
        const Entry& entry = mWindow.front();
        const uint64_t consumed = entry.tally->consumed.load();
        ++mSums.observers;
        mSums.consumed += consumed;
        mSums.inLastBatch += entry.tally->inLastBatch.load();
        mSums.afterSettled += entry.tally->afterSettled.load();
        mSums.unbalanced += consumed != entry.produced ? 1 : 0;
        mWindow.pop_front();
    }

    size_t mKept;               // entries kept alive
    std::deque<Entry> mWindow;  // oldest first
    Sums mSums;                 // of the entries folded
};

}  // namespace tavrel::test
