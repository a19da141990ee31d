#include "CommandLine.h"
#include "Commands.h"
#include "Privileges.h"
#include "FrameReader.h"
#include "TimeStamps.h"

#include <pcap/pcap.h>

#include <cstdio>
#include <iostream>

namespace {

const char* const Help = R"(Usage: lyrcap info [FILE]

Shows what a capture file holds: link type, packets, bytes, duration, first and last time.
The file is read once, frame by frame through the back-end; the duration is the time from
the first packet to the last, in whole milliseconds, as the back-end's scan gives it (the
scan itself runs as a second pass only where packets were refused or time went backwards).
A long read shows its progress, and Ctrl-C stops it and reports what was read so far.
Without FILE, the shipped Ethernet sample is used.
)";

// The back-end does not expose the link type; libpcap tells it from the file header.
std::string LinkTypeOf(const std::string& path)
{
    char errbuf[PCAP_ERRBUF_SIZE];
    pcap_t* handle = pcap_open_offline(path.c_str(), errbuf);
    if (!handle)
        return "unknown";
    const int type = pcap_datalink(handle);
    pcap_close(handle);
    const char* name = pcap_datalink_val_to_name(type);
    const char* description = pcap_datalink_val_to_description(type);
    return std::string(name ? name : "?") + " (" + (description ? description : "?") + ", " +
           std::to_string(type) + ")";
}

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
    // The back-end's duration spans the file's first and last packets, which are the first and
    // last frames read unless one of them was refused; the stamps are microseconds in two's
    // complement, so a span that goes backwards is negative as a signed number.
    const long long span = static_cast<long long>(last - first);
    unsigned long long duration = span > 0 ? static_cast<unsigned long long>(span) / 1000 : 0;
    if (!Interrupted() && (reader.Refused() != 0 || span < 0)) {
        FrameReader scan;
        if (scan.Open(path, true, false))
            duration = scan.File().GetDuration();
    }
    std::printf("file:           %s\n", path.c_str());
    std::printf("link type:      %s\n", LinkTypeOf(path).c_str());
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
    return Interrupted() ? ExitInterrupted : ExitOk;
}
