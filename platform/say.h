// How the platform family, and the process start-up above it (startup/process.cpp), report a
// failure that the person bringing a card up must see.
#pragma once

namespace kt4::platform {

// Into the trace channel (kt4ErrorPrintf / kt4WarningPrintf of module) and on standard error,
// whatever the trace printing. One line each; the text carries the call's name.
void say_error(int module, const char *format, ...) __attribute__((format(printf, 2, 3)));
void say_warning(int module, const char *format, ...) __attribute__((format(printf, 2, 3)));

} // namespace kt4::platform
