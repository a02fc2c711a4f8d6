// A small JSON writer for the operator tools' --json output: one document, built in memory
// and written at once, so that a script never sees half of one.
//
// Texts read from a card's file are hostile: every byte that is not printable ASCII is
// written as a \u00XX escape, so the document stays valid JSON whatever the file holds.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace kt4::tools {

class Json {
  public:
    // Members of an object take a key; elements of an array take none (key null).
    Json &begin_object(const char *key = nullptr) { return open(key, '{'); }
    Json &end_object() { return close('}'); }
    Json &begin_array(const char *key = nullptr) { return open(key, '['); }
    Json &end_array() { return close(']'); }

    Json &str(const char *key, const std::string &v) {
        lead(key);
        quote(v.data(), v.size());
        return *this;
    }
    Json &str(const char *key, const char *v) {
        return v == nullptr ? null(key) : str(key, std::string(v));
    }
    Json &num(const char *key, int64_t v) {
        lead(key);
        out_ += std::to_string(v);
        return *this;
    }
    Json &unum(const char *key, uint64_t v) {
        lead(key);
        out_ += std::to_string(v);
        return *this;
    }
    Json &boolean(const char *key, bool v) {
        lead(key);
        out_ += v ? "true" : "false";
        return *this;
    }
    Json &null(const char *key) {
        lead(key);
        out_ += "null";
        return *this;
    }

    // The document, once every object and array is closed.
    const std::string &text() const { return out_; }
    void print(FILE *f) const {
        std::fwrite(out_.data(), 1, out_.size(), f);
        std::fputc('\n', f);
    }

  private:
    Json &open(const char *key, char c) {
        lead(key);
        out_ += c;
        first_.push_back(true);
        return *this;
    }
    Json &close(char c) {
        if (!first_.empty()) first_.pop_back();
        out_ += c;
        return *this;
    }
    void lead(const char *key) {
        if (!first_.empty()) {
            if (!first_.back()) out_ += ',';
            first_.back() = false;
        }
        if (key != nullptr) {
            quote(key, std::char_traits<char>::length(key));
            out_ += ':';
        }
    }
    void quote(const char *s, size_t n) {
        out_ += '"';
        for (size_t i = 0; i < n; ++i) {
            const auto c = static_cast<unsigned char>(s[i]);
            if (c == '"' || c == '\\') {
                out_ += '\\';
                out_ += static_cast<char>(c);
            } else if (c == '\n') {
                out_ += "\\n";
            } else if (c == '\t') {
                out_ += "\\t";
            } else if (c < 0x20 || c >= 0x7F) {
                char b[8];
                std::snprintf(b, sizeof b, "\\u%04x", c);
                out_ += b;
            } else {
                out_ += static_cast<char>(c);
            }
        }
        out_ += '"';
    }

    std::string out_;
    std::vector<bool> first_;
};

// A fixed-size name field of a record as text: up to its first NUL, never past the field.
inline std::string field_text(const char *field, size_t size) {
    size_t n = 0;
    while (n < size && field[n] != '\0')
        ++n;
    return std::string(field, n);
}

// Text for a terminal: every byte that is not printable ASCII shown as '?'.
inline std::string printable(std::string s) {
    for (char &c : s)
        if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) >= 0x7F) c = '?';
    return s;
}

} // namespace kt4::tools
