#pragma once

#include <cstdint>
#include <string>
#include <vector>

// One JSON object on one line, for scripts: figures as numbers in fixed units, names as strings.
class JsonObject {
public:
    JsonObject& Add(const char* key, const std::string& text);
    JsonObject& Add(const char* key, const char* text) { return Add(key, std::string(text)); }
    JsonObject& Add(const char* key, std::uint64_t number);
    JsonObject& Add(const char* key, std::int64_t number);
    JsonObject& Add(const char* key, unsigned number) { return Add(key, std::uint64_t(number)); }
    JsonObject& Add(const char* key, double number);
    JsonObject& Add(const char* key, bool bValue);
    JsonObject& Add(const char* key, const JsonObject& object);
    JsonObject& Add(const char* key, const std::vector<std::string>& texts);
    JsonObject& AddNull(const char* key);

    std::string Text() const { return "{" + fields + "}"; }

private:
    JsonObject& Raw(const char* key, const std::string& value);
    std::string fields;
};

// `text` as a JSON string, quotes included. Bytes that are no UTF-8 become U+FFFD: a file name
// may hold any bytes, and JSON holds only Unicode.
std::string JsonString(const std::string& text);
