#pragma once

#include "CommandLine.h"
#include "Host.h"

#include <lyr/BufferPool.h>
#include <lyr/EthFrame.h>
#include <lyr/NetFile.h>

#include "FrameFilter.h"
#include "InputFile.h"
#include "Json.h"
#include "RecordWalk.h"

#include <atomic>
#include <cstdint>
#include <future>
#include <memory>
#include <string>

// The part of a file that a command takes: from a seek target (an option in milliseconds, such
// as --seek or --from) and at most --count frames.
struct FrameRange {
    bool bSeek = false;
    std::uint64_t startMs = 0;
    std::uint64_t count = UINT64_MAX;

    // Reads both options; false, with the line's error set, when one is not a fitting number.
    bool Parse(CommandLine& line, const std::string& seekOption);
};

class ProgressMonitor;

// Reads a capture file frame by frame through the plug-in's capture-file back-end, into one
// reused buffer with room for the largest frame and an Ethernet header in front.
class FrameReader {
public:
    FrameReader();
    ~FrameReader();

    // Opens the file `name` ("-": standard input; a stream is held in a private file first,
    // InputFile.h). With `bScan`, the back-end scans the whole file for its duration first (an
    // extra pass, which only File().GetDuration() needs): its progress goes to a terminal on
    // standard error, and Ctrl-C stops it early (Interrupted() then tells). With `bShowReading`,
    // the progress of reading goes to a terminal on standard error until the end of the file.
    // Failures are told in the name of `command`.
    bool Open(const std::string& name, const char* command, bool bScan, bool bShowReading);

    // Opens `name`, scanning it only when the range has a start, and then seeks to that start:
    // when the file lasts longer than that, since the back-end only prints when it refuses. The
    // packet that reaches the time is consumed by the seek.
    bool OpenRange(const std::string& name, const FrameRange& range, const char* command, bool bShowReading);

    // Keeps only the frames that the filter expression keeps, as tcpdump would on this file
    // (FrameFilter.h); false, with libpcap's reason, when it does not compile for its link type.
    bool SetFilter(const std::string& expression, std::string& error);

    // The next frame that the filter keeps, skipping packets that the back-end refuses; null at
    // the end of the file, or where libpcap could read no further (EndedWhole tells which).
    const Lyr::EthFrame* Next();

    // Once Next has given null: whether the file ended where its records end. Where libpcap
    // stopped at damage instead, says where and why, and how many frames came before, in the
    // name of `command`, and gives false. Checked at the first end only: a later pass over the
    // same file (send --loop) meets the same damage and says nothing more.
    bool EndedWhole(const char* command);
    // What EndedWhole found, or null.
    const Damage* FoundDamage() const { return bDamaged ? &damage : nullptr; }
    // Frames read before the damage, or before the end.
    std::uint64_t FramesRead() const { return framesPassed; }
    // The damage as the field "damage" of a JSON summary: null, or where, why and after what.
    void DescribeDamage(JsonObject& summary) const;
    // The file's records as the host walked them (RecordWalk.h), counting fine stamps among
    // those the back-end has passed so far; walked once, when first asked or at the end.
    const RecordWalk& Walk();
    // Whether the file's stamps may be finer than microseconds (nanosecond or pcapng files).
    bool MayHoldFineStamps() const;

    // Whether the file holds Ethernet frames, or bare IP packets that the back-end makes into
    // frames: other link types it reads as frames all the same.
    bool HoldsFrames() const;
    // Says so, in the name of `command`, when the file does not hold frames.
    void SayIfNotFrames(const char* command) const;
    // "EN10MB (Ethernet, 1)", as libpcap names the file's link type.
    std::string LinkTypeText() const;
    // "EN10MB", and its number; "" and -1 where libpcap cannot tell.
    std::string LinkTypeName() const;
    int LinkType() const { return linkType; }
    // The file as named to people ("standard input" for "-").
    const std::string& Name() const { return input.Name(); }
    // The frames that the filter left out.
    std::uint64_t Filtered() const { return filtered; }

    Lyr::NetFile& File() { return *file; }
    std::uint64_t Refused() const { return watch.RefusedPackets(); }
    const LogWatch& Log() const { return watch; }

private:
    LogWatch watch;
    std::unique_ptr<ProgressMonitor> readMonitor;
    std::atomic<std::uint64_t> bytesRead{0}; // frames and their record headers, as the monitor shows them
    std::unique_ptr<Lyr::NetFile> file;
    InputFile input;
    std::string path; // where the back-end and libpcap open it
    FrameFilter filter;
    std::uint64_t filtered = 0;
    bool bDamaged = false;
    Damage damage;
    std::uint32_t magic = 0;         // the file's first four bytes, as they lie
    int linkType = -1;               // libpcap's, or -1 where it cannot tell
    std::uint64_t recordsPassed = 0; // frames and refused packets, from the start of the file
    std::uint64_t framesPassed = 0;
    bool bSeeked = false;            // reading began after a seek: where is not known in records
    bool bAtEnd = false;
    bool bEndChecked = false;
    bool bWalked = false;
    RecordWalk walk;
    std::future<RecordWalk> earlyWalk; // begun at Open, for pcapng files
    Lyr::BufferPool pool{1, 9036};
    Lyr::EthFrame frame{pool.GetBuffer(), 0};
};
