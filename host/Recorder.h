#pragma once

#include <lyr/EthFrame.h>
#include <lyr/NetFile.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

// Records frames through the capture-file back-end into one file, into a ring of files of a
// bounded size or time, or into a stream (standard output, a FIFO), and notices what the
// back-end cannot tell: Write has no result and a full disk
// goes unnoticed there. The recorder knows what it handed over, and so the size that the file
// must have reached, and compares it with the file whenever the back-end must have written to
// it. One thread records; others may read the figures once it has stopped.
class Recorder {
public:
    // A ring of files: the next file begins where the current one would grow beyond fileBytes,
    // or where its frames would span fileUs or more by their stamps.
    struct Ring {
        std::uint64_t fileBytes = 0; // 0: no bound on the size
        std::uint64_t fileUs = 0;    // 0: no bound on the time
        std::uint64_t files = 0;     // the newest to keep; 0: all
        bool Bounded() const { return fileBytes != 0 || fileUs != 0; }
    };

    Recorder(std::string path, Ring ring, std::string command);
    ~Recorder();

    // Why the recording may not be called `path`, or "": a name that ends in .pcapng promises
    // a format that the back-end does not write (it writes classic capture files).
    static std::string RefuseName(const std::string& path);
    // Whether `path` names standard output ("-"), where the recording goes as a stream. A FIFO
    // given by name is a stream too.
    static bool IsStandardOutput(const std::string& path);

    // Creates the first file; false, having said why, when it cannot.
    bool Open();
    // Records a frame; false once frames are known to be lost (then stop and call Close).
    bool Write(const Lyr::EthFrame& frame);
    // Closes the recording and checks the whole of it; false when frames were lost, which it
    // has said, with the system's reason and how many frames reached the file. A file cut in a
    // record is shortened to its last whole record, so that it stays readable.
    bool Close();

    std::uint64_t Frames() const;
    std::uint64_t Bytes() const;
    std::vector<std::string> Files() const; // the files written and kept, oldest first
    // The recording as named to people: its name, or "standard output".
    std::string Name() const { return IsStandardOutput(path) ? "standard output" : path; }
    std::uint64_t Removed() const;           // the oldest files of the ring, removed

private:
    struct File; // one file of the ring, with what it must hold
    bool OpenNext();
    bool CloseCurrent();
    bool Failed(const File& file); // says what was lost, and why

    const std::string path;
    const Ring ring;
    const std::string command;
    std::unique_ptr<File> current;
    std::deque<std::string> kept;
    std::uint64_t sequence = 0;
    std::uint64_t removed = 0;
    std::uint64_t frames = 0;
    std::uint64_t bytes = 0;
    bool bWriting = false;  // a file is open and has shown no loss
    bool bLossSeen = false; // the open file fell behind while frames were written
    bool bFailed = false;  // frames were lost, and it has been said
};
