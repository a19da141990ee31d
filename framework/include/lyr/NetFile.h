#pragma once

#include <lyr/Export.h>

#include <kt/CUncopyable.h>

#include <cstdint>
#include <string>

namespace Lyr {

class EthFrame;

// A capture file: replayed frame by frame, or recorded into.
class LYR_SHARED NetFile : private Kt::CUncopyable {
public:
    enum NetFileMode_e : std::uint32_t { NetFileMode_None = 0, NetFileMode_Read = 1, NetFileMode_Write = 2 };

    virtual ~NetFile();
    virtual bool ConfigureFile(const std::string& path, NetFileMode_e mode, unsigned long long knownDuration) = 0;
    virtual unsigned long long GetParseProgress() const = 0;
    virtual void StopParsingFile() = 0;
    virtual unsigned long long GetDuration() const = 0;
    virtual unsigned long long GetPosition() const = 0;
    virtual void SeekBegin(unsigned long long targetMs) = 0;
    virtual bool Read(EthFrame& frame) = 0;
    virtual void Write(const EthFrame& frame) = 0;
};

} // namespace Lyr
