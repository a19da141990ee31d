#pragma once

#include <cstdint>
#include <string>
#include <vector>

// The words of one command, read by the C library's getopt_long as the tools of the field read
// theirs: long options ("--count 5", "--count=5"), short ones ("-c 5", "-c5", bundled as "-qc5"),
// and positional words, in any order; "--" ends the options. Every option has one long name, by
// which the command asks for it, and the short letter that the tool gives it everywhere (-c for
// --count, -w for --write, ...). A bad or unknown option is a usage error.
class CommandLine {
public:
    // `options`: the long names that the command takes ("--count"); --help (-h) always.
    CommandLine(const std::vector<std::string>& words, std::vector<std::string> options);

    bool Ok() const { return error.empty(); }
    const std::string& Error() const { return error; }

    bool Has(const std::string& option) const;
    // The last value given, or `fallback`.
    std::string Value(const std::string& option, const std::string& fallback = "") const;
    // Every value given, in order.
    std::vector<std::string> Values(const std::string& option) const;
    // A whole number in [min, max], in decimal digits and nothing else; false (with Error() set)
    // when the text is not one.
    bool Number(const std::string& option, std::uint64_t min, std::uint64_t max, std::uint64_t& result);
    // Likewise, with one decimal point allowed.
    bool Decimal(const std::string& option, double min, double max, double& result);

    const std::vector<std::string>& Positional() const { return positional; }
    // The value of `option` where it was given, else the next positional word not yet taken
    // (so that "-r FILE" and "FILE" mean the same); "" when there is neither.
    std::string Take(const std::string& option);
    // The next positional word not yet taken, or "".
    std::string TakeNext() { return taken < positional.size() ? positional[taken++] : ""; }
    std::size_t Taken() const { return taken; }
    // The positional words not taken, joined by blanks: a filter expression, as tcpdump takes it.
    std::string Rest() const;

    // The short letter of an option of the tool, or 0.
    static char LetterOf(const std::string& option);

private:
    std::vector<std::pair<std::string, std::string>> values;
    std::vector<std::string> positional;
    std::size_t taken = 0;
    std::string error;
};
