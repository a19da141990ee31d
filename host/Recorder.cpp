#include "Recorder.h"

#include "Host.h"

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
// change too. -1, with the reason, when it will not. Everything later is done through the
// descriptor, so that a file put in its place by name meanwhile is never touched.
int CreateOutputFile(const std::string& name, std::string& reason)
{
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
    else if (!S_ISREG(info.st_mode))
        reason = "it is not a regular file";
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
    unsigned long long nextEventAt = 0; // the stamp at which a group ends or one is known flushed
    std::uint64_t untilLook = FramesBetweenLooks;

    ~File()
    {
        recording.reset();
        if (descriptor >= 0)
            close(descriptor);
    }

    // Notes a frame handed to the back-end; true when the file should be looked at now. Most
    // frames only count: the groups change at most once per GroupUs of stamps.
    bool Handed(unsigned long long stamp, std::uint64_t size)
    {
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

    // Whether the file is further behind than the back-end's buffer can explain.
    bool Lost() const
    {
        const std::uint64_t size = FileSize(descriptor);
        return size < flushed || (size < expected && expected - size > MostBuffered);
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

bool Recorder::OpenNext()
{
    auto file = std::make_unique<File>();
    file->name = ring.fileBytes == 0 ? path : NumberedName(path, ++sequence);
    std::string reason;
    file->descriptor = CreateOutputFile(file->name, reason);
    if (file->descriptor < 0) {
        std::fprintf(stderr, "lyrcap %s: cannot write %s: %s\n", command.c_str(), file->name.c_str(), reason.c_str());
        return false;
    }
    file->recording = CreateNetFile();
    if (!file->recording ||
        !file->recording->ConfigureFile(DescriptorPath(file->descriptor), Lyr::NetFile::NetFileMode_Write, 0)) {
        std::fprintf(stderr, "lyrcap %s: cannot write %s\n", command.c_str(), file->name.c_str());
        return false;
    }
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
    if (ring.fileBytes != 0 && current->frames != 0 && current->expected + RecordHeaderSize + size > ring.fileBytes &&
        !(CloseCurrent() && OpenNext())) {
        bWriting = false;
        bFailed = true; // and said, by the one that failed
        return false;
    }
    File& file = *current;
    file.recording->Write(frame);
    ++frames;
    bytes += size;
    // Stopped at once where the file shows a loss: the frames that would follow are lost too.
    bLossSeen = file.Handed(frame.GetTimestamp(), size) && file.Lost();
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
    const std::uint64_t size = FileSize(file.descriptor);
    // A loss seen while writing is said even where the file came out whole in the end: the
    // frames that followed it were not handed over.
    return (size == file.expected && !bLossSeen) || Failed(file);
}

bool Recorder::Failed(const File& file)
{
    const std::uint64_t size = FileSize(file.descriptor);
    std::string reason = WhyNotGrowing(file.descriptor, size);
    std::uint64_t wholeSize = 0;
    const std::uint64_t records = WholeRecords(file.descriptor, size, wholeSize);
    if (wholeSize < size && ftruncate(file.descriptor, static_cast<off_t>(wholeSize)) != 0)
        reason += std::string("; cutting off its last record failed too: ") + std::strerror(errno);
    const std::uint64_t reached = frames - file.frames + records;
    std::fprintf(stderr, "lyrcap %s: writing %s failed: %s; %llu frames reached the file%s, %llu did not\n",
                 command.c_str(), file.name.c_str(), reason.c_str(), static_cast<unsigned long long>(reached),
                 kept.size() > 1 ? "s" : "", static_cast<unsigned long long>(frames - reached));
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
