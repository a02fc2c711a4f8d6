// How a server of the card started by hand (not by kt4card run, whose system words lead it
// through KT4_NbsdpInit) joins the card that $KT4_ROOT and $KT4_SYSV_KEY_OFFSET name.
#pragma once

#include <kt4/platform.h>

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace kt4::svc {

// Maps the card's shared memory file at the size it has and opens the card's locks without
// creating them. false, after saying why on stderr under prog's name (and how else to start
// it: startHint), when the card is not up.
inline bool join_card(const char *prog, const char *startHint) {
    const char *file = kt4GetShmFileName(0);
    struct stat st {};
    if (file == nullptr || *file == '\0' || ::stat(file, &st) != 0) {
        std::fprintf(stderr,
                     "%s: no card is up here (%s: %s): bring it up with 'kt4card up' (the same "
                     "KT4_ROOT), or start %s with '%s'\n",
                     prog, file != nullptr && *file != '\0' ? file : "(shared memory file)",
                     std::strerror(errno), prog, startHint);
        return false;
    }
    std::string size = std::to_string(static_cast<long long>(st.st_size));
    std::string name = prog;
    char *av[] = {name.data(), size.data(), nullptr};
    if (KT4_ProcShmInit(2, av) != 0) {
        std::fprintf(stderr, "%s: cannot map the card's shared memory %s\n", prog, file);
        return false;
    }
    if (KT4_InitShmSem(0) != 0) {
        const char *offset = std::getenv("KT4_SYSV_KEY_OFFSET");
        std::fprintf(stderr,
                     "%s: the card's locks are missing (KT4_SYSV_KEY_OFFSET %s): is the card up?\n",
                     prog, offset != nullptr ? offset : "0");
        return false;
    }
    return true;
}

} // namespace kt4::svc
