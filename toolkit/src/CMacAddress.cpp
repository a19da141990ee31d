#include <kt/CMacAddress.h>

#include <cstdio>

namespace Kt {

CMacAddress::~CMacAddress() = default;

std::string CMacAddress::ToString() const
{
    char text[18];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", unsigned(address >> 40) & 0xFF,
                  unsigned(address >> 32) & 0xFF, unsigned(address >> 24) & 0xFF, unsigned(address >> 16) & 0xFF,
                  unsigned(address >> 8) & 0xFF, unsigned(address) & 0xFF);
    return text;
}

bool CMacAddress::Parse(const std::string& text, CMacAddress& result)
{
    unsigned int b[6];
    char tail;
    if (std::sscanf(text.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x%c", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5], &tail) != 6)
        return false;
    unsigned long long value = 0;
    for (unsigned int byte : b)
        value = (value << 8) | byte;
    result = CMacAddress(value);
    return true;
}

} // namespace Kt
