// Internal interface between the files of the platform family (mapping, locks).
#pragma once

#include "platform/say.h"

namespace kt4::platform {

// Is any other process attached to the card (has its shared memory file mapped)? Every
// process that maps the file keeps a shared lock on it for its life; the kernel drops the
// lock when the process dies. Holding this object with exclusive() true keeps new processes
// from attaching until it is destroyed, so the caller may clear what the card left behind.
class CardExclusive {
  public:
    CardExclusive();
    ~CardExclusive();
    CardExclusive(const CardExclusive &) = delete;
    CardExclusive &operator=(const CardExclusive &) = delete;
    // No other process is attached (and none can attach while this object lives).
    bool exclusive() const { return exclusive_; }
    // When not exclusive: why (a live process attached, or the file cannot be checked).
    const char *why() const { return why_; }

  private:
    bool exclusive_ = false;
    bool own_ = false; // the lock was taken on this process's own attachment
    int fd_ = -1;
    char why_[160] = "";
};

} // namespace kt4::platform
