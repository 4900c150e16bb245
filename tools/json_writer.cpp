#include "json_writer.h"

#include <cmath>
#include <cstdio>

namespace cli {

namespace {

// Length of the valid UTF-8 sequence at s[i], or 0.
size_t utf8_length(const std::string& s, size_t i) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    size_t len = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xE ? 3 : (c >> 3) == 0x1E ? 4 : 0;
    if (len == 0 || (len > 1 && c < 0xC2) || i + len > s.size()) return 0;
    for (size_t k = 1; k < len; ++k)
        if ((static_cast<unsigned char>(s[i + k]) & 0xC0) != 0x80) return 0;
    return len;
}

}  // namespace

std::string json_escape(const std::string& text) {
    std::string out = "\"";
    for (size_t i = 0; i < text.size();) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        const size_t len = utf8_length(text, i);
        if (len == 0) {
            out += "\\ufffd";
            ++i;
            continue;
        }
        if (len > 1) {
            out.append(text, i, len);
        } else if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c < 0x20) {
            char code[8];
            std::snprintf(code, sizeof code, "\\u%04x", c);
            out += code;
        } else {
            out += static_cast<char>(c);
        }
        i += len;
    }
    return out + "\"";
}

void JsonWriter::key_prefix(const char* key) {
    if (!first_.empty()) {
        if (!first_.back()) out_ += ',';
        first_.back() = false;
    }
    if (key) out_ += json_escape(key) + ':';
}

JsonWriter& JsonWriter::begin_object(const char* key) {
    key_prefix(key);
    out_ += '{';
    first_.push_back(true);
    return *this;
}

JsonWriter& JsonWriter::end_object() {
    out_ += '}';
    if (!first_.empty()) first_.pop_back();
    return *this;
}

JsonWriter& JsonWriter::begin_array(const char* key) {
    key_prefix(key);
    out_ += '[';
    first_.push_back(true);
    return *this;
}

JsonWriter& JsonWriter::end_array() {
    out_ += ']';
    if (!first_.empty()) first_.pop_back();
    return *this;
}

JsonWriter& JsonWriter::value(const char* key, const std::string& text) {
    key_prefix(key);
    out_ += json_escape(text);
    return *this;
}

JsonWriter& JsonWriter::value(const char* key, const char* text) {
    return text ? value(key, std::string(text)) : null(key);
}

JsonWriter& JsonWriter::value(const char* key, long long number) {
    key_prefix(key);
    out_ += std::to_string(number);
    return *this;
}

JsonWriter& JsonWriter::value(const char* key, double number) {
    if (!std::isfinite(number)) return null(key);
    key_prefix(key);
    char text[40];
    std::snprintf(text, sizeof text, "%.15g", number);
    out_ += text;
    return *this;
}

JsonWriter& JsonWriter::value(const char* key, bool flag) {
    key_prefix(key);
    out_ += flag ? "true" : "false";
    return *this;
}

JsonWriter& JsonWriter::null(const char* key) {
    key_prefix(key);
    out_ += "null";
    return *this;
}

}  // namespace cli
