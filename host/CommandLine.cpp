#include "CommandLine.h"

#include <getopt.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace {

struct Option {
    const char* name;
    char letter; // 0: none
    bool bValue;
};

// Every option of the tool. The letters are those that tcpdump and dumpcap users type for the
// same things (-c, -w, -r, -i, -q, -Z; -C, -W and -G for rings of files).
constexpr Option AllOptions[] = {
    {"--help", 'h', false},         {"--count", 'c', true},     {"--write", 'w', true},
    {"--read", 'r', true},          {"--interface", 'i', true}, {"--quiet", 'q', false},
    {"--user", 'Z', true},          {"--file-size", 'C', true}, {"--files", 'W', true},
    {"--file-seconds", 'G', true},  {"--json", 0, false},       {"--seek", 0, true},
    {"--from", 0, true},            {"--host", 0, true},        {"--port", 0, true},
    {"--seconds", 0, true},         {"--priority", 0, true},    {"--speed", 0, true},
    {"--topspeed", 0, false},       {"--loop", 0, true},        {"--timeout", 0, true},
    {"--sndbuf", 0, true},          {"--spin", 0, false},
};

const Option* Find(const std::string& name)
{
    for (const Option& option : AllOptions)
        if (name == option.name)
            return &option;
    return nullptr;
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

// Options without a letter answer getopt_long with a code above every character.
constexpr int FirstCode = 256;

} // namespace

char CommandLine::LetterOf(const std::string& option)
{
    const Option* found = Find(option);
    return found ? found->letter : 0;
}

CommandLine::CommandLine(const std::vector<std::string>& words, std::vector<std::string> options)
{
    options.insert(options.begin(), "--help");
    // ":" reports a missing value apart from an unknown option; "-" hands positional words over
    // in their place, so that options may follow them whatever POSIXLY_CORRECT says.
    std::string letters = "-:";
    std::vector<option> table;
    std::vector<const Option*> known;
    for (const std::string& name : options) {
        const Option* entry = Find(name);
        if (!entry)
            continue;
        const int code = entry->letter ? entry->letter : FirstCode + static_cast<int>(known.size());
        table.push_back({entry->name + 2, entry->bValue ? required_argument : no_argument, nullptr, code});
        known.push_back(entry);
        if (entry->letter)
            letters += std::string(1, entry->letter) + (entry->bValue ? ":" : "");
    }
    table.push_back({nullptr, 0, nullptr, 0});
    auto byCode = [&](int code) -> const Option* {
        for (std::size_t i = 0; i < known.size(); ++i)
            if ((known[i]->letter ? known[i]->letter : FirstCode + static_cast<int>(i)) == code)
                return known[i];
        return nullptr;
    };

    std::vector<std::string> argumentWords{"lyrcap"};
    argumentWords.insert(argumentWords.end(), words.begin(), words.end());
    std::vector<char*> argv;
    for (std::string& word : argumentWords)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    const int argc = static_cast<int>(argumentWords.size());
    opterr = 0;
    optind = 0; // a fresh start: getopt keeps its place between calls
    int code;
    while (error.empty() && (code = getopt_long(argc, argv.data(), letters.c_str(), table.data(), nullptr)) != -1) {
        const char* word = argv[optind - 1];
        if (code == 1) {
            positional.emplace_back(optarg);
        } else if (const Option* entry = code == '?' || code == ':' ? nullptr : byCode(code)) {
            values.emplace_back(entry->name, entry->bValue ? optarg : "");
        } else if (code == ':') {
            const Option* missing = byCode(optopt);
            error = "option " + std::string(missing ? missing->name : word) + " needs a value";
        } else if (optopt != 0 && byCode(optopt)) {
            error = "option " + std::string(byCode(optopt)->name) + " takes no value";
        } else if (optopt != 0) {
            error = "unknown option -" + std::string(1, static_cast<char>(optopt));
        } else {
            error = "unknown option " + std::string(word);
        }
    }
    for (int i = optind; error.empty() && i < argc; ++i)
        positional.emplace_back(argv[i]); // after "--"
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

std::vector<std::string> CommandLine::Values(const std::string& option) const
{
    std::vector<std::string> found;
    for (const auto& entry : values)
        if (entry.first == option)
            found.push_back(entry.second);
    return found;
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

std::string CommandLine::Take(const std::string& option)
{
    return Has(option) ? Value(option) : TakeNext();
}

std::string CommandLine::Rest() const
{
    std::string rest;
    for (std::size_t i = taken; i < positional.size(); ++i)
        rest += (rest.empty() ? "" : " ") + positional[i];
    return rest;
}
