#include "CommandLine.h"
#include "Commands.h"
#include "FrameFilter.h"
#include "FrameReader.h"
#include "Json.h"
#include "Privileges.h"
#include "TimeStamps.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <iostream>

namespace {

const char* const Help = R"(Usage: lyrcap info [FILE...] [EXPRESSION] [-r FILE]... [--json] [-q]

Shows what capture files hold: link type, packets, bytes, duration, first and last time.
Each file is read once, frame by frame through the back-end; the duration is the time from
the file's first packet to its last, in whole milliseconds (0 where time goes backwards).
A long read shows its progress, and Ctrl-C stops it and reports what was read so far.
A file of another link type than Ethernet or bare IP is said to be one; a damaged file is
read up to the damage, which is said with its place and libpcap's reason (exit status 3).
FILE "-" is standard input (a pipe, or a file), read whole before it is shown. Without a
FILE, the shipped Ethernet sample is used.

Options:
  -r, --read FILE
                a file to show, as FILE is (may be given more than once)
  EXPRESSION    count only the packets that this libpcap filter keeps, as tcpdump does
                ('tcp port 80 or icmp'); the words after the files, from the first that
                names no file
  --json        one JSON object per file on standard output, one a line, instead of the
                text; the fields are listed in 'docs/host-tool.md'
  -q, --quiet   no progress on standard error
)";

struct Figures {
    unsigned long long packets = 0, bytes = 0, first = 0, last = 0, durationMs = 0;
};

void PrintText(const FrameReader& reader, const Figures& figures, const std::string& expression)
{
    std::printf("file:           %s\n", reader.Name().c_str());
    std::printf("link type:      %s\n", reader.LinkTypeText().c_str());
    if (!expression.empty())
        std::printf("filter:         %s (%llu frames kept, %llu left out)\n", expression.c_str(), figures.packets,
                    static_cast<unsigned long long>(reader.Filtered()));
    std::printf("packets:        %llu%s\n", figures.packets,
                Interrupted() ? " (stopped by Ctrl-C: the figures are partial)" : "");
    if (reader.Refused() != 0)
        std::printf("refused:        %llu (not complete frames)\n", static_cast<unsigned long long>(reader.Refused()));
    std::printf("bytes:          %llu (as frames)\n", figures.bytes);
    std::printf("duration:       %llu ms%s\n", figures.durationMs, Interrupted() ? " (so far)" : "");
    if (figures.packets != 0) {
        std::printf("first packet:   %s (%s)\n", FormatUtc(figures.first).c_str(), FormatEpoch(figures.first).c_str());
        std::printf("last packet:    %s (%s)\n", FormatUtc(figures.last).c_str(), FormatEpoch(figures.last).c_str());
    }
}

void PrintJson(const FrameReader& reader, const Figures& figures, const std::string& expression)
{
    JsonObject object;
    object.Add("file", reader.Name()).Add("link_type", reader.LinkTypeName()).Add("link_type_number",
                                                                                  std::int64_t(reader.LinkType()));
    if (expression.empty())
        object.AddNull("filter");
    else
        object.Add("filter", expression);
    object.Add("packets", std::uint64_t(figures.packets))
        .Add("filtered_out", std::uint64_t(reader.Filtered()))
        .Add("refused", std::uint64_t(reader.Refused()))
        .Add("bytes", std::uint64_t(figures.bytes))
        .Add("duration_ms", std::uint64_t(figures.durationMs));
    if (figures.packets != 0)
        object.Add("first_us", std::int64_t(StampMeaning(figures.first))).Add("last_us", std::int64_t(StampMeaning(figures.last)));
    else
        object.AddNull("first_us").AddNull("last_us");
    reader.DescribeDamage(object);
    object.Add("interrupted", Interrupted());
    std::printf("%s\n", object.Text().c_str());
}

// Reads one file and prints what it holds; its exit status.
int ShowFile(const std::string& name, const std::string& expression, bool bJson)
{
    FrameReader reader;
    if (!reader.Open(name, "info", false, true))
        return ExitFailure;
    std::string error;
    if (!reader.SetFilter(expression, error)) {
        std::fprintf(stderr, "lyrcap info: the filter does not fit %s: %s\n", reader.Name().c_str(), error.c_str());
        return ExitFailure;
    }
    reader.SayIfNotFrames("info");
    Figures figures;
    while (const Lyr::EthFrame* frame = reader.Next()) {
        if (figures.packets == 0)
            figures.first = frame->GetTimestamp();
        figures.last = frame->GetTimestamp();
        ++figures.packets;
        figures.bytes += frame->GetData().size;
        if (Interrupted())
            break;
    }
    const bool bWhole = reader.EndedWhole("info");
    // From the file's first packet to its last: the first and last frames read, unless packets
    // were refused, when the host's walk over the records knows them (and not for a filter,
    // which spans the frames that it keeps).
    long long span = StampMeaning(figures.last) - StampMeaning(figures.first);
    if (expression.empty() && reader.Refused() != 0 && bWhole && !Interrupted() && reader.Walk().bKnownFormat &&
        reader.Walk().packets != 0)
        span = reader.Walk().lastUs - reader.Walk().firstUs;
    figures.durationMs = span > 0 ? static_cast<unsigned long long>(span) / 1000 : 0;
    if (bJson)
        PrintJson(reader, figures, expression);
    else
        PrintText(reader, figures, expression);
    return bWhole ? ExitOk : ExitDamaged;
}

bool NamesFile(const std::string& word)
{
    struct stat info{};
    return word == "-" || stat(word.c_str(), &info) == 0;
}

} // namespace

int RunInfo(const std::vector<std::string>& args)
{
    CommandLine line(args, {"--read", "--json", "--quiet"});
    if (!line.Ok())
        return UsageError("info", line.Error());
    if (line.Has("--help")) {
        std::cout << Help;
        return ExitOk;
    }
    // Files, then the filter expression from the first word that names no file.
    std::vector<std::string> files = line.Values("--read");
    while (line.Taken() < line.Positional().size() && NamesFile(line.Positional()[line.Taken()]))
        files.push_back(line.TakeNext());
    const std::string expression = line.Rest();
    std::string error;
    if (!CheckFilter(expression, error))
        return UsageError("info", (files.empty() ? "'" + expression + "' names no file, and is no filter expression either"
                                                 : "the filter expression '" + expression + "' does not compile") +
                                      " (libpcap: " + error + ")");
    if (std::count(files.begin(), files.end(), "-") > 1)
        return UsageError("info", "standard input can be read once");
    if (line.Has("--quiet"))
        BeQuiet();
    if (!BeginRun({}, "info"))
        return ExitFailure;
    if (files.empty())
        files.push_back(SamplePath("ethernet.pcap"));

    int status = ExitOk;
    for (std::size_t i = 0; i < files.size() && !Interrupted(); ++i) {
        if (i != 0 && !line.Has("--json"))
            std::printf("\n");
        const int shown = ShowFile(files[i], expression, line.Has("--json"));
        // A file that could not be read counts above one that was damaged.
        if (shown == ExitFailure || (shown == ExitDamaged && status == ExitOk))
            status = shown;
    }
    if (!StandardOutputWritten("info"))
        return ExitFailure;
    return Interrupted() ? ExitInterrupted : status;
}
