// The checked shared heap on an anonymous shared mapping.
#include "support/kt4_support.h"

#include <kt4/hostsim.h>

#include <sys/mman.h>

namespace kt4test {

SharedHeap::SharedHeap(size_t bytes) : bytes_(bytes) {
    area_ = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (area_ == MAP_FAILED) {
        area_ = nullptr;
        return;
    }
    ok_ = mm_core_init(area_, bytes, 1) == 0;
}

SharedHeap::~SharedHeap() {
    if (area_ != nullptr) munmap(area_, bytes_);
}

bool SharedHeap::contains(const void *p) const {
    auto *c = static_cast<const char *>(p), *base = static_cast<const char *>(area_);
    return area_ != nullptr && c >= base && c < base + bytes_;
}

void *SharedHeap::alloc(size_t n) {
    return kt4MC_MM_malloc("shared-heap", __LINE__, n);
}

void SharedHeap::free(void *p) {
    kt4MC_MM_free("shared-heap", __LINE__, p);
}

} // namespace kt4test
