// Byte-order field types for the records the system keeps big-endian.
//
// Every integer the library keeps in shared memory, in its own records and in messages is
// big-endian whatever the processor, so one layout serves cards with different CPUs. Fields
// of such records are declared with these types: they store big-endian and convert on every
// read and write, so no code scatters htonl by hand. They are trivially copyable, have the
// size and (byte) alignment of their storage, and can overlay raw message buffers.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

namespace kt4 {

template <typename T> class be {
    static_assert(std::is_integral_v<T>, "be<T> holds integers");
    using U = std::make_unsigned_t<T>;
    unsigned char b_[sizeof(T)];

    static constexpr U swap(U v) {
        if constexpr (sizeof(U) == 1) return v;
        else if constexpr (sizeof(U) == 2) return static_cast<U>(__builtin_bswap16(v));
        else if constexpr (sizeof(U) == 4) return static_cast<U>(__builtin_bswap32(v));
        else return static_cast<U>(__builtin_bswap64(v));
    }

  public:
    be() = default;
    constexpr be(T v) { set(v); } // NOLINT: implicit on purpose, fields read like integers

    T get() const {
        U raw;
        std::memcpy(&raw, b_, sizeof raw);
        if constexpr (__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__) raw = swap(raw);
        return static_cast<T>(raw);
    }
    constexpr void set(T v) {
        U raw = static_cast<U>(v);
        if (std::is_constant_evaluated()) {
            for (int i = static_cast<int>(sizeof(T)) - 1; i >= 0; --i) {
                b_[i] = static_cast<unsigned char>(raw & 0xFF);
                raw = static_cast<U>(raw >> 8);
            }
            return;
        }
        // One swapped store: byte-wise stores stall the loads that read the field right back.
        if constexpr (__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__) raw = swap(raw);
        std::memcpy(b_, &raw, sizeof raw);
    }
    operator T() const { return get(); } // NOLINT
    be &operator=(T v) {
        set(v);
        return *this;
    }
    be &operator+=(T v) { return *this = static_cast<T>(get() + v); }
    be &operator-=(T v) { return *this = static_cast<T>(get() - v); }
    be &operator|=(T v) { return *this = static_cast<T>(get() | v); }
    be &operator&=(T v) { return *this = static_cast<T>(get() & v); }
    be &operator++() { return *this += 1; }
    be &operator--() { return *this -= 1; }
    T operator++(int) {
        T old = get();
        set(static_cast<T>(old + 1));
        return old;
    }
    T operator--(int) {
        T old = get();
        set(static_cast<T>(old - 1));
        return old;
    }
    const unsigned char *bytes() const { return b_; }
};

using be16 = be<uint16_t>;
using be32 = be<uint32_t>;
using be64 = be<uint64_t>;
using bes16 = be<int16_t>;
using bes32 = be<int32_t>;
using bes64 = be<int64_t>;

static_assert(sizeof(be16) == 2 && sizeof(be32) == 4 && sizeof(be64) == 8);
static_assert(alignof(be32) == 1 && std::is_trivially_copyable_v<be64>);

// Reads and writes of big-endian integers at a byte offset of a wire buffer.
inline uint16_t load_be16(const void *p) { return reinterpret_cast<const be16 *>(p)->get(); }
inline uint32_t load_be32(const void *p) { return reinterpret_cast<const be32 *>(p)->get(); }
inline uint64_t load_be64(const void *p) { return reinterpret_cast<const be64 *>(p)->get(); }
inline void store_be16(void *p, uint16_t v) { reinterpret_cast<be16 *>(p)->set(v); }
inline void store_be32(void *p, uint32_t v) { reinterpret_cast<be32 *>(p)->set(v); }
inline void store_be64(void *p, uint64_t v) { reinterpret_cast<be64 *>(p)->set(v); }

} // namespace kt4
