#pragma once

#include "Host.h"

#include <lyr/BufferPool.h>
#include <lyr/EthFrame.h>
#include <lyr/NetFile.h>

#include <cstdint>
#include <memory>
#include <string>

// Reads a capture file frame by frame through the plug-in's capture-file back-end, into one
// reused buffer with room for the largest frame and an Ethernet header in front.
class FrameReader {
public:
    // Opens `path`; progress of the scan goes to standard error while `bShowProgress`, and
    // Ctrl-C during the scan stops it early (Interrupted() then tells).
    bool Open(const std::string& path, bool bShowProgress);

    // SeekBegin to `ms` after the first packet, when the file lasts longer; otherwise false,
    // with a message in the name of `command`. The packet that reaches the time is consumed by
    // the seek.
    bool SeekTo(unsigned long long ms, const char* command);

    // The next frame, skipping packets that the back-end refuses; null at the end of the file.
    const Lyr::EthFrame* Next();

    Lyr::NetFile& File() { return *file; }
    std::uint64_t Refused() const { return watch.RefusedPackets(); }

private:
    LogWatch watch;
    std::unique_ptr<Lyr::NetFile> file;
    std::string path;
    Lyr::BufferPool pool{1, 9036};
    Lyr::EthFrame frame{pool.GetBuffer(), 0};
};
