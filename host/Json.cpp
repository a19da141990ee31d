#include "Json.h"

#include <cmath>
#include <cstdio>

namespace {

// The length of the UTF-8 sequence that starts at `at`, or 0 where none does.
std::size_t SequenceLength(const std::string& text, std::size_t at)
{
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(at);
    const std::size_t length = lead < 0x80 ? 1 : (lead >> 5) == 0x6 ? 2 : (lead >> 4) == 0xE ? 3 : (lead >> 3) == 0x1E ? 4 : 0;
    if (length == 0 || at + length > text.size())
        return 0;
    for (std::size_t i = 1; i < length; ++i)
        if ((byte(at + i) & 0xC0) != 0x80)
            return 0;
    return length;
}

} // namespace

std::string JsonString(const std::string& text)
{
    std::string quoted = "\"";
    for (std::size_t at = 0; at < text.size();) {
        const unsigned char c = static_cast<unsigned char>(text[at]);
        const std::size_t length = SequenceLength(text, at);
        if (length == 0) {
            quoted += "\\ufffd";
            ++at;
        } else if (c == '"' || c == '\\') {
            quoted += std::string("\\") + static_cast<char>(c);
            ++at;
        } else if (c < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
            quoted += escaped;
            ++at;
        } else {
            quoted.append(text, at, length);
            at += length;
        }
    }
    return quoted + "\"";
}

JsonObject& JsonObject::Raw(const char* key, const std::string& value)
{
    fields += (fields.empty() ? "" : ",") + JsonString(key) + ":" + value;
    return *this;
}

JsonObject& JsonObject::Add(const char* key, const std::string& text)
{
    return Raw(key, JsonString(text));
}

JsonObject& JsonObject::Add(const char* key, std::uint64_t number)
{
    return Raw(key, std::to_string(number));
}

JsonObject& JsonObject::Add(const char* key, std::int64_t number)
{
    return Raw(key, std::to_string(number));
}

JsonObject& JsonObject::Add(const char* key, double number)
{
    if (!std::isfinite(number))
        return AddNull(key);
    char text[64];
    std::snprintf(text, sizeof text, "%.6f", number);
    return Raw(key, text);
}

JsonObject& JsonObject::Add(const char* key, bool bValue)
{
    return Raw(key, bValue ? "true" : "false");
}

JsonObject& JsonObject::Add(const char* key, const JsonObject& object)
{
    return Raw(key, object.Text());
}

JsonObject& JsonObject::Add(const char* key, const std::vector<std::string>& texts)
{
    std::string list;
    for (const std::string& text : texts)
        list += (list.empty() ? "" : ",") + JsonString(text);
    return Raw(key, "[" + list + "]");
}

JsonObject& JsonObject::AddNull(const char* key)
{
    return Raw(key, "null");
}
