// Internal interface between the files of the platform family (start-up, locks).
#pragma once

namespace kt4::platform {

// Reports a failure that the person bringing a card up must see: into the trace channel
// (kt4ErrorPrintf / kt4WarningPrintf of module) and on standard error, whatever the trace
// printing. One line each; the text carries the call's name.
void say_error(int module, const char *format, ...) __attribute__((format(printf, 2, 3)));
void say_warning(int module, const char *format, ...) __attribute__((format(printf, 2, 3)));

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
