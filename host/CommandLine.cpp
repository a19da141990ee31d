#include "CommandLine.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace {

bool Contains(const std::vector<std::string>& list, const std::string& word)
{
    return std::find(list.begin(), list.end(), word) != list.end();
}

// Digits, and at most `points` decimal points, and at least one digit: strtoull and strtod take
// far more (blanks, signs, hexadecimal, exponents, "inf"), none of which a user means.
bool IsPlainNumber(const std::string& text, int points)
{
    bool bDigit = false;
    for (char c : text) {
        if (c == '.' && points-- > 0)
            continue;
        if (c < '0' || c > '9')
            return false;
        bDigit = true;
    }
    return bDigit;
}

} // namespace

CommandLine::CommandLine(std::vector<std::string> words, std::vector<std::string> valueOptions,
                         std::vector<std::string> flagOptions, const std::vector<Alias>& aliases)
{
    flagOptions.push_back("--help");
    for (std::size_t i = 0; i < words.size() && error.empty(); ++i) {
        std::string word = words[i];
        if (word.size() < 2 || word[0] != '-' || word == "--") {
            positional.push_back(word);
            continue;
        }
        if (word == "-h")
            word = "--help";
        for (const Alias& alias : aliases)
            if (word == alias.first)
                word = alias.second;
        std::string inlineValue;
        bool bInline = false;
        std::size_t equals = word.find('=');
        if (word.rfind("--", 0) == 0 && equals != std::string::npos) {
            inlineValue = word.substr(equals + 1);
            word = word.substr(0, equals);
            bInline = true;
        }
        if (Contains(flagOptions, word) && !bInline) {
            values.emplace_back(word, "");
        } else if (Contains(valueOptions, word)) {
            if (bInline) {
                values.emplace_back(word, inlineValue);
            } else if (i + 1 < words.size()) {
                values.emplace_back(word, words[++i]);
            } else {
                error = "option " + word + " needs a value";
            }
        } else {
            error = "unknown option " + word;
        }
    }
}

bool CommandLine::Has(const std::string& option) const
{
    return std::any_of(values.begin(), values.end(), [&](const auto& entry) { return entry.first == option; });
}

std::string CommandLine::Value(const std::string& option, const std::string& fallback) const
{
    for (auto entry = values.rbegin(); entry != values.rend(); ++entry)
        if (entry->first == option)
            return entry->second;
    return fallback;
}

bool CommandLine::Number(const std::string& option, std::uint64_t min, std::uint64_t max, std::uint64_t& result)
{
    if (!Has(option))
        return true;
    const std::string text = Value(option);
    char* end = nullptr;
    errno = 0;
    unsigned long long value = std::strtoull(text.c_str(), &end, 10);
    if (!IsPlainNumber(text, 0) || *end != '\0' || errno == ERANGE || value < min || value > max) {
        error = option + " takes a whole number from " + std::to_string(min) + " to " + std::to_string(max) +
                ", not '" + text + "'";
        return false;
    }
    result = value;
    return true;
}

bool CommandLine::Decimal(const std::string& option, double min, double max, double& result)
{
    if (!Has(option))
        return true;
    const std::string text = Value(option);
    char* end = nullptr;
    double value = std::strtod(text.c_str(), &end);
    if (!IsPlainNumber(text, 1) || *end != '\0' || !(value >= min && value <= max)) {
        error = option + " takes a number from " + std::to_string(min) + " to " + std::to_string(max) + ", not '" +
                text + "'";
        return false;
    }
    result = value;
    return true;
}
