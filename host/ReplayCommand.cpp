#include "CommandLine.h"
#include "Commands.h"
#include "Privileges.h"
#include "FrameFilter.h"
#include "FrameReader.h"
#include "TimeStamps.h"

#include <cstdio>
#include <iostream>

namespace {

const char* const Help = R"(Usage: lyrcap replay [FILE] [EXPRESSION] [--seek MS] [-c N] [-r FILE] [-q]

Replays a capture file through the back-end and prints one line per frame:
time stamp, position in ms after the first packet, length, destination > source MAC
address, EtherType. A capture of bare IP packets comes out as Ethernet frames. Packets
that are not complete frames are refused with a message and skipped. Without FILE, the
shipped Ethernet sample is used; "-" is standard input, read whole first. Nanosecond and
pcapng captures are read too; time stamps are in microseconds. A file of another link type
is replayed as frames all the same, and said to be one; a damaged file is replayed up to the
damage, which is said (exit status 3).

Options:
  -r, --read FILE
                the file, as FILE is
  EXPRESSION    replay only the packets that this libpcap filter keeps, as tcpdump does
                ('tcp port 80 or icmp'); the words after FILE
  --seek MS     start MS milliseconds after the first packet. The back-end's seek stops at
                the first packet at or after that time and consumes it, so the replay
                begins with the packet behind it (with MS 0, at the first packet). MS must
                be below the file's duration.
  -c, --count N stop after N frames
  -q, --quiet   no progress on standard error (of the scan that --seek needs)
)";

const char* EtherTypeName(unsigned short type)
{
    switch (type) {
    case 0x0800: return "IPv4";
    case 0x0806: return "ARP";
    case 0x86DD: return "IPv6";
    case 0x8100: return "802.1Q";
    case 0x88CC: return "LLDP";
    default: return type < 0x0600 ? "802.3 length" : "";
    }
}

} // namespace

int RunReplay(const std::vector<std::string>& args)
{
    CommandLine line(args, {"--count", "--seek", "--read", "--quiet"});
    FrameRange range;
    if (!line.Ok() || !range.Parse(line, "--seek"))
        return UsageError("replay", line.Error());
    if (line.Has("--help")) {
        std::cout << Help;
        return ExitOk;
    }
    std::string path = line.Take("--read");
    const std::string expression = line.Rest();
    std::string error;
    if (!CheckFilter(expression, error))
        return UsageError("replay", "the filter expression '" + expression + "' does not compile (libpcap: " + error + ")");
    if (line.Has("--quiet"))
        BeQuiet();
    if (!BeginRun({}, "replay"))
        return ExitFailure;
    if (path.empty())
        path = SamplePath("ethernet.pcap");

    FrameReader reader;
    if (!reader.OpenRange(path, range, "replay", false))
        return ExitFailure;
    if (!reader.SetFilter(expression, error)) {
        std::fprintf(stderr, "lyrcap replay: the filter does not fit %s: %s\n", reader.Name().c_str(), error.c_str());
        return ExitFailure;
    }
    reader.SayIfNotFrames("replay");
    unsigned long long frames = 0, bytes = 0;
    while (frames < range.count && !Interrupted()) {
        const Lyr::EthFrame* frame = reader.Next();
        if (!frame)
            break;
        const unsigned short type = frame->GetLengthType();
        if (std::printf("%s %8llu ms %5u  %s > %s  0x%04x %s\n", FormatEpoch(frame->GetTimestamp()).c_str(),
                        reader.File().GetPosition(), frame->GetData().size, FormatMac(frame->GetDstAddress()).c_str(),
                        FormatMac(frame->GetSrcAddress()).c_str(), type, EtherTypeName(type)) < 0)
            break; // a reader that went away (replay | head), said below
        ++frames;
        bytes += frame->GetData().size;
    }
    const bool bWritten = StandardOutputWritten("replay");
    const bool bWhole = reader.EndedWhole("replay");
    std::fprintf(stderr, "%llu frames, %llu bytes, %llu refused%s\n", frames, bytes,
                 static_cast<unsigned long long>(reader.Refused()),
                 expression.empty() ? "" : (", " + std::to_string(reader.Filtered()) + " left out by the filter").c_str());
    if (!bWritten)
        return ExitFailure;
    if (Interrupted())
        return ExitInterrupted;
    return bWhole ? ExitOk : ExitDamaged;
}
