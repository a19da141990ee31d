#include <kt/CIpAddress.h>

#include <cstdio>

namespace Kt {

const CIpAddress CIpAddress::MinIpAddress;

CIpAddress::~CIpAddress() = default;

std::string CIpAddress::GetIp(bool padded) const
{
    char text[16];
    std::snprintf(text, sizeof text, padded ? "%03u.%03u.%03u.%03u" : "%u.%u.%u.%u", (address >> 24) & 0xFF,
                  (address >> 16) & 0xFF, (address >> 8) & 0xFF, address & 0xFF);
    return text;
}

bool CIpAddress::Parse(const std::string& text, CIpAddress& result)
{
    std::uint32_t value = 0;
    std::size_t pos = 0;
    for (int part = 0; part < 4; ++part) {
        if (part > 0) {
            if (pos >= text.size() || text[pos] != '.')
                return false;
            ++pos;
        }
        std::size_t digits = 0;
        unsigned int octet = 0;
        while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9' && digits < 3) {
            octet = octet * 10 + static_cast<unsigned int>(text[pos] - '0');
            ++pos;
            ++digits;
        }
        if (digits == 0 || octet > 255)
            return false;
        value = (value << 8) | octet;
    }
    if (pos != text.size())
        return false;
    result = CIpAddress(value);
    return true;
}

} // namespace Kt
