// The chunk checks: what is reported when a chunk header does not hold what its page or pool
// says, and the refusals of an address handed back to a free.
#include "mem/pool_int.h"

namespace kt4::mem {

// The reporting half of verifyChnk: which check failed, with the system's texts.
int verifyChnkFailed(int mode, PageHdr *curPage, ChnkHdr *chnkHdr, Pool *curPool) {
    const uint32_t marker = chnkHdr->chnkMarker;
    const uint32_t info = chnkHdr->chnkInfo;
    const uint32_t chnkLen = chnkLength(info);
    if (!((marker != 0) && (chnkLen != 0))) {
        _kt4Assert("(chnkHdr->chnkMarker != 0 ) && (chnkLen != 0)", kSrcTag, __LINE__);
        return ERROR;
    }
    if (mode == kVerifyAlloc) {
        const uintptr_t actPage = actualPage(chnkHdr, info);
        memError("Allocation: curPage: %x, actPage: %x, chnkHdr: %x\r\n", lo32(curPage),
                 static_cast<uint32_t>(actPage), lo32(chnkHdr));
        if (marker != Unused_Magic_front)
            _kt4Assert("(chnkHdr->chnkMarker) == Unused_Magic_front", kSrcTag, __LINE__);
        else
            _kt4Assert("curPage == actPage", kSrcTag, __LINE__);
        return ERROR;
    }
    memError("Free: curPage: %x, chnkHdr: %x\r\n", lo32(curPage), lo32(chnkHdr));
    if (curPool == nullptr || curPool->chnkSz.get() != chnkLen)
        _kt4Assert("(curPool->chnkSz) == chnkLen", kSrcTag, __LINE__);
    return ERROR;
}

// Checks a chunk header against the page (allocation: a free chunk whose index leads back to
void reportBadFree(const char *fn, BadAddr why, void *addr, const char *file, int line) {
    switch (why) {
    case BadAddr::Null:
        _kt4Assert("addr != NULL", kSrcTag, line);
        memError("%s: %s: null address (%s:%d)", kModName, fn, file ? file : "?", line);
        break;
    case BadAddr::NotAllocated:
        memError("%s: %s: Block Addr Not Allocated, addr %p (%s:%d)", kModName, fn, addr,
                 file ? file : "?", line);
        break;
    case BadAddr::NotFreed:
        memError("%s: %s: Block Addr Not Freed, addr %p (%s:%d)", kModName, fn, addr,
                 file ? file : "?", line);
        break;
    case BadAddr::WrongPart:
        memError("%s: %s: Block Addr Not Freed, addr %p is not of this partition (%s:%d)", kModName,
                 fn, addr, file ? file : "?", line);
        break;
    case BadAddr::None:
        break;
    }
}

void reportTrailer(const Pool *pool, const ChnkHdr *chnk) {
    memSysErr("%s: kt4_memBlockFree: Header/Trailer corrupted after block %p of pool %s", kModName,
              static_cast<const void *>(chnk + 1), pool->name);
    _kt4Assert("isTrailerGood == TRUE", kSrcTag, __LINE__);
}

int verifyChnk(int mode, PageHdr *curPage, ChnkHdr *chnkHdr) {
    return verifyChnkIn(mode, curPage, chnkHdr,
                        mode == kVerifyFree ? poolById(curPage->pool) : nullptr);
}

} // namespace kt4::mem
