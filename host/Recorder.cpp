#include "Recorder.h"

#include "Host.h"
#include "StreamRelay.h"
#include "TimeStamps.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

// What the back-end's recording writes: a file header, then a record header before each frame.
constexpr std::uint64_t FileHeaderSize = 24;
constexpr std::uint64_t RecordHeaderSize = 16;
// The most that the back-end's stream holds before it writes: its buffer (256 KiB) and the
// frame that overflows it. A file further behind than that has lost frames.
constexpr std::uint64_t MostBuffered = 256 * 1024 + RecordHeaderSize + 65536;
// The back-end keeps no frame in its buffer that lies a quarter of a second (of the frames' own
// stamps) or more behind the last one written: such a frame is in the file, unless writing failed.
constexpr unsigned long long FlushedWithinUs = 250000;
// Frames are followed in groups of this span of stamps, so that a long recording keeps only a
// few dozen entries in hand, and the file is looked at no more often than once a group.
constexpr unsigned long long GroupUs = 100000;
// Where stamps say nothing (all alike), the file is looked at after this many frames.
constexpr std::uint64_t FramesBetweenLooks = 4096;

std::uint64_t FileSize(int descriptor)
{
    struct stat info{};
    return fstat(descriptor, &info) == 0 ? static_cast<std::uint64_t>(info.st_size) : 0;
}

// The whole records of a capture file written on this machine, and the size they fill; a record
// cut short at the end is not counted.
std::uint64_t WholeRecords(int descriptor, std::uint64_t size, std::uint64_t& wholeSize)
{
    std::uint64_t records = 0;
    wholeSize = size < FileHeaderSize ? 0 : FileHeaderSize;
    std::uint32_t header[4];
    while (pread(descriptor, header, sizeof header, static_cast<off_t>(wholeSize)) == sizeof header &&
           wholeSize + RecordHeaderSize + header[2] <= size) {
        wholeSize += RecordHeaderSize + header[2];
        ++records;
    }
    return records;
}

// The system's own reason why the file cannot grow: asked of the file system by reserving a block
// behind its end, which is given back at once.
std::string WhyNotGrowing(int descriptor, std::uint64_t size)
{
    std::string reason;
    if (fallocate(descriptor, FALLOC_FL_KEEP_SIZE, static_cast<off_t>(size), 4096) != 0) {
        if (errno != EOPNOTSUPP)
            reason = std::strerror(errno);
    } else {
        fallocate(descriptor, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(size), 4096);
    }
    struct statvfs space{};
    if (reason.empty() && fstatvfs(descriptor, &space) == 0 && space.f_bfree == 0)
        reason = std::strerror(ENOSPC);
    return reason.empty() ? "the file holds less than was written to it" : reason;
}

// Creates the file `name`, or empties the one there, for writing: never through a symbolic link,
// and never anything but a regular file of that one name, whose other names (hard links) would
// change too, or a FIFO (`bStream` then tells). -1, with the reason, when it will not.
// Everything later is done through the descriptor, so that a file put in its place by name
// meanwhile is never touched.
int CreateOutputFile(const std::string& name, bool& bStream, std::string& reason)
{
    bStream = false;
    int descriptor = open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (descriptor >= 0)
        return descriptor; // new, and so a regular file of one name
    // Something is there: opened without following a link, without waiting for a FIFO's
    // reader or taking a terminal, and looked at before it is changed.
    if (errno == EEXIST)
        descriptor = open(name.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    struct stat info{};
    if (descriptor < 0)
        reason = errno == ELOOP ? "it is a symbolic link, which is not followed (its target is left alone)"
                                : std::strerror(errno);
    else if (fstat(descriptor, &info) != 0)
        reason = std::strerror(errno);
    else if (S_ISFIFO(info.st_mode)) {
        // Opened again for writing alone, waiting for a reader as a FIFO's writer does: a writer
        // that also reads would never learn that its reader went away.
        close(descriptor);
        descriptor = open(name.c_str(), O_WRONLY | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC);
        bStream = descriptor >= 0 && fstat(descriptor, &info) == 0 && S_ISFIFO(info.st_mode);
        if (bStream)
            return descriptor;
        reason = descriptor < 0 ? std::strerror(errno) : "it changed while it was opened";
    } else if (!S_ISREG(info.st_mode))
        reason = "it is not a regular file or a FIFO";
    else if (info.st_nlink > 1)
        reason = "the file has " + std::to_string(info.st_nlink) + " names (hard links), and would change under each";
    else if (ftruncate(descriptor, 0) != 0)
        reason = std::strerror(errno);
    else
        return descriptor;
    if (descriptor >= 0)
        close(descriptor);
    return -1;
}

// The name under which the back-end opens the file that `descriptor` holds: the same file,
// whatever happens to its name meanwhile.
std::string DescriptorPath(int descriptor)
{
    return "/proc/self/fd/" + std::to_string(descriptor);
}

// "ring.pcap", 3 -> "ring_00003.pcap": the number goes before the extension.
std::string NumberedName(const std::string& path, std::uint64_t number)
{
    const std::size_t slash = path.rfind('/');
    std::size_t dot = path.rfind('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash) || dot == slash + 1)
        dot = path.size();
    char suffix[32];
    std::snprintf(suffix, sizeof suffix, "_%05llu", static_cast<unsigned long long>(number));
    return path.substr(0, dot) + suffix + path.substr(dot);
}

} // namespace

struct Recorder::File {
    std::string name;
    std::unique_ptr<Lyr::NetFile> recording;
    int descriptor = -1; // the file as created, for its size, its records and cutting it
    std::unique_ptr<StreamRelay> relay; // for a stream, which has no size: what reached it
    std::uint64_t frames = 0;
    std::uint64_t expected = FileHeaderSize; // what the file holds once closed
    std::uint64_t flushed = FileHeaderSize;  // what it must hold already
    // Groups of frames by stamps, each with what the file holds behind its last frame, that are
    // not yet known to be in the file; the group being filled is the frames since groupStart.
    struct Group {
        unsigned long long last;
        std::uint64_t expected;
    };
    std::deque<Group> unflushed;
    unsigned long long groupStart = 0;
    unsigned long long lastStamp = 0;
    long long earliest = 0, latest = 0; // the span of the frames' stamps, for a ring by time
    unsigned long long nextEventAt = 0; // the stamp at which a group ends or one is known flushed
    std::uint64_t untilLook = FramesBetweenLooks;

    ~File()
    {
        recording.reset();
        relay.reset();
        if (descriptor >= 0 && descriptor != STDOUT_FILENO)
            close(descriptor);
    }

    // What the back-end has written so far.
    std::uint64_t Size() const { return relay ? relay->Written() : FileSize(descriptor); }

    // Whether a frame of `size` bytes stamped `stamp` belongs in the ring's next file. The stamps
    // are taken for what they mean, so that a file across 2038 spans what it spans.
    bool TooFull(const Ring& ring, std::uint64_t size, unsigned long long stamp) const
    {
        if (frames == 0)
            return false; // a frame larger than a whole file still gets one
        const long long at = StampMeaning(stamp);
        return (ring.fileBytes != 0 && expected + RecordHeaderSize + size > ring.fileBytes) ||
               (ring.fileUs != 0 && static_cast<unsigned long long>(std::max(latest, at) - std::min(earliest, at)) >=
                                        ring.fileUs);
    }

    // Notes a frame handed to the back-end; true when the file should be looked at now. Most
    // frames only count: the groups change at most once per GroupUs of stamps.
    bool Handed(unsigned long long stamp, std::uint64_t size)
    {
        const long long at = StampMeaning(stamp);
        earliest = frames == 0 ? at : std::min(earliest, at);
        latest = frames == 0 ? at : std::max(latest, at);
        expected += RecordHeaderSize + size;
        ++frames;
        if (stamp >= lastStamp && stamp < nextEventAt && --untilLook != 0) {
            lastStamp = stamp;
            return false;
        }
        return Event(stamp, RecordHeaderSize + size);
    }

    bool Event(unsigned long long stamp, std::uint64_t frameBytes)
    {
        untilLook = FramesBetweenLooks;
        if (frames > 1 && stamp < lastStamp) {
            flushed = expected; // a stamp that goes back is written at once, with all before it
            unflushed.clear();
            groupStart = stamp;
        } else if (frames == 1 || stamp >= groupStart + GroupUs) {
            if (frames > 1)
                unflushed.push_back({lastStamp, expected - frameBytes});
            groupStart = stamp;
        }
        lastStamp = stamp;
        while (!unflushed.empty() && unflushed.front().last + FlushedWithinUs <= stamp) {
            flushed = unflushed.front().expected;
            unflushed.pop_front();
        }
        const unsigned long long flushedAt = unflushed.empty() ? ~0ULL : unflushed.front().last + FlushedWithinUs;
        nextEventAt = std::min(groupStart + GroupUs, flushedAt);
        return true;
    }

    // Whether the file is further behind than the back-end's buffer can explain, or the stream's
    // reader has gone.
    bool Lost() const
    {
        const std::uint64_t size = Size();
        return size < flushed || (size < expected && expected - size > MostBuffered) || (relay && relay->Failure());
    }
};

Recorder::Recorder(std::string recordingPath, Ring ringSettings, std::string commandName)
    : path(std::move(recordingPath)), ring(ringSettings), command(std::move(commandName))
{
}

Recorder::~Recorder() = default;

std::string Recorder::RefuseName(const std::string& path)
{
    const std::string extension = ".pcapng";
    if (path.size() < extension.size() ||
        strcasecmp(path.c_str() + path.size() - extension.size(), extension.c_str()) != 0)
        return "";
    return path + " names a pcapng file, but the recording is a classic capture file (libpcap format): name it .pcap";
}

bool Recorder::Open()
{
    return OpenNext();
}

bool Recorder::IsStandardOutput(const std::string& path)
{
    return path == "-" || path == "/dev/stdout";
}

bool Recorder::OpenNext()
{
    auto file = std::make_unique<File>();
    file->name = ring.Bounded() ? NumberedName(path, ++sequence) : path;
    std::string reason;
    bool bStream = IsStandardOutput(path);
    if (bStream) {
        file->name = "standard output";
        file->descriptor = STDOUT_FILENO;
    } else {
        file->descriptor = CreateOutputFile(file->name, bStream, reason);
    }
    if (file->descriptor < 0) {
        std::fprintf(stderr, "lyrcap %s: cannot write %s: %s\n", command.c_str(), file->name.c_str(), reason.c_str());
        return false;
    }
    if (bStream) {
        file->relay = std::make_unique<StreamRelay>(file->descriptor);
        if (!file->relay->Start()) {
            std::fprintf(stderr, "lyrcap %s: cannot write %s: %s\n", command.c_str(), file->name.c_str(), std::strerror(errno));
            return false;
        }
    }
    file->recording = CreateNetFile();
    const std::string backendPath = bStream ? file->relay->WritePath() : DescriptorPath(file->descriptor);
    if (!file->recording || !file->recording->ConfigureFile(backendPath, Lyr::NetFile::NetFileMode_Write, 0)) {
        std::fprintf(stderr, "lyrcap %s: cannot write %s\n", command.c_str(), file->name.c_str());
        return false;
    }
    if (bStream)
        file->relay->ReleaseWriteEnd();
    if (ring.files != 0 && kept.size() >= ring.files) {
        std::remove(kept.front().c_str());
        kept.pop_front();
        ++removed;
    }
    kept.push_back(file->name);
    current = std::move(file);
    bWriting = true;
    bLossSeen = false;
    return true;
}

bool Recorder::Write(const Lyr::EthFrame& frame)
{
    if (!bWriting)
        return false;
    const std::uint64_t size = const_cast<Lyr::EthFrame&>(frame).GetData().size;
    const unsigned long long stamp = frame.GetTimestamp();
    if (current->TooFull(ring, size, stamp) && !(CloseCurrent() && OpenNext())) {
        bWriting = false;
        bFailed = true; // and said, by the one that failed
        return false;
    }
    File& file = *current;
    file.recording->Write(frame);
    ++frames;
    bytes += size;
    // Stopped at once where the file shows a loss: the frames that would follow are lost too.
    bLossSeen = file.Handed(stamp, size) && file.Lost();
    bWriting = !bLossSeen;
    return bWriting;
}

bool Recorder::Close()
{
    const bool bWhole = !bFailed && (!current || CloseCurrent());
    current.reset();
    bWriting = false;
    return bWhole;
}

bool Recorder::CloseCurrent()
{
    File& file = *current;
    file.recording.reset(); // the back-end writes what it still holds
    if (file.relay)
        file.relay->Finish();
    const std::uint64_t size = file.relay ? (file.relay->Failure() ? 0 : file.relay->Delivered()) : FileSize(file.descriptor);
    // A loss seen while writing is said even where the file came out whole in the end: the
    // frames that followed it were not handed over.
    return (size == file.expected && !bLossSeen) || Failed(file);
}

bool Recorder::Failed(const File& file)
{
    std::string reason;
    std::uint64_t records = 0;
    if (file.relay) {
        // A stream that took less: its reader went away, or what it went to is full.
        file.relay->Finish();
        reason = file.relay->Failure() ? std::strerror(file.relay->Failure()) : "it took less than was written to it";
        records = file.relay->WholeRecordsDelivered();
    } else {
        const std::uint64_t size = FileSize(file.descriptor);
        reason = WhyNotGrowing(file.descriptor, size);
        std::uint64_t wholeSize = 0;
        records = WholeRecords(file.descriptor, size, wholeSize);
        if (wholeSize < size && ftruncate(file.descriptor, static_cast<off_t>(wholeSize)) != 0)
            reason += std::string("; cutting off its last record failed too: ") + std::strerror(errno);
    }
    const std::uint64_t reached = frames - file.frames + records;
    std::fprintf(stderr, "lyrcap %s: writing %s failed: %s; %llu frame%s reached %s, %llu did not\n",
                 command.c_str(), file.name.c_str(), reason.c_str(), static_cast<unsigned long long>(reached),
                 reached == 1 ? "" : "s", file.relay ? "it" : kept.size() > 1 ? "the files" : "the file",
                 static_cast<unsigned long long>(frames - reached));
    bFailed = true;
    return false;
}

std::uint64_t Recorder::Frames() const
{
    return frames;
}

std::uint64_t Recorder::Bytes() const
{
    return bytes;
}

std::uint64_t Recorder::Removed() const
{
    return removed;
}

std::vector<std::string> Recorder::Files() const
{
    return std::vector<std::string>(kept.begin(), kept.end());
}
