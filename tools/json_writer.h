// A small streaming JSON writer: objects and arrays nest, commas come by
// themselves, and strings are escaped (bytes that are not UTF-8 become U+FFFD).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace cli {

class JsonWriter {
public:
    JsonWriter& begin_object(const char* key = nullptr);
    JsonWriter& end_object();
    JsonWriter& begin_array(const char* key = nullptr);
    JsonWriter& end_array();
    JsonWriter& value(const char* key, const std::string& text);
    JsonWriter& value(const char* key, const char* text);
    JsonWriter& value(const char* key, long long number);
    JsonWriter& value(const char* key, double number);  // null when not finite
    JsonWriter& value(const char* key, bool flag);
    JsonWriter& null(const char* key);

    const std::string& text() const { return out_; }

private:
    void key_prefix(const char* key);

    std::string out_;
    std::vector<bool> first_;  // per open container: nothing written in it yet
};

std::string json_escape(const std::string& text);

}  // namespace cli
