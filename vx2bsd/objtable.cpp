// The address set behind the object tables of queues, watchdogs and timers.
#include "vx2bsd/objtable.h"

#include <cstring>

namespace kt4::vx {

namespace {

constexpr size_t kMinSlots = 16;

} // namespace

size_t AddrSet::home(uintptr_t key) const {
    // Records are at least 16-byte aligned: the low bits carry nothing.
    uint64_t h = static_cast<uint64_t>(key >> 4) * 0x9E3779B97F4A7C15ull;
    return static_cast<size_t>(h >> 32) & (cap_ - 1);
}

bool AddrSet::contains(const void *p) const {
    if (n_ == 0) return false;
    auto key = reinterpret_cast<uintptr_t>(p);
    for (size_t i = home(key);; i = (i + 1) & (cap_ - 1)) {
        if (slots_[i] == key) return true;
        if (slots_[i] == 0) return false;
    }
}

bool AddrSet::rehash(size_t cap) {
    uintptr_t *old = slots_;
    size_t old_cap = cap_;
    uintptr_t *fresh = nullptr;
    if (cap != 0) {
        fresh = static_cast<uintptr_t *>(ts_malloc(cap * sizeof(uintptr_t)));
        if (fresh == nullptr) return false;
        std::memset(fresh, 0, cap * sizeof(uintptr_t));
    }
    slots_ = fresh;
    cap_ = cap;
    for (size_t i = 0; i < old_cap; ++i) {
        if (old[i] == 0) continue;
        size_t j = home(old[i]);
        while (slots_[j] != 0)
            j = (j + 1) & (cap_ - 1);
        slots_[j] = old[i];
    }
    ts_free(old);
    return true;
}

bool AddrSet::insert(const void *p) {
    auto key = reinterpret_cast<uintptr_t>(p);
    if (key == 0) return false;
    // At most half full: probes stay short.
    if ((n_ + 1) * 2 > cap_ && !rehash(cap_ == 0 ? kMinSlots : cap_ * 2)) return false;
    size_t i = home(key);
    while (slots_[i] != 0) {
        if (slots_[i] == key) return true;
        i = (i + 1) & (cap_ - 1);
    }
    slots_[i] = key;
    ++n_;
    return true;
}

void AddrSet::erase(const void *p) {
    auto key = reinterpret_cast<uintptr_t>(p);
    if (n_ == 0 || key == 0) return;
    size_t mask = cap_ - 1;
    size_t i = home(key);
    while (slots_[i] != key) {
        if (slots_[i] == 0) return;
        i = (i + 1) & mask;
    }
    // Backward-shift deletion: pull later members of the probe run into the hole, so that no
    // tombstones are needed.
    slots_[i] = 0;
    for (size_t j = (i + 1) & mask; slots_[j] != 0; j = (j + 1) & mask) {
        size_t k = home(slots_[j]);
        bool movable = (i <= j) ? (k <= i || k > j) : (k <= i && k > j);
        if (movable) {
            slots_[i] = slots_[j];
            slots_[j] = 0;
            i = j;
        }
    }
    --n_;
    // Give the storage back when the set empties, and shrink one that has mostly emptied.
    if (n_ == 0)
        rehash(0);
    else if (cap_ > kMinSlots && n_ * 8 < cap_)
        rehash(cap_ / 2); // on failure the larger storage simply stays
}

} // namespace kt4::vx
