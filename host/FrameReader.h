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

    // The next frame, skipping packets that the back-end refuses; null at the end of the file.
    const Lyr::EthFrame* Next();

    Lyr::NetFile& File() { return *file; }
    std::uint64_t Refused() const { return watch.RefusedPackets(); }
    const LogWatch& Log() const { return watch; }

private:
    LogWatch watch;
    std::unique_ptr<Lyr::NetFile> file;
    Lyr::BufferPool pool{1, 9036};
    Lyr::EthFrame frame{pool.GetBuffer(), 0};
};
