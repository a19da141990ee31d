#pragma once

#include <cstdint>
#include <string>
#include <vector>

// The words of one command: options ("--count 5", "--count=5", "-w out.pcap", "--help") and
// positional arguments, in any order. A bad or unknown option is a usage error. An alias
// ({"-Z", "--user"}) stands for the option it names.
class CommandLine {
public:
    using Alias = std::pair<std::string, std::string>;
    CommandLine(std::vector<std::string> words, std::vector<std::string> valueOptions,
                std::vector<std::string> flagOptions, const std::vector<Alias>& aliases = {});

    bool Ok() const { return error.empty(); }
    const std::string& Error() const { return error; }

    bool Has(const std::string& option) const;
    std::string Value(const std::string& option, const std::string& fallback = "") const;
    // A whole number in [min, max], in decimal digits and nothing else; false (with Error() set)
    // when the text is not one.
    bool Number(const std::string& option, std::uint64_t min, std::uint64_t max, std::uint64_t& result);
    // Likewise, with one decimal point allowed.
    bool Decimal(const std::string& option, double min, double max, double& result);
    const std::vector<std::string>& Positional() const { return positional; }

private:
    std::vector<std::pair<std::string, std::string>> values;
    std::vector<std::string> positional;
    std::string error;
};
