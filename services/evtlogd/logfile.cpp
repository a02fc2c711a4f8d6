// The rotating log file.
//
// Lock order: LogFile::mu_ alone (it calls nothing that locks).
#include "services/evtlogd/logfile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace kt4::evtlogd {
namespace {

// Creates every missing directory of path's parent.
bool make_parents(const std::string &path, std::string *why) {
    for (size_t at = path.find('/', 1); at != std::string::npos; at = path.find('/', at + 1)) {
        const std::string dir = path.substr(0, at);
        if (mkdir(dir.c_str(), 0750) != 0 && errno != EEXIST) {
            if (why != nullptr) *why = "cannot create " + dir + ": " + std::strerror(errno);
            return false;
        }
    }
    return true;
}

std::string numbered(const std::string &path, unsigned n) {
    return path + "." + std::to_string(n);
}

} // namespace

LogFile::LogFile(Options options) : opt_(std::move(options)) {}

LogFile::~LogFile() {
    if (fd_ >= 0) close(fd_);
}

bool LogFile::open(std::string *why) {
    std::lock_guard<std::mutex> g(mu_);
    return make_parents(opt_.path, why) && open_locked(why);
}

bool LogFile::open_locked(std::string *why) {
    if (fd_ >= 0) close(fd_);
    fd_ = ::open(opt_.path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0640);
    if (fd_ < 0) {
        if (why != nullptr) *why = "cannot open " + opt_.path + ": " + std::strerror(errno);
        return false;
    }
    struct stat st {};
    size_ = fstat(fd_, &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
    return true;
}

void LogFile::rotate_locked() {
    if (opt_.keep == 0) {
        unlink(opt_.path.c_str());
    } else {
        unlink(numbered(opt_.path, opt_.keep).c_str());
        for (unsigned n = opt_.keep; n > 1; --n)
            rename(numbered(opt_.path, n - 1).c_str(), numbered(opt_.path, n).c_str());
        rename(opt_.path.c_str(), numbered(opt_.path, 1).c_str());
    }
    ++rotations_;
    open_locked(nullptr);
}

bool LogFile::write(std::string_view line) {
    std::lock_guard<std::mutex> g(mu_);
    if (fd_ < 0 && !open_locked(nullptr)) {
        ++writeErrors_;
        return false;
    }
    if (size_ > 0 && size_ + line.size() > opt_.rotateBytes) {
        rotate_locked();
        if (fd_ < 0) {
            ++writeErrors_;
            return false;
        }
    }
    size_t done = 0;
    while (done < line.size()) {
        ssize_t n = ::write(fd_, line.data() + done, line.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            ++writeErrors_;
            close(fd_); // opened again before the next line
            fd_ = -1;
            return false;
        }
        done += static_cast<size_t>(n);
    }
    size_ += line.size();
    return true;
}

void LogFile::reopen() {
    std::lock_guard<std::mutex> g(mu_);
    open_locked(nullptr);
}

uint64_t LogFile::rotations() const {
    std::lock_guard<std::mutex> g(mu_);
    return rotations_;
}

uint64_t LogFile::write_errors() const {
    std::lock_guard<std::mutex> g(mu_);
    return writeErrors_;
}

} // namespace kt4::evtlogd
