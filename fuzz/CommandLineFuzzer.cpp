// Feeds arbitrary words to the host tool's command line. Besides crashing, the one way it can
// fail is a number taken for what its text does not say: an accepted number is decimal digits
// (with at most one point where fractions are allowed) within its bounds, and means exactly
// those digits; every other text is refused.
#include "CommandLine.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

bool Digits(const std::string& text, bool bPoint)
{
    bool bDigit = false;
    for (char c : text) {
        if (c == '.' && bPoint) {
            bPoint = false;
            continue;
        }
        if (c < '0' || c > '9')
            return false;
        bDigit = true;
    }
    return bDigit;
}

// The value of a text of digits, or max + 1 once it exceeds max (which stays below 2^63).
std::uint64_t Value(const std::string& text, std::uint64_t max)
{
    std::uint64_t value = 0;
    for (char c : text) {
        value = value * 10 + static_cast<std::uint64_t>(c - '0');
        if (value > max)
            return max + 1;
    }
    return value;
}

void Require(bool bHolds)
{
    if (!bHolds)
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // Words are separated by NUL bytes, as the kernel hands them over.
    std::vector<std::string> words(1);
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == 0)
            words.emplace_back();
        else
            words.back() += static_cast<char>(data[i]);
    }
    CommandLine line(words, {"--count", "--speed", "--user", "--write", "--spin"});
    if (!line.Ok())
        return 0;
    constexpr std::uint64_t Min = 1, Max = 1000000;
    std::uint64_t count = 0;
    const std::string countText = line.Value("--count");
    const bool bCount = line.Number("--count", Min, Max, count);
    if (line.Has("--count")) {
        const std::uint64_t meant = Digits(countText, false) ? Value(countText, Max) : 0;
        Require(bCount == (Digits(countText, false) && meant >= Min && meant <= Max));
        Require(!bCount || count == meant);
    } else {
        Require(bCount && count == 0);
    }
    double speed = 0;
    const std::string speedText = line.Value("--speed");
    const bool bSpeed = line.Decimal("--speed", 0.001, 1000, speed);
    if (line.Has("--speed") && bSpeed)
    {
        // The whole part, give or take the rounding of the fraction to the nearest double.
        const std::uint64_t whole = Value(speedText.substr(0, speedText.find('.')), 1000);
        const auto taken = static_cast<std::uint64_t>(speed);
        Require(Digits(speedText, true) && speed >= 0.001 && speed <= 1000 && (taken == whole || taken == whole + 1));
    }
    if (line.Has("--speed") && !Digits(speedText, true))
        Require(!bSpeed);
    return 0;
}
