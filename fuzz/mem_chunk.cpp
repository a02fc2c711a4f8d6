// Chunk headers that callers can overwrite: the allocator reads them on every free (and on
// every allocation, for the chunk it hands out next). Whatever bytes stand there, the
// allocator must refuse what it cannot trust and never read outside its own pages.
//
// Input: byte 0 picks the chunk size, byte 1 the number of chunks taken and which one is hit,
// byte 2 the operation, the rest is written over the target's 8-byte header and the free-list
// links behind it (or forms a foreign block). After the operation the pool must still work.
#include "mem/mem_int.h"

#include <kt4/mem.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace {

constexpr int kPart = 7;
constexpr uint32_t kSizes[] = {8, 24, 100, 1000, 16384, 16540, 20000};

int quiet(uint32_t) {
    return 10;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using namespace kt4::mem;
    if (size < 3) return 0;
    kt4MemSetUsageHook(quiet);
    const uint32_t chnkSz = kSizes[data[0] % (sizeof kSizes / sizeof kSizes[0])];
    const int pool = KT4_MEM_POOL_ID(kPart, 0);
    if (kt4_memPartFixedInit(kPart, 1) != 0 || M_memPoolCreate("fuzz", pool, chnkSz) != 0) {
        kt4_memPartDelete(kPart);
        return 0;
    }
    const int taken = 2 + (data[1] & 7);
    void *blocks[9] = {};
    PageHdr *pages[9] = {};
    for (int i = 0; i < taken; ++i) {
        blocks[i] = M_memBlockAlloc("fuzz", i, chnkSz, pool);
        if (blocks[i] == nullptr) continue;
        // The chunk's own page, known while its header is sound.
        auto *chnk = static_cast<ChnkHdr *>(blocks[i]) - 1;
        pages[i] = reinterpret_cast<PageHdr *>(reinterpret_cast<char *>(chnk) -
                                               chnkIndex(chnk->chnkInfo) * slotSize(chnkSz) -
                                               kPageHdrSize);
    }
    // Every other block goes back, so the target may be a free or an allocated chunk.
    for (int i = 1; i < taken; i += 2)
        M_memBlockFree("fuzz", i, blocks[i]);
    int t = (data[1] >> 3) % taken;
    if (pages[t] != nullptr && !pageRegistered(pages[t])) t = 0; // its page went back to the heap
    auto *target = static_cast<unsigned char *>(blocks[t]);
    PageHdr *page = pages[t];
    const size_t n = size - 3 < 16 ? size - 3 : 16;
    const uint8_t op = data[2] % 5;
    alignas(16) unsigned char foreign[64] = {};
    if (target != nullptr) {
        auto *chnk = reinterpret_cast<ChnkHdr *>(target) - 1;
        if (op != 4) std::memcpy(target - 8, data + 3, n < chnkSz + 8 ? n : chnkSz + 8);
        switch (op) {
        case 0: // free it (a corrupted, double or good free)
            M_memBlockFree("fuzz", 100, target);
            break;
        case 1: // take chunks until the corrupted free chunk comes up
            for (int i = 0; i < 12; ++i)
                if (void *p = M_memBlockAlloc("fuzz", 200 + i, chnkSz, pool))
                    std::memset(p, 0x5A, chnkSz);
            break;
        case 2: // both checks of verifyChnk on the bytes as they are
            verifyChnk(kVerifyAlloc, page, chnk);
            verifyChnk(kVerifyFree, page, chnk);
            M_memBlockPoolId(target);
            break;
        case 3: // the var-pool free of a fixed-pool block
            M_memBlockVarFree("fuzz", 300, target, kPart);
            break;
        case 4: // a foreign block carrying the bytes as its header
            std::memcpy(foreign + 8, data + 3, n);
            M_memBlockFree("fuzz", 400, foreign + 16);
            break;
        }
    }
    // Whatever happened, the pool still serves and takes back.
    void *p = M_memBlockAlloc("fuzz", 500, chnkSz, pool);
    if (p != nullptr) M_memBlockFree("fuzz", 501, p);
    kt4_memPartDelete(kPart);
    return 0;
}
