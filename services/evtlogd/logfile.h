// The event log on disk: lines appended to one file, rotated by size.
//
// Each line goes out in one write to a file opened for appending, so a reader never sees half
// a line. Before a line that would take the file past the rotation size, the file is renamed
// to "<path>.1" (".1" to ".2" and so on, the oldest beyond the kept number removed) and a new
// one begun; a line longer than the size still goes into a file of its own. With keep 0 the
// old file is removed instead. A failed write is counted and the file reopened before the
// next line.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

namespace kt4::evtlogd {

class LogFile {
  public:
    struct Options {
        std::string path;
        uint64_t rotateBytes = 1u << 20;
        unsigned keep = 4;
    };
    explicit LogFile(Options options);
    ~LogFile();
    LogFile(const LogFile &) = delete;
    LogFile &operator=(const LogFile &) = delete;

    // Creates the file's directory when missing and opens the file. false with the reason.
    bool open(std::string *why);
    // Appends one line (rotating first when it would pass the size). false when it failed.
    bool write(std::string_view line);
    // Reopens the file at its path (after someone else moved it away).
    void reopen();

    uint64_t rotations() const;
    uint64_t write_errors() const;
    const std::string &path() const { return opt_.path; }

  private:
    bool open_locked(std::string *why);
    void rotate_locked();

    mutable std::mutex mu_;
    Options opt_;
    int fd_ = -1;
    uint64_t size_ = 0;
    uint64_t rotations_ = 0;
    uint64_t writeErrors_ = 0;
};

} // namespace kt4::evtlogd
