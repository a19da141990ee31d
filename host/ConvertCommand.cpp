#include "CommandLine.h"
#include "Commands.h"
#include "FrameFilter.h"
#include "FrameReader.h"
#include "Json.h"
#include "Privileges.h"
#include "Recorder.h"
#include "TimeStamps.h"

#include <sys/stat.h>

#include <cstdio>
#include <iostream>

namespace {

const char* const Help = R"(Usage: lyrcap convert IN OUT [EXPRESSION] [--from MS] [-c N] [--json] [-q]
       lyrcap convert -r IN -w OUT [EXPRESSION] ...

Records every frame that the back-end reads from IN into a new capture file OUT, through
the back-end's own recording: an Ethernet capture (link type 1, snap length 9022) in the
classic microsecond format. A capture of bare IP packets ("RAW") comes out as Ethernet
frames, with group addresses for multicast destinations and EtherType IPv4; a capture of
frames comes out with the same packets, bytes and time stamps to the microsecond.
Nanosecond and pcapng captures are read too; how many stamps lost their nanoseconds is said.
Packets that are not complete frames are refused with a message and left out. A file of any
other link type is refused (exit status 1, nothing written): its packets are no Ethernet
frames. A damaged IN is converted up to the damage, which is said, and OUT keeps every whole
record before it (exit status 3). OUT is replaced if it exists; a name that ends in .pcapng
is refused, since OUT is no pcapng file.
IN "-" is standard input (read whole first); OUT "-" is standard output, where the frames go
out as they are converted, with everything else on standard error. A reader of OUT that goes
away ends the conversion as a full disk does (said, with the frames that reached it; exit 1).

Options:
  -r, --read IN the input, as IN is
  -w, --write OUT
                the output, as OUT is
  EXPRESSION    convert only the packets that this libpcap filter keeps, as tcpdump does
                ('tcp port 80 or icmp'); the words after IN and OUT
  --from MS     seek MS milliseconds after the first packet before recording. The seek
                consumes the packet that reaches the time, so the output begins with the
                packet behind it (with MS 0, at the first packet). MS must be below IN's
                duration.
  -c, --count N record at most N frames
  --json        the summary as one JSON object on standard output (fields: 'docs/host-tool.md')
  -q, --quiet   no progress on standard error
)";

bool SameFile(const std::string& a, const std::string& b)
{
    struct stat first{}, second{};
    return stat(a.c_str(), &first) == 0 && stat(b.c_str(), &second) == 0 && first.st_dev == second.st_dev &&
           first.st_ino == second.st_ino;
}

} // namespace

int RunConvert(const std::vector<std::string>& args)
{
    CommandLine line(args, {"--from", "--count", "--read", "--write", "--json", "--quiet"});
    FrameRange range;
    if (!line.Ok() || !range.Parse(line, "--from"))
        return UsageError("convert", line.Error());
    if (line.Has("--help")) {
        std::cout << Help;
        return ExitOk;
    }
    const std::string in = line.Take("--read");
    const std::string out = line.Take("--write");
    if (in.empty() || out.empty())
        return UsageError("convert", "takes an input and an output file");
    const std::string expression = line.Rest();
    std::string error;
    if (!CheckFilter(expression, error))
        return UsageError("convert", "the filter expression '" + expression + "' does not compile (libpcap: " + error + ")");
    // Recording truncates OUT before the first frame is read from IN.
    if (SameFile(in, out))
        return UsageError("convert", "the output would overwrite the input");
    if (!Recorder::RefuseName(out).empty())
        return UsageError("convert", Recorder::RefuseName(out));
    const bool bJson = line.Has("--json");
    if (bJson && Recorder::IsStandardOutput(out))
        return UsageError("convert", "--json prints on standard output, where OUT goes");
    if (line.Has("--quiet"))
        BeQuiet();
    if (!BeginRun({}, "convert"))
        return ExitFailure;

    FrameReader reader;
    if (!reader.OpenRange(in, range, "convert", true))
        return ExitFailure;
    if (!reader.HoldsFrames()) {
        std::fprintf(stderr,
                     "lyrcap convert: %s holds packets of link type %s, not Ethernet frames or bare IP packets: "
                     "written into a capture of Ethernet frames they would pass for what they are not; nothing "
                     "written\n",
                     reader.Name().c_str(), reader.LinkTypeText().c_str());
        return ExitFailure;
    }
    if (!reader.SetFilter(expression, error)) {
        std::fprintf(stderr, "lyrcap convert: the filter does not fit %s: %s\n", reader.Name().c_str(), error.c_str());
        return ExitFailure;
    }
    Recorder recording(out, {}, "convert");
    if (!recording.Open())
        return ExitFailure;
    unsigned long long frames = 0, changedStamps = 0, first = 0, last = 0;
    bool bWritten = true;
    while (frames < range.count && !Interrupted()) {
        const Lyr::EthFrame* frame = reader.Next();
        if (!frame)
            break;
        if (!recording.Write(*frame)) {
            bWritten = false;
            break;
        }
        last = frame->GetTimestamp();
        first = frames == 0 ? last : first;
        ++frames;
        changedStamps += !RecordingKeepsStamp(last);
    }
    bWritten = recording.Close() && bWritten; // the file is complete once closed
    if (!bWritten)
        return ExitFailure;
    const bool bWhole = reader.EndedWhole("convert");
    const std::uint64_t fine = reader.MayHoldFineStamps() ? reader.Walk().fineStamps : 0;
    if (fine != 0)
        std::fprintf(stderr,
                     "lyrcap convert: %llu frames read had time stamps finer than a microsecond: %s keeps them to the "
                     "microsecond, as the classic format that it is written in counts\n",
                     static_cast<unsigned long long>(fine), recording.Name().c_str());
    const long long span = StampMeaning(last) - StampMeaning(first);
    const unsigned long long duration = span > 0 ? static_cast<unsigned long long>(span) / 1000 : 0;
    if (changedStamps != 0)
        std::fprintf(stderr,
                     "lyrcap convert: warning: %llu frames have time stamps that the recording cannot keep (before "
                     "1970, or from 2038-01-19 03:14:08 UTC on); their stamps in %s differ\n",
                     changedStamps, recording.Name().c_str());
    std::fprintf(stderr, "%llu frames, %llu bytes, %llu ms, %llu refused%s%s\n", frames,
                 static_cast<unsigned long long>(recording.Bytes()), duration,
                 static_cast<unsigned long long>(reader.Refused()),
                 expression.empty() ? "" : (", " + std::to_string(reader.Filtered()) + " left out by the filter").c_str(),
                 Interrupted() ? " (stopped by Ctrl-C: the output holds the frames so far)"
                 : bWhole      ? ""
                               : " (the input is damaged: the output holds the frames before the damage)");
    if (bJson) {
        JsonObject summary;
        summary.Add("input", reader.Name()).Add("output", recording.Name());
        if (expression.empty())
            summary.AddNull("filter");
        else
            summary.Add("filter", expression);
        summary.Add("frames", std::uint64_t(frames))
            .Add("bytes", std::uint64_t(recording.Bytes()))
            .Add("duration_ms", std::uint64_t(duration))
            .Add("refused", std::uint64_t(reader.Refused()))
            .Add("filtered_out", std::uint64_t(reader.Filtered()))
            .Add("fine_stamps", std::uint64_t(fine))
            .Add("stamps_not_kept", std::uint64_t(changedStamps));
        reader.DescribeDamage(summary);
        summary.Add("interrupted", Interrupted());
        std::printf("%s\n", summary.Text().c_str());
        if (!StandardOutputWritten("convert"))
            return ExitFailure;
    }
    if (Interrupted())
        return ExitInterrupted;
    return bWhole ? ExitOk : ExitDamaged;
}
