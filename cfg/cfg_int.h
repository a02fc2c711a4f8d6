// What the files of the configuration client share.
#pragma once

#include <kt4/cfg.h>
#include <kt4/log.h>

#include <cstdint>

namespace kt4::cfg {

constexpr int kModule = 6;     // "CFG"
constexpr int kDescModule = 8; // the description sync reports here
constexpr uint32_t kTraceBit = 1;
constexpr uint32_t kNoAddr = 0xFFFFFFFF;

inline bool tracing() {
    return (wrap_modtraceflags(kModule) & kTraceBit) != 0;
}

} // namespace kt4::cfg
