// A 32-bit big-endian word that threads (and processes, in shared memory) read and write
// atomically: the lock table's words, the module trace flags. It has the size of its word and
// holds the word's bytes in big-endian order like every record of the system.
#pragma once

#include "common/kt4_be.h"

#include <atomic>
#include <bit>
#include <cstdint>

namespace kt4 {

class AtomicBe32 {
  public:
    AtomicBe32() = default;
    constexpr explicit AtomicBe32(uint32_t v) : raw_(to_raw(v)) {}
    uint32_t load() const { return from_raw(raw_.load(std::memory_order_relaxed)); }
    void store(uint32_t v) { raw_.store(to_raw(v), std::memory_order_relaxed); }
    void add(uint32_t d) {
        uint32_t old = raw_.load(std::memory_order_relaxed);
        while (!raw_.compare_exchange_weak(old, to_raw(from_raw(old) + d),
                                           std::memory_order_relaxed)) {
        }
    }

  private:
    static constexpr uint32_t to_raw(uint32_t v) { return std::bit_cast<uint32_t>(be32(v)); }
    static uint32_t from_raw(uint32_t raw) { return std::bit_cast<be32>(raw).get(); }
    std::atomic<uint32_t> raw_{0};
};
static_assert(sizeof(AtomicBe32) == 4 && std::atomic<uint32_t>::is_always_lock_free);

} // namespace kt4
