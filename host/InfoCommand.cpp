#include "CommandLine.h"
#include "Commands.h"
#include "Privileges.h"
#include "FrameReader.h"
#include "TimeStamps.h"

#include <cstdio>
#include <iostream>

namespace {

const char* const Help = R"(Usage: lyrcap info [FILE]

Shows what a capture file holds: link type, packets, bytes, duration, first and last time.
The file is read once, frame by frame through the back-end; the duration is the time from
the file's first packet to its last, in whole milliseconds (0 where time goes backwards).
A long read shows its progress, and Ctrl-C stops it and reports what was read so far.
A file of another link type than Ethernet or bare IP is said to be one; a damaged file is
read up to the damage, which is said with its place and libpcap's reason (exit status 3).
Without FILE, the shipped Ethernet sample is used.
)";

} // namespace

int RunInfo(const std::vector<std::string>& args)
{
    CommandLine line(args, {}, {});
    if (!line.Ok())
        return UsageError("info", line.Error());
    if (line.Has("--help")) {
        std::cout << Help;
        return ExitOk;
    }
    if (line.Positional().size() > 1)
        return UsageError("info", "takes one file");
    if (!BeginRun({}, "info"))
        return ExitFailure;
    const std::string path = line.Positional().empty() ? SamplePath("ethernet.pcap") : line.Positional()[0];

    FrameReader reader;
    if (!reader.Open(path, false, true)) {
        std::cerr << "lyrcap info: cannot read " << path << "\n";
        return ExitFailure;
    }
    reader.SayIfNotFrames("info");
    unsigned long long packets = 0, bytes = 0, first = 0, last = 0;
    while (const Lyr::EthFrame* frame = reader.Next()) {
        if (packets == 0)
            first = frame->GetTimestamp();
        last = frame->GetTimestamp();
        ++packets;
        bytes += frame->GetData().size;
        if (Interrupted())
            break;
    }
    const bool bWhole = reader.EndedWhole("info");
    // From the file's first packet to its last: the first and last frames read, unless packets
    // were refused, when the host's walk over the records knows them.
    long long span = StampMeaning(last) - StampMeaning(first);
    if (reader.Refused() != 0 && bWhole && !Interrupted() && reader.Walk().bKnownFormat && reader.Walk().packets != 0)
        span = reader.Walk().lastUs - reader.Walk().firstUs;
    const unsigned long long duration = span > 0 ? static_cast<unsigned long long>(span) / 1000 : 0;
    std::printf("file:           %s\n", path.c_str());
    std::printf("link type:      %s\n", reader.LinkTypeText().c_str());
    std::printf("packets:        %llu%s\n", packets, Interrupted() ? " (stopped by Ctrl-C: the figures are partial)" : "");
    if (reader.Refused() != 0)
        std::printf("refused:        %llu (not complete frames)\n", static_cast<unsigned long long>(reader.Refused()));
    std::printf("bytes:          %llu (as frames)\n", bytes);
    std::printf("duration:       %llu ms%s\n", duration, Interrupted() ? " (so far)" : "");
    if (packets != 0) {
        std::printf("first packet:   %s (%s)\n", FormatUtc(first).c_str(), FormatEpoch(first).c_str());
        std::printf("last packet:    %s (%s)\n", FormatUtc(last).c_str(), FormatEpoch(last).c_str());
    }
    if (!StandardOutputWritten("info"))
        return ExitFailure;
    if (Interrupted())
        return ExitInterrupted;
    return bWhole ? ExitOk : ExitDamaged;
}
